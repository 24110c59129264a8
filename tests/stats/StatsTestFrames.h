#pragma once
// Frames, histories and records with known values for the statistics record tests and fuzzer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <utils/RefBase.h>

#include "ABuffer.h"
#include "KoFrameData.h"
#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"
#include "KoSequenceData.h"
#include "KoStatsData.h"
#include "fastcv.h"

namespace kovane_test {

using android::sp;

inline uint32_t floatWord(float value) {
  uint32_t word;
  memcpy(&word, &value, sizeof(word));
  return word;
}

// Fills face k of a frame with values derived from seed, covering negative int8 fields and
// uint8 fields above 127.
inline void fillFace(android::KO_cam_face_t& face, int seed, int k) {
  const int s = seed * 10 + k;
  face.id = 1000 + s, face.reserved = 77777;
  face.score = static_cast<int8_t>(k % 2 ? -(s % 100) : s % 100);
  face.left = 10 * s, face.top = -3 * s, face.width = 50 + s, face.height = 60 + s;
  face.leftEyeX = 1 + s, face.leftEyeY = 2 + s, face.rightEyeX = 3 + s, face.rightEyeY = 4 + s;
  face.mouthX = 5 + s, face.mouthY = 6 + s;
  face.recognised = static_cast<uint8_t>(200 + k), face.smileDegree = static_cast<uint8_t>(s % 101);
  face.smileConfidence = static_cast<uint8_t>(250 - k), face.blinkDetected = static_cast<uint8_t>(k % 2);
  face.leftBlink = static_cast<uint8_t>(100 - k), face.rightBlink = static_cast<uint8_t>(128 + k);
  face.gazeAngle = static_cast<int8_t>(-10 - k), face.upDownDir = static_cast<int8_t>(-20 - k);
  face.leftRightDir = static_cast<int8_t>(20 + k), face.rollDir = static_cast<int8_t>(-90 + k);
  face.leftRightGaze = static_cast<int8_t>(-30 - k), face.topBottomGaze = static_cast<int8_t>(30 + k);
}

struct FrameOptions {
  int faces = 0;          // entries filled
  uint32_t claimed = 0;   // numFaces written into the record (0: same as faces)
  bool zsl = false;       // attach a ZSL handle
  bool histogram = true;  // 32 bins
};

// A frame whose every printed value is derived from seed i.
inline sp<android::KoFrameData> makeFrame(int i, const FrameOptions& opt) {
  sp<android::KoFrameData> f = new android::KoFrameData();
  f->mFrameId = 100 + i;
  f->mTimestamp = 1234567890123LL + 33333LL * i;
  f->mWidth = f->mAnalysisWidth = 640;
  f->mHeight = f->mAnalysisHeight = 360;
  f->mSobelStats = {10.25f + i, 3.5f + i, 3.5f + i, 0.0f, 255.0f};
  f->mLumaStats = {120.125f - i, 40.75f, 40.75f, 1.0f, 250.0f};
  f->mDiffStats = {0.0625f * i, 1.5f * i, 1.5f * i, 0.0f, 80.0f};
  f->mZoom = static_cast<uint32_t>(i % 3);
  f->mAccelSample = {111, 0.1f * i, -9.81f, 0.333f};
  f->mGyroSample = {222, -0.002f * i, 0.0104f, 1.0f / 3.0f};
  f->mOrientSample = {333, 359.9f, -45.5f + i, 12.0f};
  f->mCafState = static_cast<int16_t>(-1 + i % 4), f->mLensPos = static_cast<int16_t>(-200 + 7 * i);
  f->mAfNumRoi = static_cast<uint8_t>(i % 2), f->mAfRoiType = static_cast<uint8_t>(i % 3);
  f->mAfWindow[0] = static_cast<uint16_t>(100 + i), f->mAfWindow[1] = static_cast<uint16_t>(200 + i);
  f->mAfWindow[2] = 65535, f->mAfWindow[3] = static_cast<uint16_t>(40 + i);
  f->mHasZsl = opt.zsl ? 1 : 0;
  if (opt.zsl) f->setZslBuffer(new android::ABuffer(4));
  f->mFeScore = 1000 - 13 * i, f->mFacesScore = 0.5f + 0.01f * i, f->mBsScore = -2.75f + i;
  f->mMotionResult[3] = floatWord(1.125f + i), f->mMotionResult[4] = floatWord(0.0015f * i);
  f->mMotionResult[8] = floatWord(-7.5f), f->mMotionResult[9] = floatWord(99.999f);
  f->mMotionResult[0] = floatWord(55555.0f);  // never printed
  f->mCamMotion[3] = static_cast<uint32_t>(i % 4);
  f->mLuxLevel = 300 + i, f->mAecState = i % 5, f->mAwbState = 2;
  f->mLuxIdx = 250.25f + i, f->mExpTime = 0.0333f;
  f->mFaceRefWidth = 1920, f->mFaceRefHeight = 1080;
  f->mFaceData.record.frameId = f->mFrameId;
  f->mFaceData.record.numFaces = opt.claimed ? opt.claimed : static_cast<uint32_t>(opt.faces);
  f->mFaceData.record.reserved = 424242;
  f->mFaceData.numBlinkedPredicted = i % 2;
  for (int k = 0; k < opt.faces && k < android::KO_MAX_FACES; ++k) fillFace(f->mFaceData.record.faces[k], i, k);
  if (opt.histogram) {
    f->mHistogramBins = 32;
    f->mHistogram = static_cast<uint32_t*>(malloc(32 * sizeof(uint32_t)));
    for (int b = 0; b < 32; ++b) f->mHistogram[b] = static_cast<uint32_t>(i * 1000 + b * 7);
  }
  return f;
}

// A history holding the frames, and a snapshot of it.
struct History {
  android::KoFrameHist hist;
  android::KoFrameHistSnapshot* snapshot = nullptr;

  explicit History(std::vector<sp<android::KoFrameData>> frames) {
    for (sp<android::KoFrameData>& f : frames) hist.addFrameData(f);
    snapshot = new android::KoFrameHistSnapshot(&hist);
  }
  ~History() { delete snapshot; }
  History(const History&) = delete;
  History& operator=(const History&) = delete;
};

// Job 12 with best shot enabled, nothing captured or chosen; every other flag 0.
inline android::KoGenFrameData_t makeSummary() {
  android::KoGenFrameData_t s;
  memset(&s, 0, sizeof(s));
  s.jobId = 12;
  s.bestShotEnabled = 1;
  s.capturedFrameId = s.capturedFrameIndex = s.bestShotFrameIndex = s.referenceFrameId = -1;
  s.camPosition = 1;
  return s;
}

// A sequence and decision record with distinct values in every printed field.
inline void fillSequence(android::KoSequenceData& seq, android::bestShotInfo_t& bs) {
  seq.mJobId = 7, seq.mCapturedTsUs = 123456789012LL;
  seq.mCapturedFrameId = 40, seq.mCapturedFrameIndex = 3, seq.mOrientation = 90;
  seq.mVideoGenerated = 1, seq.mVideoSet = 0, seq.mVideoCancelled = 1;
  seq.mVideoMotionScore = 55, seq.mVideoStartFrameId = 30, seq.mVideoStopFrameId = 45;
  seq.mFrameLumaStats = {100.5f, 12.25f, 12.25f, 0.0f, 0.0f};
  seq.mFrameDiffStats = {3.5f, 1.125f, 1.125f, 0.0f, 0.0f};
  seq.mFrameSobelStats = {20.0f, 4.5f, 4.5f, 0.0f, 0.0f};
  memset(&bs, 0, sizeof(bs));
  bs.generated = 1, bs.frameId = 42, bs.frameIndex = 5, bs.referenceFrameId = 41;
  bs.timestampUs = 999, bs.bsScore = 8.5f, bs.captureOffsetUs = -33333;  // not printed
  bs.algBitField = 0x10003, bs.cancelledAlgBitField = 2;
  bs.similarityCoeff = 0.875f, bs.expOffset = -2, bs.expSimilarity = 0.9375f;
  bs.replace = 1, bs.replaceOverride = 6;
  bs.isFaceScene = 1, bs.shiftDetected = 0;
  bs.blurDetected = 1, bs.blurDetectCoeff = -1.0f, bs.blurDetectSubCoeff = 0.5f;
}

inline const char kSequenceLine[] =
    "34, 7, 123456789012, 40, 3, 90, 1, 42, 5, 41, 1, 0, 1, 55, 30, 45, 100.500, 12.250, 3.500, "
    "1.125, 20.000, 4.500, 0.875, -2, 0.938, 1, 6, 1, 0, 1, -1.000, 0.500, 65539, 2";

}  // namespace kovane_test
