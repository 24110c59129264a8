#pragma once
// Faults injected into the frames around a shutter press, from a seed: the same seed, kind
// and press always give the same fault, whatever else the replay does.
//
// Each fault covers a run of 2..6 consecutive frames that holds the shutter frame, not always
// in the middle; the frames within ±6 of the shutter outside the run stay clean, so the engine
// has a good frame to pick. Values (at frame width W):
//   blink     the main (largest) face's blink degrees rise to closed and fall back: the
//             shutter frame 100, other inner frames 90..99, the first and last frame of the run
//             30..60 (half closed); the other eye up to 4 less. Pixels are not touched: this
//             checks the engine's decision, not the face detector.
//   shake     linear motion blur along a random direction, length 1.2..2.5 % of W at the
//             shutter frame (8..16 px at 640), falling off to no less than 1.2 % of W away
//             from it; with a matching gyroscope burst.
//   defocus   Gaussian blur, sigma 1.5..3 px at 640 (scaled with W) at the shutter frame,
//             falling off to no less than 1.5 px (scaled).
//   exposure  a step of the luma gain, the same on every frame of the run: 0.5..0.6 or
//             1.6..1.8, dark or bright at even odds, clipped to 0..255. A darker frame has its
//             colour differences scaled by the gain as well, which is what scaling the light
//             does; a brighter one keeps its colours except where the luma runs into its
//             limit, where they fade to neutral as on an over-exposed picture.
//   noise     Gaussian noise on the luma, sigma 6..10 grey levels at the shutter frame, no
//             less than 6 on the other frames; its pixels follow from the seed and frame.
// Shake and defocus blur the chroma too, at its half size.
//
// Gyroscope convention (the phone's sensor axes: x to the right of the screen, y up its long
// side, z out of the screen; the camera looks out of the back, along -z): a positive rate
// about y pans the camera left, so the picture moves right (+x); a positive rate about x tilts
// it up, so the picture moves down (+y). A blur of L px along angle a in one frame comes from
// a rate of L / (f * T) rad/s with f = focalPx(W) = W (a lens of about 64° diagonal on a 4:3
// sensor) and T the exposure, taken as the frame interval: x = rate * sin(a), y = rate * cos(a).
#include <cstdint>
#include <string>
#include <vector>

#include "DegradationEvent.h"
#include "ReplayTypes.h"

namespace kovane_replay {

class Degrader {
 public:
  static constexpr int kMinRun = 2;
  static constexpr int kMaxRun = 6;
  static constexpr double kShakeMinOfWidth = 0.012;
  static constexpr double kShakeMaxOfWidth = 0.025;
  static constexpr double kDefocusMinAt640 = 1.5;
  static constexpr double kDefocusMaxAt640 = 3.0;
  static constexpr double kDarkGainMin = 0.5, kDarkGainMax = 0.6;
  static constexpr double kBrightGainMin = 1.6, kBrightGainMax = 1.8;
  static constexpr double kNoiseMin = 6.0, kNoiseMax = 10.0;
  static constexpr int kBlinkEdgeMin = 30, kBlinkEdgeMax = 60;
  static constexpr int kBlinkClosedMin = 90;
  static constexpr int kGyroStepUs = 5000;
  // The quiet hand: noise of this deviation per axis, plus a 9 Hz tremor of this amplitude.
  static constexpr double kTremorNoiseRadS = 0.004;
  static constexpr double kTremorWaveRadS = 0.006;

  explicit Degrader(uint64_t seed);

  // A fault of the kind around the shutter frame of a clip of numFrames frames, frameWidth
  // pixels wide. An unknown kind, a shutter frame outside the clip or a width < 2 give an
  // event that is not valid() and changes nothing.
  DegradationEvent plan(const std::string& kind, int shutterFrame, int numFrames, int frameWidth) const;

  // Applies the event's fault to the pixels of one frame; returns the value applied (see
  // DegradationEvent::values), 0 when the frame is outside the run, the fault is a blink, or
  // the picture is not a whole NV21 picture.
  double applyImage(const DegradationEvent& event, int frame, Nv21Image& image) const;

  // Writes a blink into the main face's records of one frame of the run; other faces, other
  // kinds and other frames are left alone. An eye the records already show more closed (a
  // natural blink) keeps its degree; eye aspect ratios, when the records have them, shrink
  // with the degree (to a quarter at 100).
  void applyFaces(const DegradationEvent& event, int frame, std::vector<FaceRecord>& faces) const;

  // Gyroscope samples of one frame, every kGyroStepUs from frameTsUs over the frame interval:
  // the shake burst on the frames of a shake run, the quiet hand otherwise.
  std::vector<GyroSample> gyro(const DegradationEvent& event, int frame, int64_t frameTsUs,
                               int64_t frameIntervalUs) const;
  // The quiet hand alone, for frames without a shake.
  std::vector<GyroSample> gyroQuiet(int64_t frameTsUs, int64_t frameIntervalUs) const;

  // The building blocks, for any picture.
  static void motionBlur(Nv21Image& image, double lengthPx, double angleRad);
  static void gaussianBlur(Nv21Image& image, double sigmaPx);
  static void exposureGain(Nv21Image& image, double gain);
  static void addNoise(Nv21Image& image, double sigma, uint64_t seed);

  static double focalPx(int frameWidth) { return static_cast<double>(frameWidth); }
  // Angular rate (rad/s) that smears the picture by blurPx during an exposure.
  static double gyroRateForBlur(double blurPx, int frameWidth, int64_t exposureUs);
  // A whole NV21 picture: even, positive size and data of the size it needs.
  static bool wellFormed(const Nv21Image& image);

 private:
  uint64_t mSeed;
};

}  // namespace kovane_replay
