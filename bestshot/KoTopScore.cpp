#include "KoTopScore.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "DexFrameMetaData.h"

namespace android {

namespace {

// Blur measure below which a best shot counts as blurred.
const float kBlurThreshold = 0.17f;
// Lux levels above this are the low-light side of the camera's lux index.
const int32_t kLowLightLux = 4499;
// Captured auxScore above which a low-light capture is good enough.
const float kGoodLowLightAux = 70.0f;
// A best shot further than this from the capture is never a replacement.
const int64_t kFarCaptureUs = 300000;
// Histogram coefficients below these count as similar / nearly identical pictures.
const float kSimilarCoeff = 0.1f;
const float kIdenticalCoeff = 0.05f;
// Faces-scene candidates must be focused within this many lens steps of the capture.
const int kLensReachSteps = 25;

int64_t idDistance(uint32_t a, uint32_t b) {
  return std::llabs(static_cast<int64_t>(a) - static_cast<int64_t>(b));
}

// Frame id and timestamp within the capture window of the reference.
bool nearCapture(int32_t frameId, int64_t timestampUs, uint32_t refId, int64_t refTs) {
  return idDistance(static_cast<uint32_t>(frameId), refId) <= KoTopScore::CAPTURE_WINDOW_FRAMES &&
         std::llabs(timestampUs - refTs) <= KoTopScore::CAPTURE_WINDOW_US;
}

uint32_t faceNum(const sp<KoFrameData>& frame) {
  return frame != nullptr ? frame->mFaceData.record.numFaces : 0;
}

int32_t blinkNum(const sp<KoFrameData>& frame) {
  return frame != nullptr ? frame->mFaceData.numBlinkedPredicted : 0;
}

bool knownLux(int32_t lux) { return lux != 0 && lux != -1; }

}  // namespace

KoTopScore::KoTopScore(KoFrameHist* hist)
    : mFrameHist(hist), mBlurDetect(new (std::nothrow) DexBlurDetect(320, 180, 320)) {}

KoTopScore::~KoTopScore() {
  mTopScoreList.clear();
  mCapturedShots.clear();
  delete mBlurDetect;
  mBlurDetect = nullptr;
}

// ---- History access.

size_t KoTopScore::historyCount() const { return mFrameHist ? mFrameHist->mHistory.size() : 0; }

sp<KoFrameData> KoTopScore::frameAt(int64_t index) const {
  if (index < 0 || static_cast<uint64_t>(index) >= historyCount()) return nullptr;
  const sp<KoFrameHistNode>& node = mFrameHist->mHistory[static_cast<size_t>(index)];
  return node != nullptr ? node->mFrameData : nullptr;
}

int KoTopScore::indexOfFrame(uint32_t frameId) const {
  return mFrameHist ? mFrameHist->indexOfFrameId(frameId) : -1;
}

sp<KoFrameData> KoTopScore::frameWithId(uint32_t frameId) const {
  sp<KoFrameData> frame;
  if (mFrameHist) mFrameHist->getItemWithFrameId(frameId, frame);
  return frame;
}

// ---- The top-score list.

float KoTopScore::getAvgExposureTime(int frameId) {
  float sum = 0.0f;
  int taken = 0;
  for (int64_t i = static_cast<int64_t>(historyCount()) - 1; i >= 0 && taken < 3; --i) {
    sp<KoFrameData> frame = frameAt(i);
    if (frame == nullptr || frame->mFrameId > static_cast<uint32_t>(frameId)) continue;
    if (frame->mExpTime > 0.0f) {
      sum += frame->mExpTime;
      ++taken;
    }
  }
  return taken > 0 ? sum / static_cast<float>(taken) : 0.0f;
}

void KoTopScore::addTopScoreList(Vector<KoBestShot::BSScore>& scores, bool missingFaceDataMode) {
  sp<KoFrameData> newest = frameAt(static_cast<int64_t>(historyCount()) - 1);
  if (newest == nullptr) {
    // Nothing holds a buffer without a history; entries can only leave.
    maintainTopScoreList(missingFaceDataMode, 0, 0, false);
    return;
  }
  const int64_t cutoff = newest->mTimestamp - AGE_LIMIT_US;

  capturedShotInfo_t ref;
  getOldestCapturedInfo(ref);
  uint32_t refId = static_cast<uint32_t>(ref.frameId);
  int64_t refTs = ref.timestampUs;
  if (ref.jobId == NO_CAPTURED_SHOT && ref.frameId == NO_CAPTURED_SHOT) {
    refId = newest->mFrameId;
    refTs = newest->mTimestamp;
  }
  const bool longExposure = getAvgExposureTime(static_cast<int>(refId)) >= LONG_EXPOSURE;

  if (!scores.isEmpty()) {
    const ssize_t count = static_cast<ssize_t>(scores.size());
    // The frame near the capture with the best auxScore: under long exposure it is the one
    // least shaken, and it must not fall to the batch cut.
    ssize_t protectedIndex = -1;
    bool protectedInCut = false;
    float bestAux = 0.0f;
    for (ssize_t p = 0; p < count; ++p) {
      const KoBestShot::BSScore& s = scores[count - 1 - p];
      if (nearCapture(s.frameId, s.timestampUs, refId, refTs) && s.auxScore > bestAux) {
        bestAux = s.auxScore;
        protectedIndex = count - 1 - p;
        protectedInCut = p <= static_cast<ssize_t>(BATCH_TAKEN) - 1;
      }
    }
    const bool substitute = longExposure && protectedIndex >= 0 && !protectedInCut;

    for (ssize_t p = 0; p < count && p < static_cast<ssize_t>(BATCH_TAKEN); ++p) {
      KoBestShot::BSScore entry = scores[count - 1 - p];
      for (size_t i = 0; i < mTopScoreList.size(); ++i) {
        if (mTopScoreList[i].frameId == entry.frameId) {
          mTopScoreList.removeAt(i);
          break;
        }
      }
      if (substitute && p == static_cast<ssize_t>(BATCH_TAKEN) - 1) {
        entry = scores[protectedIndex];
        // The protected frame may already be listed from an earlier batch.
        for (size_t i = 0; i < mTopScoreList.size(); ++i) {
          if (mTopScoreList[i].frameId == entry.frameId) {
            mTopScoreList.removeAt(i);
            break;
          }
        }
      }
      if (entry.timestampUs < cutoff) {
        releaseZSLBuffer(static_cast<unsigned int>(entry.frameId));
      } else {
        mTopScoreList.push_back(entry);
      }
    }
    for (ssize_t p = BATCH_TAKEN; p < count; ++p) {
      const ssize_t index = count - 1 - p;
      if (substitute && index == protectedIndex) continue;
      releaseZSLBuffer(static_cast<unsigned int>(scores[index].frameId));
    }
  }

  mTopScoreList.sort(&KoBestShot::compare);
  maintainTopScoreList(missingFaceDataMode, refTs, refId, longExposure);
}

void KoTopScore::maintainTopScoreList(bool missingFaceDataMode, int64_t refTimestampUs,
                                      unsigned int refFrameId, bool longExposure) {
  const size_t count = historyCount();
  sp<KoFrameData> oldest = frameAt(0);
  sp<KoFrameData> newest = frameAt(static_cast<int64_t>(count) - 1);
  if (oldest == nullptr || newest == nullptr) {
    // Every listed frame has left the history, and its buffer with it.
    mTopScoreList.clear();
    printTopScoreList();
    return;
  }
  const uint32_t oldestId = oldest->mFrameId;
  const int64_t cutoff = newest->mTimestamp - AGE_LIMIT_US;

  for (size_t i = 0; i < mTopScoreList.size();) {
    const KoBestShot::BSScore& s = mTopScoreList[i];
    const bool left = static_cast<uint32_t>(s.frameId) < oldestId;
    const bool tooOld = s.timestampUs < cutoff;
    if (!left && !tooOld) {
      ++i;
      continue;
    }
    const uint32_t id = static_cast<uint32_t>(s.frameId);
    mTopScoreList.removeAt(i);
    // A frame that merely left the history gave its buffer back with its node.
    if (tooOld) mFrameHist->releaseZslWithFrameId(id);
  }

  bool hasKeep = false;
  int32_t keepId = 0;
  float bestAux = 0.0f;
  for (ssize_t i = static_cast<ssize_t>(mTopScoreList.size()) - 1; i >= 0; --i) {
    const KoBestShot::BSScore& s = mTopScoreList[i];
    if (nearCapture(s.frameId, s.timestampUs, refFrameId, refTimestampUs) && s.auxScore > bestAux) {
      bestAux = s.auxScore;
      keepId = s.frameId;
      hasKeep = true;
    }
  }

  while (mTopScoreList.size() > LIST_CAPACITY) {
    size_t drop = 0;
    if (longExposure && hasKeep && mTopScoreList[0].frameId == keepId) drop = 1;
    const uint32_t id = static_cast<uint32_t>(mTopScoreList[drop].frameId);
    mFrameHist->releaseZslWithFrameId(id);
    mTopScoreList.removeAt(drop);
  }

  printTopScoreList();

  // Frames older than the newest frame that has its metadata (or face data) and still lack it
  // will never get it: their buffers go back.
  uint32_t rules[2] = {KoFrameData::EVENT_METADATA, KoFrameData::EVENT_FACE};
  const int ruleCount = missingFaceDataMode ? 1 : 2;
  for (int r = 0; r < ruleCount; ++r) {
    const uint32_t bit = rules[r];
    int64_t newestWith = -1;
    for (int64_t i = static_cast<int64_t>(count) - 1; i >= 0; --i) {
      sp<KoFrameData> frame = frameAt(i);
      if (frame != nullptr && (frame->processedEvents() & bit)) {
        newestWith = i;
        break;
      }
    }
    for (int64_t i = 0; i < newestWith; ++i) {
      sp<KoFrameData> frame = frameAt(i);
      if (frame != nullptr && !(frame->processedEvents() & bit)) {
        mFrameHist->releaseZslWithFrameId(frame->mFrameId);
      }
    }
  }
}

void KoTopScore::flushListIfNeeded(bool stopAtFaceData) {
  const int64_t count = static_cast<int64_t>(historyCount());
  sp<KoFrameData> newest = frameAt(count - 1);
  if (newest == nullptr) return;
  int64_t changed = -1;
  for (int64_t i = count - 2; i >= 0; --i) {
    sp<KoFrameData> frame = frameAt(i);
    if (frame == nullptr) continue;
    bool differs = frame->mZoom != newest->mZoom;
    if (!differs && newest->mAfRoiType == 2) {
      differs = frame->mAfRoiType != 2 ||
                memcmp(frame->mAfWindow, newest->mAfWindow, sizeof(newest->mAfWindow)) != 0;
    }
    if (!differs && stopAtFaceData) differs = (frame->processedEvents() & KoFrameData::EVENT_FACE) != 0;
    if (differs) {
      changed = i;
      break;
    }
  }
  if (changed < 0) return;
  for (int64_t i = 0; i < changed; ++i) {
    sp<KoFrameData> frame = frameAt(i);
    if (frame != nullptr) removeNodeFromTopScoreList(frame->mFrameId);
  }
  // The changed frame goes too; its list entry leaves at the next pruning, as a frame that
  // left the history.
  mFrameHist->removeOldestItems(static_cast<uint32_t>(changed + 1));
}

void KoTopScore::removeNodeFromTopScoreList(unsigned int frameId) {
  // The search index is 8 bits wide: longer lists (never reached) are left alone.
  if (mTopScoreList.isEmpty() || mTopScoreList.size() > 128) return;
  for (int i = static_cast<int>(mTopScoreList.size()) - 1; i >= 0; --i) {
    if (static_cast<uint32_t>(mTopScoreList[i].frameId) == frameId) {
      mTopScoreList.removeAt(static_cast<size_t>(i));
      return;
    }
  }
}

void KoTopScore::releaseZSLBuffer(unsigned int frameId) {
  if (mFrameHist) {
    mFrameHist->releaseZslWithFrameId(frameId);
    mFrameHist->releaseProcessBuffersWithFrameId(frameId);
  }
  removeNodeFromTopScoreList(frameId);
}

// ---- Shutter presses.

int KoTopScore::setCapturedFrameId(int jobId, unsigned int frameId, int64_t timestampUs) {
  capturedShotInfo_t info;
  memset(&info, 0, sizeof(info));
  info.jobId = jobId;
  info.frameId = static_cast<int32_t>(frameId);
  info.timestampUs = timestampUs;
  return static_cast<int>(mCapturedShots.add(info));
}

void KoTopScore::getOldestCapturedInfo(capturedShotInfo_t& out) {
  if (mCapturedShots.isEmpty()) {
    getNoCapturedInfo(out);
    return;
  }
  out = mCapturedShots[0];
}

void KoTopScore::getNoCapturedInfo(capturedShotInfo_t& out) {
  memset(&out, 0, sizeof(out));
  out.jobId = NO_CAPTURED_SHOT;
  out.frameId = NO_CAPTURED_SHOT;
}

void KoTopScore::printTopScoreList() {}

void KoTopScore::printFrameHistQueue() {}

// ---- The decision.

void KoTopScore::setBestShotAlgBits(bestShotInfo_t* info, bool first, bool second, bool third) {
  if (!info) return;
  uint32_t bits = info->algBitField & ~static_cast<uint32_t>(KO_BS_ALG_SET_MASK);
  if (first) bits |= KO_BS_ALG_NOT_IN_SCORE_BAND;
  if (second) bits |= KO_BS_ALG_FACE_SCENE;
  if (third) bits |= KO_BS_ALG_HDR;
  info->algBitField = bits;
}

void KoTopScore::populateBestShot(KoBestShot::BSScore score, bestShotInfo_t* info, bool& generated) {
  if (!info) return;
  sp<KoFrameData> frame = frameWithId(static_cast<uint32_t>(score.frameId));
  // A frame without its full-size buffer cannot replace the capture.
  if (frame == nullptr || frame->zslBuffer() == nullptr) return;
  info->frameId = score.frameId;
  info->timestampUs = score.timestampUs;
  info->bsScore = score.bsScore;
  generated = true;
  info->generated = 1;
  info->cancelledAlgBitField = 0;
  const int index = indexOfFrame(static_cast<uint32_t>(score.frameId));
  if (index >= 0) info->frameIndex = index;
}

float KoTopScore::interpolateFacesScore(int index) {
  const int64_t count = static_cast<int64_t>(historyCount());
  float sum = 0.0f;
  int n = 0;
  for (int k = 1; k <= 3; ++k) {
    sp<KoFrameData> frame = frameAt(static_cast<int64_t>(index) - k);
    if (frame != nullptr && frame->mFacesScore > 0.0f) {
      sum = frame->mFacesScore;
      n = 1;
      break;
    }
  }
  // Forward only the next frame counts.
  const int64_t next = static_cast<int64_t>(index) + 1;
  if (next >= 0 && next < count) {
    sp<KoFrameData> frame = frameAt(next);
    if (frame != nullptr && frame->mFacesScore > 0.0f) {
      sum += frame->mFacesScore;
      ++n;
    }
  }
  return n > 0 ? sum / static_cast<float>(n) : 0.0f;
}

void KoTopScore::getBestShotWithHDR(bool& generated, unsigned int capturedIndex,
                                    unsigned int capturedFrameId, bestShotInfo_t* info) {
  if (!info) return;
  sp<KoFrameData> captured = frameAt(capturedIndex);
  // Many faces: some eyes are always closed; an HDR picture is never exchanged for that.
  if (static_cast<uint8_t>(faceNum(captured)) >= 4) {
    generated = false;
    info->generated = 0;
    info->cancelledAlgBitField |= KO_BS_CANCEL_HDR;
    return;
  }
  int blinkCount = blinkNum(captured) > 0 ? 1 : 0;
  const int64_t end = std::min<int64_t>(static_cast<int64_t>(historyCount()),
                                        static_cast<int64_t>(capturedIndex) + 6);
  for (int64_t i = capturedIndex; i < end; ++i) {
    sp<KoFrameData> frame = frameAt(i);
    if (blinkNum(frame) > 0 && frame->zslBuffer() != nullptr) ++blinkCount;
  }
  if (blinkCount == 0) {
    generated = false;
    info->generated = 0;
    info->cancelledAlgBitField |= KO_BS_CANCEL_HDR;
    return;
  }
  if (generated && static_cast<uint32_t>(info->frameId) <= capturedFrameId) return;

  generated = false;
  for (ssize_t i = static_cast<ssize_t>(mTopScoreList.size()) - 1; i >= 0; --i) {
    const KoBestShot::BSScore entry = mTopScoreList[i];
    sp<KoFrameData> frame = frameWithId(static_cast<uint32_t>(entry.frameId));
    if (frame == nullptr || blinkNum(frame) != 0 ||
        static_cast<uint32_t>(entry.frameId) >= capturedFrameId) {
      continue;
    }
    populateBestShot(entry, info, generated);
    setBestShotAlgBits(info, true, true, true);
    break;
  }
  if (!generated) {
    // A cancelled result is not reported: the record says so too.
    info->generated = 0;
    info->cancelledAlgBitField |= KO_BS_CANCEL_HDR;
  }
}

uint32_t KoTopScore::getBestShot(int jobId, bestShotInfo_t* info, bestShotInfo_t* replaceInfo,
                                 bool hdr, unsigned int& overrideFlags) {
  printFrameHistQueue();
  printTopScoreList();
  bool generated = false;
  bool replaceGenerated = false;
  if (!info || !replaceInfo || !mFrameHist) return 0;

  // The shutter press of this job.
  if (mCapturedShots.isEmpty()) return 0;
  ssize_t shotIndex = -1;
  for (size_t i = 0; i < mCapturedShots.size(); ++i) {
    if (mCapturedShots[i].jobId == jobId) {
      shotIndex = static_cast<ssize_t>(i);
      break;
    }
  }
  if (shotIndex < 0) return 0;
  uint32_t capturedId = static_cast<uint32_t>(mCapturedShots[shotIndex].frameId);
  const uint32_t shotTsLow = static_cast<uint32_t>(mCapturedShots[shotIndex].timestampUs);
  info->referenceFrameId = static_cast<int32_t>(capturedId);
  replaceInfo->referenceFrameId = static_cast<int32_t>(capturedId);

  sp<KoFrameData> captured = frameWithId(capturedId);
  if (captured == nullptr) {
    mCapturedShots.removeAt(static_cast<size_t>(shotIndex));
    return 0;
  }

  // Under long exposure a sharper neighbour may stand in for the captured frame.
  sp<KoFrameData> exchanged;
  int listIndex = -1;
  bool captureReplaced = false;
  if (replaceCapture(captured, exchanged, listIndex) && exchanged != nullptr && listIndex >= 0 &&
      static_cast<size_t>(listIndex) < mTopScoreList.size()) {
    captureReplaced = true;
    captured = exchanged;
    capturedId = captured->mFrameId;
    overrideFlags |= KO_BS_OVERRIDE_CAPTURE_REPLACED;
    populateBestShot(mTopScoreList[listIndex], replaceInfo, replaceGenerated);
    setBestShotAlgBits(replaceInfo, true, false, false);
    replaceInfo->replace = 1;
    info->referenceFrameId = static_cast<int32_t>(capturedId);
  }

  int capturedIndex = indexOfFrame(capturedId);
  if (capturedIndex < 0) capturedIndex = 0;
  const int64_t count = static_cast<int64_t>(historyCount());
  const float fe = static_cast<float>(captured->mFeScore);
  float bs = captured->mBsScore;
  const float aux = captured->mAuxScore;
  float faces = captured->mFacesScore;
  const int64_t capturedTs = captured->mTimestamp;

  // Lens reference: the captured position when focus has settled, else the mean around it.
  int lensRef = captured->mLensPos;
  if (captured->mCafState != 1) {
    int16_t sum = captured->mLensPos;
    int taken = 1;
    if (capturedIndex > 0) {
      sp<KoFrameData> before = frameAt(capturedIndex - 1);
      if (before != nullptr) {
        sum = static_cast<int16_t>(sum + before->mLensPos);
        ++taken;
      }
    }
    if (capturedIndex < count - 1) {
      sp<KoFrameData> after = frameAt(capturedIndex + 1);
      if (after != nullptr) {
        sum = static_cast<int16_t>(sum + after->mLensPos);
        ++taken;
      }
    }
    lensRef = sum / taken;
  }

  if (faces == 0.0f) {
    faces = interpolateFacesScore(capturedIndex);
    captured->mFacesScore = faces;
    captured->mBsScore = fe + faces;
    bs = captured->mBsScore;
  }

  mCapturedShots.removeAt(static_cast<size_t>(shotIndex));

  const bool faceScene = KoBestShot::isFaceScene(static_cast<unsigned int>(capturedIndex), mFrameHist) != 0;
  info->isFaceScene = faceScene ? 1 : 0;

  bool keep = true;
  if (!mTopScoreList.isEmpty()) {
    // Where the captured frame stands in the list's auxScore band.
    float lo = aux;
    float hi = aux;
    for (size_t i = 0; i < mTopScoreList.size(); ++i) {
      lo = std::min(lo, mTopScoreList[i].auxScore);
      hi = std::max(hi, mTopScoreList[i].auxScore);
    }
    const double scaled = static_cast<double>(aux) * 0.06;
    const double margin = scaled > 1.0 ? scaled : 1.0;
    const bool nearTop = static_cast<double>(hi) - margin < aux;
    const bool aboveBottom = nearTop && static_cast<double>(lo) + margin < aux;

    ssize_t candidate = -1;
    if (!faceScene) {
      float bestFe = fe;
      for (size_t i = 0; i < mTopScoreList.size(); ++i) {
        if (mTopScoreList[i].feScore > bestFe) {
          bestFe = mTopScoreList[i].feScore;
          candidate = static_cast<ssize_t>(i);
        }
      }
      keep = nearTop || bestFe <= fe + 10.0f;
    } else {
      for (size_t i = 0; i < mTopScoreList.size(); ++i) {
        KoBestShot::BSScore& entry = mTopScoreList.editItemAt(i);
        if (entry.facesScore != 0.0f) continue;
        int index = indexOfFrame(static_cast<uint32_t>(entry.frameId));
        if (index < 0) index = 0;
        const float f = interpolateFacesScore(index);
        if (f > 0.0f) {
          entry.facesScore = f;
          entry.bsScore = f + entry.feScore;
        }
      }
      const float floorFe = fe - 40.0f;
      float best = aboveBottom ? faces : bs;
      for (size_t i = 0; i < mTopScoreList.size(); ++i) {
        const KoBestShot::BSScore& entry = mTopScoreList[i];
        sp<KoFrameData> frame = frameWithId(static_cast<uint32_t>(entry.frameId));
        if (frame == nullptr) continue;
        const float key = aboveBottom ? entry.facesScore : entry.bsScore;
        if (std::abs(frame->mLensPos - lensRef) < kLensReachSteps && key > best &&
            entry.feScore > floorFe) {
          candidate = static_cast<ssize_t>(i);
          best = key;
        }
      }
      if (candidate >= 0) {
        sp<KoFrameData> frame = frameWithId(static_cast<uint32_t>(mTopScoreList[candidate].frameId));
        const uint32_t n = faceNum(frame);
        const float faceMargin = n == 1 ? 30.0f : (n == 2 ? 15.0f : 10.0f);
        const float reference = aboveBottom ? faces : bs;
        keep = reference + faceMargin >= best;
      } else {
        keep = true;
      }
    }

    if (candidate >= 0 &&
        !(captureReplaced && static_cast<uint32_t>(mTopScoreList[candidate].frameId) == capturedId)) {
      populateBestShot(mTopScoreList[candidate], info, generated);
      setBestShotAlgBits(info, !(nearTop && aboveBottom), faceScene, false);
    }
  }

  bool decided = false;  // true once the result for info is final
  bool runHdr = false;
  if (generated && !hdr) {
    bool centreFlag = false;
    if (!(overrideFlags & KO_BS_OVERRIDE_AF_ROI_TOUCH)) {
      if (macroModeOverride(capturedIndex, info, centreFlag)) overrideFlags |= KO_BS_OVERRIDE_MACRO;
      if (centreFlag) {
        generated = false;
        info->generated = 0;
        decided = true;
      }
    }
    if (!decided) {
      const int64_t distance = std::llabs(capturedTs - info->timestampUs);
      replaceOnSimilar(generated, static_cast<unsigned int>(capturedIndex), info, keep, aux, faces,
                       overrideFlags, distance);
      if (!generated) decided = true;
    }
  } else if (!generated) {
    runHdr = hdr;
    decided = !hdr;
  }

  if (!decided && generated) {
    // Cancellation checks.
    if (info->replace) {
      if (hdr) {
        runHdr = true;
      } else {
        cancelOnBlurDetect(generated, info, static_cast<unsigned int>(capturedIndex));
      }
    } else {
      cancelBestShotOnLux(generated, static_cast<unsigned int>(capturedIndex), info);
      if (hdr) {
        runHdr = true;
      } else if (generated) {
        cancelOnBlurDetect(generated, info, static_cast<unsigned int>(capturedIndex));
      }
    }
  }
  if (runHdr) {
    getBestShotWithHDR(generated, static_cast<unsigned int>(capturedIndex), capturedId, info);
  }

  if (generated) {
    info->captureOffsetUs = static_cast<int32_t>(static_cast<uint32_t>(capturedTs) -
                                                 static_cast<uint32_t>(info->timestampUs));
  }
  if (replaceGenerated) {
    replaceInfo->captureOffsetUs =
        static_cast<int32_t>(shotTsLow - static_cast<uint32_t>(replaceInfo->timestampUs));
  }
  return (generated || replaceGenerated) ? 1 : 0;
}

// ---- Cancellation and override checks.

void KoTopScore::cancelBestShotOnLux(bool& generated, unsigned int capturedIndex, bestShotInfo_t* info) {
  if (!info) return;
  // The lux level of a frame, or of the nearest earlier frame that has one.
  auto luxFrom = [this](int64_t index) -> int32_t {
    for (int64_t i = index; i >= 0; --i) {
      sp<KoFrameData> frame = frameAt(i);
      if (frame != nullptr && knownLux(frame->mLuxLevel)) return frame->mLuxLevel;
    }
    return 0;
  };
  sp<KoFrameData> captured = frameAt(capturedIndex);
  sp<KoFrameData> best = frameAt(info->frameIndex);
  if (captured != nullptr && best != nullptr) {
    const int32_t luxC = luxFrom(capturedIndex);
    const int32_t luxB = luxFrom(info->frameIndex);
    if (faceNum(best) == 0 && knownLux(luxC) && knownLux(luxB) && luxC > kLowLightLux &&
        luxB > kLowLightLux && captured->mAuxScore > kGoodLowLightAux) {
      generated = false;
    }
  }
  info->generated = generated ? 1 : 0;
  if (!generated) info->cancelledAlgBitField |= KO_BS_CANCEL_LUX;
}

void KoTopScore::cancelOnBlurDetect(bool& generated, bestShotInfo_t* info, unsigned int /*capturedIndex*/) {
  if (!mBlurDetect || !info) return;
  info->blurDetected = 0;
  float coeff = -1.0f;
  float subCoeff = -1.0f;
  if (generated) {
    sp<KoFrameData> best = frameAt(info->frameIndex);
    if (best != nullptr && best->mSmallImage != nullptr && best->mSobelBuffer1 != nullptr &&
        best->mSobelBuffer2 != nullptr) {
      mBlurDetect->calcBlurMeasure(best->mSmallImage->data(), static_cast<int>(best->mSmallWidth),
                                   static_cast<int>(best->mSmallHeight),
                                   static_cast<int>(best->mSmallWidth), coeff,
                                   reinterpret_cast<short*>(best->mSobelBuffer1->data()),
                                   reinterpret_cast<short*>(best->mSobelBuffer2->data()),
                                   best->mAnalysisImage, static_cast<int>(best->mAnalysisWidth),
                                   subCoeff);
    }
    info->blurDetectCoeff = coeff;
    info->blurDetectSubCoeff = subCoeff;
    if (coeff >= 0.0f && coeff < kBlurThreshold) {
      info->blurDetected = 1;
      generated = false;
      info->generated = 0;
      info->cancelledAlgBitField |= KO_BS_CANCEL_BLUR;
    }
  } else {
    // Nothing measured: a best shot cancelled by the measure keeps the value that cancelled it.
    info->blurDetectCoeff = -1.0f;
    info->blurDetectSubCoeff = -1.0f;
  }
}

bool KoTopScore::calcCenterRoi(int capturedIndex, bestShotInfo_t* info) {
  if (!info) return false;
  sp<KoFrameData> captured = frameAt(capturedIndex);
  sp<KoFrameData> best = frameAt(info->frameIndex);
  if (captured == nullptr || best == nullptr || !captured->mAnalysisImage || !best->mAnalysisImage) {
    return false;
  }
  const int w = static_cast<int>(captured->mAnalysisWidth);
  const int h = static_cast<int>(captured->mAnalysisHeight);
  const int roiW = (static_cast<int>(static_cast<float>(w) * 0.25f) + 7) & ~7;
  const int roiH = (static_cast<int>(static_cast<float>(h) * 0.25f) + 7) & ~7;
  const int x = (w - roiW) / 2;
  const int y = (h - roiH) / 2;
  KO_dataStats_t statsC;
  KO_dataStats_t statsB;
  memset(&statsC, 0, sizeof(statsC));
  memset(&statsB, 0, sizeof(statsB));
  DexFrameMetaData::calcSobel2DRegion(captured->mAnalysisImage, statsC, x, y, roiW, roiH, w, 0);
  DexFrameMetaData::calcSobel2DRegion(best->mAnalysisImage, statsB, x, y, roiW, roiH, w, 0);
  const float sC = statsC.mean;
  const float sB = statsB.mean;
  return !(std::fabs(sB - sC) < sB * 0.06f) && sB < sC;
}

bool KoTopScore::macroModeOverride(int capturedIndex, bestShotInfo_t* info, bool& centreFlag) {
  centreFlag = false;
  if (!info) return false;
  sp<KoFrameData> captured = frameAt(capturedIndex);
  sp<KoFrameData> best = frameAt(info->frameIndex);
  if (captured == nullptr || best == nullptr) return false;
  const int lensC = captured->mLensPos;
  const int lensB = best->mLensPos;
  const int64_t count = static_cast<int64_t>(historyCount());
  const int64_t lo = std::max<int64_t>(static_cast<int64_t>(capturedIndex) - 2, 0);
  const int64_t hi = std::min<int64_t>(static_cast<int64_t>(capturedIndex) + 2, count - 1);
  // The lens must have stood still around the capture.
  for (int64_t k = lo; k + 1 <= hi - 1; ++k) {
    sp<KoFrameData> a = frameAt(k);
    sp<KoFrameData> b = frameAt(k + 1);
    if (a == nullptr || b == nullptr) return false;
    if (std::abs(a->mLensPos - b->mLensPos) > 2) return false;
  }
  sp<KoFrameData> first = frameAt(lo);
  sp<KoFrameData> last = frameAt(hi);
  if (first == nullptr || last == nullptr) return false;
  if (std::abs(first->mLensPos - last->mLensPos) > 4) return false;

  const int d = std::abs(lensB - lensC);
  if (lensC >= 25) return d > 18;
  if (calcCenterRoi(capturedIndex, info) && d > 5) centreFlag = true;
  return false;
}

void KoTopScore::checkShift(sp<KoFrameData> captured, sp<KoFrameData> best, bestShotInfo_t* info) {
  if (!info || captured == nullptr || best == nullptr) return;
  DexFrameMetaData::xyShift shift;
  memset(&shift, 0, sizeof(shift));
  shift.searchRange = 40;
  const uint8_t* smallC = captured->mSmallImage != nullptr ? captured->mSmallImage->data() : nullptr;
  const uint8_t* smallB = best->mSmallImage != nullptr ? best->mSmallImage->data() : nullptr;
  DexFrameMetaData::calculateShift(captured->mAnalysisImage, best->mAnalysisImage,
                                   static_cast<int>(captured->mAnalysisWidth),
                                   static_cast<int>(captured->mAnalysisHeight), smallC, smallB,
                                   static_cast<int>(captured->mSmallWidth),
                                   static_cast<int>(captured->mSmallHeight), &shift);
  const double a = shift.a;
  const double b = shift.b;
  if ((b < 30.0 && a * 0.6 > b) || (a < 12.0 && a * 0.8 > b)) info->shiftDetected = 1;
}

// ---- Similarity and replacement.

bool KoTopScore::replaceCapture(sp<KoFrameData> captured, sp<KoFrameData>& newCaptured, int& listIndex) {
  newCaptured.clear();
  listIndex = -1;
  if (captured == nullptr) return false;
  // Only long exposures, where hand shake blurs the captured frame.
  if (getAvgExposureTime(static_cast<int>(captured->mFrameId)) < LONG_EXPOSURE) return false;
  const float sharpC = captured->mSobelStats.mean;
  float best = 0.0f;
  for (ssize_t i = static_cast<ssize_t>(mTopScoreList.size()) - 1; i >= 0; --i) {
    const KoBestShot::BSScore& entry = mTopScoreList[i];
    sp<KoFrameData> frame = frameWithId(static_cast<uint32_t>(entry.frameId));
    if (frame == nullptr) continue;
    if (std::llabs(frame->mTimestamp - captured->mTimestamp) > CAPTURE_WINDOW_US) continue;
    if (idDistance(frame->mFrameId, captured->mFrameId) > CAPTURE_WINDOW_FRAMES ||
        frame->mFrameId == captured->mFrameId) {
      continue;
    }
    if (entry.auxScore > sharpC && entry.auxScore > best) {
      best = entry.auxScore;
      newCaptured = frame;
      listIndex = static_cast<int>(i);
    }
  }
  return listIndex >= 0;
}

void KoTopScore::populateSimilarity(unsigned int capturedIndex, bestShotInfo_t* info) {
  if (!info || !info->generated) return;
  sp<KoFrameData> captured = frameAt(capturedIndex);
  sp<KoFrameData> best = frameAt(info->frameIndex);
  if (captured == nullptr || best == nullptr || !captured->mHistogram || !best->mHistogram) return;
  info->similarityCoeff = DexFrameMetaData::calcBhattacharyyaCoeff(
      reinterpret_cast<const int*>(captured->mHistogram),
      reinterpret_cast<const int*>(best->mHistogram), static_cast<int>(captured->mHistogramBins));
  checkSimilarityExposure(capturedIndex, info);
}

bool KoTopScore::checkSimilarityExposure(unsigned int capturedIndex, bestShotInfo_t* info) {
  if (!info) return false;
  sp<KoFrameData> captured = frameAt(capturedIndex);
  sp<KoFrameData> best = frameAt(info->frameIndex);
  if (captured == nullptr || best == nullptr || !captured->mHistogram || !best->mHistogram) {
    return false;
  }
  const size_t n = captured->mHistogramBins;
  int* a = static_cast<int*>(calloc(n + 20, sizeof(int)));
  int* b = static_cast<int*>(calloc(n + 20, sizeof(int)));
  if (!a || !b) {
    free(a);
    free(b);
    return false;
  }
  // The captured histogram sits at entry 5, the best one at entry 10: a window of B starting
  // at 10 - s lines the best histogram up shifted by s - 5 bins.
  for (size_t i = 0; i < n; ++i) {
    a[5 + i] = static_cast<int>(captured->mHistogram[i]);
    b[10 + i] = static_cast<int>(best->mHistogram[i]);
  }
  float minCoeff = 1.0f;
  int at = 0;
  for (int s = 10; s >= 1; --s) {
    const float c = DexFrameMetaData::calcBhattacharyyaCoeff(a, b + (10 - s), static_cast<int>(n) + 10);
    if (c < minCoeff) {
      minCoeff = c;
      at = s;
    }
  }
  info->expSimilarity = minCoeff;
  info->expOffset = at - 5;
  free(a);
  free(b);
  return info->expOffset != 0;
}

void KoTopScore::replaceOnSimilar(bool& generated, unsigned int capturedIndex, bestShotInfo_t* info,
                                  bool keep, float capturedAux, float capturedFaces,
                                  unsigned int overrideFlags, int64_t captureDistanceUs) {
  if (!info) return;
  const uint8_t grant = overrideFlags == 0 ? 1 : 0;
  const bool far = captureDistanceUs > kFarCaptureUs;

  populateSimilarity(capturedIndex, info);
  sp<KoFrameData> captured = frameAt(capturedIndex);
  sp<KoFrameData> best = frameAt(info->frameIndex);
  const float bestAux = best != nullptr ? best->mAuxScore : 0.0f;
  const int32_t bestFe = best != nullptr ? best->mFeScore : 0;
  const int32_t capturedFe = captured != nullptr ? captured->mFeScore : 0;
  const float sim = info->similarityCoeff;

  if (info->isFaceScene) {
    const float bestFaces = best != nullptr ? best->mFacesScore : 0.0f;
    if (std::fabs(bestFaces - capturedFaces) < 25.0f && std::abs(bestFe - capturedFe) < 15) {
      bool similarPath;
      if (sim < kSimilarCoeff) {
        if (bestFaces > capturedFaces && bestFe >= capturedFe) info->replace = grant;
        generated = info->replace != 0;
        similarPath = true;
      } else {
        checkShift(captured, best, info);
        if (info->shiftDetected) {
          if (capturedFaces < bestFaces && bestFe >= capturedFe) info->replace = grant;
          generated = info->replace != 0;
        }
        similarPath = false;
      }
      if (far) {
        info->replace = 0;
        if (keep) generated = false;
        if (similarPath) {
          info->replace = 0;
          generated = !(keep && sim < kIdenticalCoeff);
        }
      }
    } else if (!info->replace && keep) {
      generated = false;
    }
  } else {
    const bool similar = sim < kSimilarCoeff ||
                         (std::fabs(bestAux - capturedAux) < bestAux * 0.15f && std::abs(info->expOffset) == 1);
    if (similar) {
      if (bestAux < capturedAux) {
        generated = false;
      } else {
        info->replace = grant;
      }
    } else {
      checkShift(captured, best, info);
      if (info->shiftDetected) {
        if (capturedAux > bestAux) {
          generated = false;
        } else {
          info->replace = grant;
        }
      }
    }
    if (!info->replace && keep) generated = false;
    if (similar && far) {
      info->replace = 0;
      generated = !(keep && sim < kIdenticalCoeff);
    }
  }

  info->generated = generated ? 1 : 0;
  if (!generated) {
    info->cancelledAlgBitField |= info->shiftDetected ? KO_BS_CANCEL_SIMILAR_SHIFT : KO_BS_CANCEL_SIMILAR;
  }
  if (info->replace) {
    info->algBitField |= info->shiftDetected ? KO_BS_ALG_REPLACE_SIMILAR_SHIFT : KO_BS_ALG_REPLACE_SIMILAR;
  }
}

}  // namespace android
