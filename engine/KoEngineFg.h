#pragma once
// The foreground handler: every message the facade posts is handled here, one at a time, on the
// "KoEngineFg" looper. It keeps the frame history, joins the pieces of each frame, computes the
// per-frame statistics, collects capture jobs and turns finished capture stages into callbacks.
// It also notices when it has fallen behind the camera (late mode) so that the facade sheds load.
#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "ABuffer.h"
#include "AHandler.h"
#include "ALooper.h"
#include "AMessage.h"
#include "KoBestShotTypes.h"
#include "KoEngineTypes.h"
#include "KoFrameData.h"
#include "KoFrameHist.h"
#include "KoMemoryBuffer.h"
#include "KoSequenceData.h"
#include "KoStatsRecords.h"

namespace android {

class KoEngine;
class KoTopScore;

// Message codes: four characters packed big-endian into `what`.
constexpr uint32_t koFourCC(char a, char b, char c, char d) {
  return (static_cast<uint32_t>(static_cast<uint8_t>(a)) << 24) |
         (static_cast<uint32_t>(static_cast<uint8_t>(b)) << 16) |
         (static_cast<uint32_t>(static_cast<uint8_t>(c)) << 8) | static_cast<uint32_t>(static_cast<uint8_t>(d));
}

class KoEngineFg : public AHandler {
 public:
  enum : uint32_t {
    kWhatStartPreview = koFourCC('s', 't', 'p', 'r'),
    kWhatPreviewFrame = koFourCC('p', 'r', 'e', 'f'),
    kWhatFaceFrame = koFourCC('f', 'a', 'c', 'f'),
    kWhatMetaFrame = koFourCC('m', 'e', 't', 'a'),
    kWhatZslFrame = koFourCC('z', 's', 'l', 'f'),
    kWhatZslChannel = koFourCC('z', 's', 'l', 'c'),
    kWhatStartRecording = koFourCC('s', 't', 'r', 'e'),
    kWhatStopRecording = koFourCC('s', 'p', 'r', 'e'),
    kWhatTakePicture = koFourCC('t', 'k', 'p', 'c'),
    kWhatLate = koFourCC('l', 'a', 't', 'e'),
    kWhatProcessCompleted = koFourCC('b', 'g', 'c', 'm'),
    kWhatSetStartVideo = koFourCC('s', 's', 'v', 'd'),
    kWhatVideoEncoded = koFourCC('v', 'i', 'd', 'e'),
    kWhatEncodeData = koFourCC('e', 'n', 'c', 'd'),
    kWhatClear = koFourCC('c', 'l', 'e', 'a'),
  };
  // Late mode: entered when a message is more than kLateEnterUs old, left when one is at most
  // kLateLeaveUs old.
  static const int64_t kLateEnterUs = 500000;
  static const int64_t kLateLeaveUs = 49999;
  // Motion scores are computed on frames more than this far apart.
  static const int32_t kMotionIntervalUs = 66000;
  // The EXIF history block handed to the callbacks: a 4-byte prefix, then the record.
  static const int kExifRecordBytes = 36864;
  static const int kExifBlockBytes = kExifRecordBytes + 4;

  explicit KoEngineFg(KoEngine* engine);

  void init(bool processInFg);
  void deinit();
  void deinit_l();
  ALooper::handler_id getHandlerId() const { return id(); }
  bool isMessageLate(const sp<AMessage>& msg);
  bool isLateMode() const { return mLateMode.load(std::memory_order_relaxed); }

  // Message handlers.
  void handleStartPreview(int width, int height, int previewHist, int replaceEnable, KO_cam_position_t camPosition);
  void handlePreviewFrame(sp<KoFrameData>& frame, KO_PreviewFrameData_t* preview, bool late);
  void handleMetaFaceFrame(sp<KoFaceMetaData>& face, unsigned int frameId, bool late);
  void handleMetaFrame(unsigned int frameId, sp<ABuffer> metaData, Ko_CameraMetaData_t* camMeta, bool late);
  void handleZslFrame(sp<KoMemoryBuffer>& buffer, KO_ZslFrameData_t* zsl, unsigned int frameId, bool late);
  void handleStartRecording();
  void handleStopRecording();
  void handleZslChannelCb(int jobId);
  void handleEncodeData(int jobId);
  void handleTakePicture(int jobId, unsigned int frameId, long long timeStamp, int orientation, int videoFd,
                         int metadataFd, sp<ABuffer> config, bool bestShot, bool video, KO_timespec_t exifTs,
                         bool hdrMode, bool late);
  void handleProcessCompleted(int jobId, int processField);
  void processBestShotDone(int jobId, KoSequenceData* job, bestShotInfo_t* result);
  void handleSetStartVideo(int jobId);
  void processVideoGen();
  void handleVideoEncodeComplete(int jobId, bool saved);

  // Best shot in the foreground: the running candidate list on every kept frame, and the
  // decision for each job that has collected its frames.
  void processBestShotInFG();
  void captureBestShotFromFG(int jobId);
  // Hands a job whose frames are collected to the background handler.
  void postEncodeDataMsg(int jobId);

  // Per-frame statistics.
  void processFrameStats(sp<KoFrameData>& current, sp<KoFrameData>& previous);
  void processMotionScores(sp<KoFrameData>& current, KoFrameHist* hist);
  void processCamMotion(sp<KoFrameData>& current);
  int calculateFps(KoFrameHist* hist);
  bool getLowFpsMode(KoFrameHist* hist, bool camPositionIs1, bool previous);
  bool getMissingFaceDataMode(KoFrameHist* hist);
  uint32_t getReplaceOverride(KoFrameHistBase* hist);

  // Posted by the preview encoder's thread when a clip has been written.
  static void videoEncodeCompleteCb(sp<KoEngineFg>& fg, int jobId, bool saved);

  // Read by the facade without the handler's lock.
  std::atomic<int32_t> mReportedParam1;
  std::atomic<int32_t> mReportedParam2;
  pthread_mutex_t mLock;
  KoEngine* mEngine;
  KoTopScore* mTopScore;
  sp<ALooper> mLooper;
  bool mLooperRunning;
  pthread_cond_t mStopCond;
  KoFrameHist* mFrameHist;
  std::atomic<int32_t> mState;
  int32_t mPreviewHist;
  int32_t mReplaceEnable;
  bool mProcessInFg;
  std::atomic<bool> mLateMode;
  KO_cam_position_t mCamPosition;
  bool mLowFpsMode;
  bool mMissingFaceDataMode;

 protected:
  virtual ~KoEngineFg();
  void onMessageReceived(const sp<AMessage>& msg) override;

 private:
  // Writes the statistics record of a snapshot into a fresh EXIF history block; the caller
  // frees it. Null (size 0) when the block cannot be allocated.
  uint8_t* makeExifBlock(KoGenFrameData_t* summary, KoFrameHistSnapshot* snapshot, KoSequenceData* job,
                         bestShotInfo_t* result, uint32_t* size);
  void debugPrintSnapshot(KoSequenceData* job);

  bool mStopSignalled;  // set by 'clea', under mLock

  KoEngineFg(const KoEngineFg&) = delete;
  KoEngineFg& operator=(const KoEngineFg&) = delete;
};

}  // namespace android
