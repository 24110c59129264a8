#include "DexVideoGeneration.h"

#include <log/log.h>

#include <cmath>

#include "DexCameraMotion.h"
#include "KoPreviewEncode.h"
#include "KoSequenceData.h"

namespace android {

namespace {
constexpr const char* kTag = "DexVideoGeneration";
}  // namespace

DexVideoGeneration::DexVideoGeneration() {}

DexVideoGeneration::~DexVideoGeneration() {}

bool DexVideoGeneration::hardPan(DexCameraMotion* motion, int64_t fromUs, int64_t toUs) {
  if (motion == nullptr || toUs <= fromUs) return false;
  KO_camMotionType_t type = {};
  if (motion->getCamMotionType(fromUs, toUs, &type) != 0) return false;
  return type.mode == DexCameraMotion::MODE_PANNING && type.gyroMean >= kHardPanRate;
}

int32_t DexVideoGeneration::estimateFrameId(const KoSequenceData* job, int64_t tsUs) {
  const int64_t spanUs = job->mLastFrameTsUs - job->mFirstFrameTsUs;
  const int32_t spanIds = job->mLastFrameId - job->mFirstFrameId;
  if (job->mFirstFrameTsUs < 0 || spanUs <= 0 || spanIds <= 0) return job->mCapturedFrameId;
  const double perFrameUs = static_cast<double>(spanUs) / spanIds;
  const double offset = static_cast<double>(tsUs - job->mCapturedTsUs) / perFrameUs;
  return job->mCapturedFrameId + static_cast<int32_t>(std::lround(offset));
}

void DexVideoGeneration::KoSetVideoStartPoint(KoSequenceData* job, KoPreviewEncode* encoder,
                                              DexCameraMotion* motion) {
  if (job == nullptr || encoder == nullptr) return;
  const int64_t shutter = job->mCapturedTsUs;
  int64_t start = shutter - kPreRollUs;
  const int64_t oldest = encoder->oldestTimestampUs();
  if (oldest > start) start = oldest;
  for (int64_t t = shutter; t - kPanStepUs >= start; t -= kPanStepUs) {
    if (hardPan(motion, t - kPanStepUs, t)) {
      start = t;
      break;
    }
  }
  job->mVideoReserved[0] = 0;
  job->mVideoReserved[1] = 0;
  job->mVideoReserved[2] = 0;
  job->mVideoStartFrameId = estimateFrameId(job, start);
  const status_t err = oldest < 0 ? NO_INIT : encoder->startClip(job->mJobId, job->mVideoFd, start);
  if (err != OK) {
    __android_log_print(ANDROID_LOG_WARN, kTag, "%s: job %d clip not opened (%d), cancelled", __func__,
                        job->mJobId, static_cast<int>(err));
    job->mVideoCancelled = 1;
    encoder->notifyEncodeComplete(job->mJobId, false);
  }
}

void DexVideoGeneration::KoSetVideoEndPoint(KoSequenceData* job, KoPreviewEncode* encoder,
                                            DexCameraMotion* motion, bool& set, bool& cancelled) {
  set = cancelled = false;
  if (job == nullptr || encoder == nullptr) return;
  int64_t first = -1, newest = -1;
  if (!encoder->clipSpan(job->mJobId, first, newest)) {
    // No open clip (it failed to open, or was abandoned): nothing will come of it.
    cancelled = true;
    encoder->notifyEncodeComplete(job->mJobId, false);
    return;
  }
  const int64_t shutter = job->mCapturedTsUs;
  const int64_t target = shutter + kPostRollUs;

  // Preview stopped feeding the clip?
  const int32_t newestLow = static_cast<int32_t>(static_cast<uint32_t>(newest));
  if (newest >= 0 && newestLow != job->mVideoReserved[1]) {
    job->mVideoReserved[0] = 0;
    job->mVideoReserved[1] = newestLow;
  } else {
    ++job->mVideoReserved[0];
  }
  const bool stopped = encoder->isRecording() || job->mVideoReserved[0] >= kStallFrames;

  // Steps after the shutter already found free of a hard pan are not asked again: this runs
  // after every preview frame.
  int64_t end = -1;
  const int64_t horizon = newest < target ? newest : target;
  for (int64_t t = shutter + job->mVideoReserved[2] * kPanStepUs; t + kPanStepUs <= horizon; t += kPanStepUs) {
    if (hardPan(motion, t, t + kPanStepUs)) {
      end = t;
      break;
    }
    ++job->mVideoReserved[2];
  }
  if (end < 0 && newest >= target) end = target;
  if (end < 0 && stopped) end = newest;
  if (end < 0) return;  // the end is still to come

  if (first < 0 || end - first < kMinClipUs) {
    __android_log_print(ANDROID_LOG_INFO, kTag, "%s: job %d clip of %lld us is too short, cancelled", __func__,
                        job->mJobId, static_cast<long long>(first < 0 ? 0 : end - first));
    cancelled = true;
    encoder->cancelClip(job->mJobId);
    return;
  }
  job->mVideoStopFrameId = estimateFrameId(job, end);
  set = encoder->endClip(job->mJobId, end) == OK;
  if (!set) {
    cancelled = true;
    encoder->cancelClip(job->mJobId);
  }
}

}  // namespace android
