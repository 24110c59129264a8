#pragma once
// Plain records shared by the modules of the replay tool (kovane-replay): decoded frames, face
// records as a phone's face detector reports them, ground truth of the frames a replay feeds,
// and what one shutter press gave. Nothing here knows about FFmpeg, dlib or the engine.
#include <cstdint>
#include <string>
#include <vector>

namespace kovane_replay {

// An NV21 picture, tightly packed: width*height luma bytes, then (width/2)*(height/2) V,U
// pairs. Width and height are even.
struct Nv21Image {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> data;

  void allocate(int w, int h) {
    width = w;
    height = h;
    data.assign(static_cast<size_t>(w) * h * 3 / 2, 0);
  }
  bool empty() const { return data.empty(); }
  uint8_t* y() { return data.data(); }
  const uint8_t* y() const { return data.data(); }
  uint8_t* vu() { return data.data() + static_cast<size_t>(width) * height; }
  const uint8_t* vu() const { return data.data() + static_cast<size_t>(width) * height; }
};

// One decoded frame of a clip.
struct ClipFrame {
  int index = 0;         // 0-based, in presentation order
  int64_t ptsUs = 0;     // presentation time from the clip's first frame, microseconds
  Nv21Image image;       // at the replay's preview size
};

// One face as a phone's face detector reports it. Coordinates are pixels of the preview
// size the replay runs at.
struct FaceRecord {
  int id = 0;            // stable across frames while the face is tracked
  int score = 0;         // detection confidence 0..100
  int left = 0, top = 0, width = 0, height = 0;
  int leftEyeX = 0, leftEyeY = 0, rightEyeX = 0, rightEyeY = 0;
  int mouthX = 0, mouthY = 0;
  int leftBlink = 0;     // 0 open .. 100 closed
  int rightBlink = 0;
  int smile = 0;         // 0 neutral .. 100 broad smile
  // Measurements the degrees were derived from (0 when the record did not come from landmarks).
  float leftEar = 0.f;   // eye aspect ratio of the left eye
  float rightEar = 0.f;
  float mouthRatio = 0.f;

  int blinkDegree() const { return leftBlink > rightBlink ? leftBlink : rightBlink; }
};

// Face records of every frame of a clip, indexed by frame index.
using ClipFaces = std::vector<std::vector<FaceRecord>>;

// One gyroscope sample, rad/s, on the clip's time line.
struct GyroSample {
  int64_t timestampUs = 0;
  float x = 0.f, y = 0.f, z = 0.f;
};

// A blink degree at or above this reads as closed eyes.
constexpr int kBlinkClosedDegree = 50;

// Names of what can be wrong with a frame or a press. A press without any is "clean".
namespace kind {
constexpr const char* kClean = "clean";
constexpr const char* kBlink = "blink";                 // injected into the face records
constexpr const char* kNaturalBlink = "natural-blink";  // read by the face module from pixels
constexpr const char* kShake = "shake";
constexpr const char* kDefocus = "defocus";
constexpr const char* kExposure = "exposure";
constexpr const char* kNoise = "noise";
}  // namespace kind

// What the replay knows for certain about one frame it fed to the engine.
struct FrameTruth {
  int frame = 0;
  int64_t timestampUs = 0;
  std::string degradation;  // "" when fed unchanged, else the kind applied to it
  double strength = 0.0;    // of that kind: blur length px, sigma, gain, noise sigma, blink degree
  bool hasFace = false;     // the main face is present in the records fed
  bool eyesOpen = true;     // main face's eyes open as fed (true without a face)
  bool naturalBlink = false;
  int blinkDegree = 0;      // main face's larger blink degree as fed
  int smile = 0;
  double sharpness = 0.0;   // the tool's own sharpness measure of the pixels as fed

  bool good() const { return degradation.empty() && eyesOpen && !naturalBlink; }
};

// The engine's per-frame scores as its statistics records print them.
struct EngineFrameScores {
  uint32_t frameId = 0;
  int64_t timestampUs = 0;
  double sobelMean = 0.0;      // "sob.mean", sharpness
  double motion = 0.0;         // "frmMotionScoreNorm"
  double feScore = 0.0;        // "fe_score"
  double facesScore = 0.0;     // "faces_score"
  double bsScore = 0.0;        // "bs_score"
  bool zsl = false;            // "zsl": the frame held a ZSL buffer
  int numFaces = 0;            // "face.num_detected"
  int blinkDegree = 0;         // main face's larger of "blink.l", "blink.r"
  int smile = 0;               // main face's "smile.degree"
};

// Everything one shutter press gave.
struct PressResult {
  int index = 0;               // 0-based; its files go to capture-NN
  int jobId = 0;
  std::string kind;            // kind::... the press is counted under
  std::string source;          // "auto", "list", "on-blinks", "degrade"
  int shutterFrame = 0;
  int64_t shutterTimeUs = 0;
  int windowFirst = 0;         // frames that may become the best shot: ±6 frames and
  int windowLast = 0;          // ±430 ms around the shutter frame

  // The engine.
  bool statisticsReceived = false;
  bool engineDecided = false;  // the best-shot-done callback came
  int engineFrame = -1;        // frame index the engine chose; -1 none
  bool replace = false;
  uint32_t algBitField = 0;
  int32_t captureOffsetUs = 0;
  bool engineDone = false;     // the engine-done callback came
  double decisionMs = -1.0;    // take-picture to best-shot-done; -1 when it never came
  int finalFrame = 0;          // the picture the camera ends with

  // The plain camera and the sharpest-frame pick.
  int baselineFrame = 0;

  bool capturedGood = false;
  bool finalGood = false;
  bool baselineGood = false;

  std::vector<FrameTruth> truth;                // frames around the press, oldest first
  std::vector<EngineFrameScores> engineScores;  // as read from the records, oldest first
  std::string capturedJpeg;                     // relative to the output folder
  std::string finalJpeg;
  std::string recordJson;
  std::string clipMp4;                          // the engine's clip, when it saved one
  std::string motionJpg;                        // the final picture with the clip embedded
};

// Counts for one kind of press, or for all of them.
struct KindSummary {
  std::string kind;
  int presses = 0;
  int capturedGood = 0;
  int decided = 0;             // presses the engine decided
  // Engine (final picture) and baseline (sharpest frame).
  int engineGood = 0, engineRescued = 0, engineHarmed = 0, engineNeedless = 0;
  int baselineGood = 0, baselineRescued = 0, baselineHarmed = 0, baselineNeedless = 0;
};

}  // namespace kovane_replay

namespace kovane_replay {

// How a replay ran, for its outputs.
struct RunInfo {
  std::string clip;            // path as given
  std::string clipSha256;
  int clipWidth = 0, clipHeight = 0;
  int width = 0, height = 0;   // preview size fed to the engine
  std::string fit;             // "crop" or "letterbox"
  double fps = 0.0;
  int frames = 0;
  double durationS = 0.0;
  std::string faces;           // "dlib", "dlib (cached)", "none", or the CSV path
  std::string shutter;         // the --shutter text
  std::string degrade;         // the --degrade text
  uint64_t seed = 0;
  std::string pacing;          // how frames were paced, in words
  bool lateModeEntered = false;
  int lateFrames = 0;          // presses whose statistics record says the engine was late
  int zslLent = 0, zslReturned = 0, zslDoubleReturns = 0, zslNotReturned = 0;
  int zslSkipped = 0;          // frames that got no ZSL buffer because the pool was empty
  int zslRefused = 0;          // buffers the engine handed back in the call that lent them
  int jobsFinished = 0;        // engine-done callbacks
  bool engineDecides = false;  // at least one press got a best-shot decision
  double wallSeconds = 0.0;
  std::string engineVersion;
};

}  // namespace kovane_replay
