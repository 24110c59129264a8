#pragma once
// A camera integration on a desk: drives the engine only through its public interface
// (KoEngine.h, KoEngineTypes.h) the way a camera stack does while it previews, and keeps the
// books of everything that comes back.
//
// Per frame it injects the frame's gyroscope and accelerometer samples into the host sensor
// feed, hands the engine the preview frame, then the metadata and face records of an earlier
// frame (a phone's face detector and metadata run behind the preview), then the frame's ZSL
// buffer: a full-size copy of the frame from a fixed pool, lent until the frame-done callback
// hands it back. A frame that finds the pool empty gets no ZSL buffer, as on a camera whose
// buffers are all out. The shutter keeps a copy of the shutter frame's picture as the captured
// picture.
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ReplayTypes.h"

namespace android {
class KoEngine;
struct KO_bestShotDone_cb_t;
struct KO_statistics_cb_t;
}  // namespace android

namespace kovane_replay {

class CameraSimulator {
 public:
  struct Options {
    int width = 0;            // preview size
    int height = 0;
    int zslBuffers = 10;      // the camera's ZSL pool
    int metadataLagFrames = 1;  // metadata and faces of frame k arrive after preview k + lag
    bool bestShot = true;
    bool frontCamera = false;
    double frameIntervalS = 1.0 / 30;  // exposure time reported in the metadata
  };

  // What one shutter press got back.
  struct Job {
    int jobId = 0;
    uint32_t shutterFrameId = 0;
    Nv21Image captured;               // the camera's own picture of the shutter frame
    bool statistics = false;
    std::vector<uint8_t> statisticsRecord;
    bool bestShotDone = false;
    uint32_t chosenFrameId = 0;
    bool replace = false;
    uint32_t algBitField = 0;
    int32_t captureOffsetUs = 0;
    std::vector<uint8_t> bestShotRecord;
    Nv21Image chosen;                 // the chosen frame's ZSL picture, when it had one
    double decisionMs = -1.0;
    bool engineDone = false;
    int videoFd = -1;                 // the descriptor the clip was asked into; -1: no clip
    bool videoDone = false;           // the engine reported the clip saved
    std::chrono::steady_clock::time_point pressedAt;
  };

  // The ZSL books at the end of a run.
  struct Books {
    int lent = 0;
    int returned = 0;
    int doubleReturns = 0;
    int unknownReturns = 0;   // a handle the camera never lent
    int notReturned = 0;      // still out
    int skipped = 0;          // frames that found the pool empty
    int returnedAtOnce = 0;   // handed back during the call that lent them (refused)
  };

  explicit CameraSimulator(const Options& options);
  ~CameraSimulator();
  CameraSimulator(const CameraSimulator&) = delete;
  CameraSimulator& operator=(const CameraSimulator&) = delete;

  // Constructs the engine, registers the callbacks and starts the preview.
  bool start(std::string* error);
  // One camera frame. `faces` are this frame's face records as the camera's face detector
  // reports them, `gyro` the gyroscope samples up to this frame. Returns the engine's result
  // of the preview call (non-zero: the engine refused the frame).
  int feedFrame(const Nv21Image& image, uint32_t frameId, int64_t timestampUs,
                const std::vector<FaceRecord>& faces, const std::vector<GyroSample>& gyro);
  // Hands over the metadata still held back (the frames at the end of a clip).
  void flushMetadata();
  // Shutter press on a frame already fed; returns the job id. With videoFd >= 0 the press asks
  // for a clip written to that descriptor (the caller keeps it and closes it after stop()).
  int takePicture(uint32_t frameId, int64_t timestampUs, int videoFd = -1);
  // Waits until every job has its engine-done callback or the time is up; true when all did.
  bool waitForJobs(int timeoutMs);
  // Waits until every job has its statistics record or the time is up; true when all did.
  bool waitForStatistics(int timeoutMs);
  // Destroys the engine: every buffer still held must come back now.
  void stop();

  std::vector<Job> jobs();
  Books books();
  std::string engineVersion() const { return mEngineVersion; }

 private:
  struct Slot {
    Nv21Image image;
    uint32_t frameId = 0;
    bool out = false;
  };
  struct PendingMeta {
    uint32_t frameId = 0;
    int64_t timestampUs = 0;
    double meanLuma = 0.0;
    std::vector<FaceRecord> faces;
  };

  static CameraSimulator* self(void* cookie) { return static_cast<CameraSimulator*>(cookie); }
  static void onFrameDone(void* cookie, void* buffer);
  static void onStatistics(void* cookie, int jobId, android::KO_statistics_cb_t* stats);
  static void onBestShotDone(void* cookie, int jobId, android::KO_bestShotDone_cb_t* result);
  static void onEngineDone(void* cookie, int jobId);
  static void onVideoDone(void* cookie, int jobId);
  Job* findJob(int jobId);  // with mLock held
  void sendMetadata(const PendingMeta& meta);
  void lendZsl(const Nv21Image& image, uint32_t frameId);

  Options mOptions;
  android::KoEngine* mEngine = nullptr;
  std::string mEngineVersion;
  std::vector<std::unique_ptr<Slot>> mPool;
  std::deque<PendingMeta> mPendingMeta;
  std::deque<std::pair<uint32_t, Nv21Image>> mRecent;  // newest frames, for the captured picture
  std::vector<uint8_t> mRawMeta;


  std::mutex mLock;
  std::condition_variable mChanged;
  std::vector<Job> mJobs;
  Books mBooks;
  Slot* mLending = nullptr;  // the slot being handed over right now (caller's thread)
  bool mLendReturned = false;
  int mNextJobId = 1;
};

}  // namespace kovane_replay
