#pragma once
// One capture sequence: everything a take-picture request carries, the frozen frame history
// around the shutter, the resolution of the captured frame in it, and the results the
// foreground and background handlers collect for it. The handlers hand a sequence between
// their threads by process-field bits rather than locks.
//
// The record is handed whole to the analysis library (best-shot search, video start and end
// points), so the order and widths of the fields are a binary contract with it: do not reorder,
// insert or resize fields, including those the engine itself only clears.
#include <atomic>
#include <cstddef>
#include <cstdint>

#include <utils/RefBase.h>
#include <utils/Vector.h>

#include "ABuffer.h"
#include "DexFrameMetaData.h"
#include "DexMotionCamMove.h"
#include "KoBestShotTypes.h"
#include "KoEngineTypes.h"

namespace android {

class KoFrameHistSnapshot;
class KoFaceIdBasedData;

// Process-field bits (KoSequenceData::mProcessField). They are only ever added by the engine.
enum : uint32_t {
  KO_SEQ_HISTORY_TAKEN = 0x1,               // the history snapshot is taken
  KO_SEQ_PROCESS_REQUESTED = 0x2,           // the capture asks for processing
  KO_SEQ_DISPATCHED = 0x4,                  // handed out as ready to the background
  KO_SEQ_VIDEO_START_SET = 0x40,            // video start point set
  KO_SEQ_VIDEO_END_SET = 0x80,              // video end point set or the encoder finished
  KO_SEQ_BESTSHOT_DELIVERED = 0x100,        // best-shot result delivered
  KO_SEQ_VIDEO_DELIVERED = 0x200,           // video result delivered
  KO_SEQ_PREVIEW_HISTORY_DELIVERED = 0x400, // preview-history result delivered
  KO_SEQ_VIDEO_FINISHED = 0x20000,          // no video wanted, or the encoder finished
  KO_SEQ_BESTSHOT_FOUND = 0x40000,          // best-shot search done
  KO_SEQ_FRAME_STATS_DONE = 0x100000,       // temporal statistics done
  KO_SEQ_FACE_ID_DONE = 0x200000,           // face-identity data done
  KO_SEQ_MOTION_DONE = 0x400000,            // motion decision done
  KO_SEQ_PREVIEW_HISTORY_DONE = 0x800000,   // preview history written

  // The low three bits: history taken, processing asked, dispatched.
  KO_SEQ_STAGE_MASK = KO_SEQ_HISTORY_TAKEN | KO_SEQ_PROCESS_REQUESTED | KO_SEQ_DISPATCHED,
  // Set in one go by the foreground's own best-shot pass.
  KO_SEQ_FG_ANALYSIS_DONE = KO_SEQ_BESTSHOT_FOUND | KO_SEQ_FRAME_STATS_DONE | KO_SEQ_FACE_ID_DONE,
  // Best shot and preview history delivered: the snapshot can go.
  KO_SEQ_SNAPSHOT_DONE = KO_SEQ_BESTSHOT_DELIVERED | KO_SEQ_PREVIEW_HISTORY_DELIVERED,
  // All three results delivered: the sequence can go.
  KO_SEQ_ALL_DELIVERED =
      KO_SEQ_BESTSHOT_DELIVERED | KO_SEQ_VIDEO_DELIVERED | KO_SEQ_PREVIEW_HISTORY_DELIVERED,
};

// Job id of the foreground's own short-lived best-shot sequence.
enum : int32_t { KO_SEQ_INTERNAL_JOB_ID = -99 };

struct KoSequenceData {
  // Changed only under the queue's lock (so bits set by two threads are never lost); atomic so
  // that a handler may read it without the lock. Same width and alignment as a uint32.
  std::atomic<uint32_t> mProcessField;
  uint8_t mVideoEnabled;        // "video_enable" of the request
  uint8_t mBestShotEnabled;     // "bestShot_enable" of the request
  int8_t mFramesToWait;         // preview frames still to wait; starts at the queue's delay
  KoFrameHistSnapshot* mSnapshot;  // owned; null until taken and again after it is freed
  int32_t mJobId;
  int32_t mOrientation;         // "orientation"
  int64_t mCapturedTsUs;        // "capturedTsUs"; the chosen frame's when resolved by time
  int32_t mCapturedFrameId;     // "capturedFrameId"; likewise
  int32_t mCapturedFrameIndex;  // "capturedFrameVecIndex"; -1 until resolved
  int64_t mFirstFrameTsUs;      // of the first snapshot frame; -1 until taken
  int64_t mLastFrameTsUs;       // of the last snapshot frame; -1 until taken
  int32_t mFirstFrameId;        // -1 until taken
  int32_t mLastFrameId;         // -1 until taken
  int32_t mVideoFd;             // "video_fd"
  int32_t mMetadataFd;          // "metadata_fd"
  uint8_t mAuxFlag;             // the analysis library's; cleared at creation
  uint8_t mHdrMode;             // "hdr_mode"
  sp<ABuffer> mConfig;          // the request's configuration buffer
  KO_timespec_t mExifTs;        // "exif_ts"
  int32_t mBestFeFrameId;       // chosen by the focus/exposure search
  int32_t mBestFeFrameIndex;    // its snapshot index
  int32_t mResultCookie;        // copied into the best-shot callback record
  int32_t mSceneInfo[5];        // word 0: 1 = not a face scene; words 1-4 the library's

  // Video block: the seven fields below form one 32-byte block, cleared as a whole.
  uint8_t mVideoGenerated;      // "video.generated"
  uint8_t mVideoCancelled;      // "video.cancelled"
  uint8_t mVideoSet;            // "video.set"
  int32_t mVideoMotionScore;    // "video.motionScore": motion decision x 100
  int32_t mVideoStartFrameId;   // "video.startFrameId"
  int32_t mVideoStopFrameId;    // "video.stopFrameId"
  int32_t mVideoReserved[4];    // the library's

  bestShotInfo_t mBestShotInfo[2];  // [0] zeroed at creation, [1] left as allocated
  Vector<dexMotionCamMove_t> mCamMotionList;
  uint8_t mCamMotionValid;
  KO_dataStats_t mFrameLumaStats;   // "temporalStats.frameLuma.*"
  KO_dataStats_t mFrameDiffStats;   // "temporalStats.frameDiff.*"
  KO_dataStats_t mFrameSobelStats;  // "temporalStats.frameSobel.*"
  Vector<KO_dataStats_t> mLumaStatsList;
  Vector<KO_dataStats_t> mDiffStatsList;
  Vector<KO_dataStats_t> mSobelStatsList;
  uint8_t mVideoSaved;              // the clip was saved and not cancelled
  KoFaceIdBasedData* mFaceIdData;   // owned; deleted through its virtual destructor
  Vector<bestShotScores_t> mBestShotScores;
};

// The analysis library receives the record whole: its layout is fixed, on the 32-bit device
// (first value) and on a 64-bit host (second). offsetof on a record with non-trivial members
// is what the compilers we build with define as the plain byte offset.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(sizeof(KoSequenceData) == KO_layout(488, 600), "KoSequenceData size");
static_assert(alignof(KoSequenceData) == 8, "KoSequenceData alignment");
static_assert(sizeof(Vector<int>) == KO_layout(20, 40), "Vector layout the record relies on");
static_assert(offsetof(KoSequenceData, mVideoEnabled) == 4, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mFramesToWait) == 6, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mSnapshot) == 8, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mJobId) == KO_layout(12, 16), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mCapturedTsUs) == 24, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mCapturedFrameId) == 32, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mFirstFrameTsUs) == 40, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mLastFrameId) == 60, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mVideoFd) == 64, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mAuxFlag) == 72, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mHdrMode) == 73, "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mConfig) == KO_layout(76, 80), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mExifTs) == KO_layout(80, 88), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mBestFeFrameId) == KO_layout(88, 96), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mResultCookie) == KO_layout(96, 104), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mSceneInfo) == KO_layout(100, 108), "KoSequenceData layout");
// The video block, cleared as one 32-byte run.
static_assert(offsetof(KoSequenceData, mVideoGenerated) == KO_layout(120, 128), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mVideoMotionScore) == KO_layout(124, 132), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mVideoReserved) == KO_layout(136, 144), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mBestShotInfo) == KO_layout(152, 160), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mBestShotInfo) - offsetof(KoSequenceData, mVideoGenerated) == 32,
              "the video block is 32 bytes");
static_assert(offsetof(KoSequenceData, mCamMotionList) == KO_layout(312, 320), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mCamMotionValid) == KO_layout(332, 360), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mFrameLumaStats) == KO_layout(336, 364), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mFrameDiffStats) == KO_layout(356, 384), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mFrameSobelStats) == KO_layout(376, 404), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mLumaStatsList) == KO_layout(396, 424), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mDiffStatsList) == KO_layout(416, 464), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mSobelStatsList) == KO_layout(436, 504), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mVideoSaved) == KO_layout(456, 544), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mFaceIdData) == KO_layout(460, 552), "KoSequenceData layout");
static_assert(offsetof(KoSequenceData, mBestShotScores) == KO_layout(464, 560), "KoSequenceData layout");
#pragma GCC diagnostic pop

}  // namespace android
