#pragma once
// Ranked list of best-shot candidates between shutter presses, and the shutter presses still
// waiting for their best-shot decision.
//
// The list holds the score records of the frames whose ZSL buffers are worth keeping; every
// frame that can no longer win has its buffer released through the frame history on the pass
// that finds out. When a shutter press is decided, the captured frame is compared with the list
// (face scene or not), the chosen frame is populated into the result, and the override,
// cancellation and similarity rules have the last word on whether it stands and whether it
// replaces the captured picture. Used on the foreground thread only; there is no lock.
#include <cstddef>
#include <cstdint>

#include <utils/RefBase.h>
#include <utils/Vector.h>

#include "DexBlurDetect.h"
#include "KoBestShot.h"
#include "KoBestShotTypes.h"
#include "KoFrameData.h"
#include "KoFrameHist.h"

namespace android {

class KoTopScore {
 public:
  // One shutter press waiting for its decision.
  struct capturedShotInfo_t {
    int32_t jobId;        // capture sequence of the take-picture
    int32_t frameId;      // frame captured by the shutter
    uint8_t reserved[8];  // gap before the 64-bit field; copied, never set or read
    int64_t timestampUs;  // timestamp of the captured frame
  };

  // jobId and frameId of the "no pending shutter press" record.
  enum : int32_t { NO_CAPTURED_SHOT = -1 };

  // Constants of the list.
  enum : uint32_t { LIST_CAPACITY = 5, BATCH_TAKEN = 5 };
  static constexpr int64_t AGE_LIMIT_US = 2000000;
  static constexpr int64_t CAPTURE_WINDOW_US = 430000;
  static constexpr int64_t CAPTURE_WINDOW_FRAMES = 6;
  static constexpr float LONG_EXPOSURE = 0.0083f;

  explicit KoTopScore(KoFrameHist* hist);
  ~KoTopScore();

  // ---- The top-score list.

  // Merges one batch of scores (oldest frame first): the five newest are taken, older ones
  // give their buffers back at once, except the frame near the capture with the best auxScore
  // under long exposure, which takes the place of the fifth-newest. Then prunes the list.
  void addTopScoreList(Vector<KoBestShot::BSScore>& scores, bool missingFaceDataMode);
  // Drops entries whose frames left the history or are too old, cuts the list to its
  // capacity, and releases the buffers of frames older than the newest frame with metadata
  // (and, while face data arrives, with face data) that still lack it.
  void maintainTopScoreList(bool missingFaceDataMode, int64_t refTimestampUs,
                            unsigned int refFrameId, bool longExposure);
  // After a change of zoom or of a touch AF region (or, with stopAtFaceData, at the newest
  // older frame with face data), drops the older history frames and their list entries.
  void flushListIfNeeded(bool stopAtFaceData);
  // Removes the last list entry with this frame id.
  void removeNodeFromTopScoreList(unsigned int frameId);
  // Lets go of the frame's ZSL buffer and scratch images and of its list entry.
  void releaseZSLBuffer(unsigned int frameId);

  // ---- Shutter presses.

  // Appends a pending shutter press; returns the index it was inserted at (negative on
  // failure).
  int setCapturedFrameId(int jobId, unsigned int frameId, int64_t timestampUs);
  // The oldest pending shutter press, or the "none" record.
  void getOldestCapturedInfo(capturedShotInfo_t& out);
  // The record that stands for "no pending shutter press": jobId and frameId -1, all other
  // bytes zero.
  static void getNoCapturedInfo(capturedShotInfo_t& out);

  // Mean exposure time of the (at most) three newest frames with an id not above frameId and
  // a known (positive) exposure time; 0.0 when there is none.
  float getAvgExposureTime(int frameId);

  // Debug hooks.
  void printTopScoreList();
  void printFrameHistQueue();

  // ---- The decision.

  // Decides the shutter press of jobId. info and replaceInfo come zeroed; overrideFlags is the
  // replace-override word (KO_BS_OVERRIDE_*), to which the decision adds. Returns 1 when info
  // or replaceInfo received a best shot, else 0.
  uint32_t getBestShot(int jobId, bestShotInfo_t* info, bestShotInfo_t* replaceInfo, bool hdr,
                       unsigned int& overrideFlags);
  // Writes the score's frame into info when the frame is in the history and still has its
  // ZSL buffer; sets generated then.
  void populateBestShot(KoBestShot::BSScore score, bestShotInfo_t* info, bool& generated);
  // Clears exactly the bits 0x1, 0x2 and 0x4 of info->algBitField, then sets 0x1, 0x2, 0x4 for
  // first, second, third where true. All other bits are kept.
  static void setBestShotAlgBits(bestShotInfo_t* info, bool first, bool second, bool third);
  // HDR captures: only blinking eyes justify a best shot, and only an earlier frame.
  void getBestShotWithHDR(bool& generated, unsigned int capturedIndex,
                          unsigned int capturedFrameId, bestShotInfo_t* info);
  // Mean of the nearest earlier positive faces score (within three frames) and the next
  // frame's; 0.0 when neither exists.
  float interpolateFacesScore(int index);

  // ---- Cancellation and override checks.

  void cancelBestShotOnLux(bool& generated, unsigned int capturedIndex, bestShotInfo_t* info);
  void cancelOnBlurDetect(bool& generated, bestShotInfo_t* info, unsigned int capturedIndex);
  // True when the lens stood still around the capture at a far position and the best shot
  // was focused elsewhere; centreFlag when at close focus the best shot's centre is blurrier.
  bool macroModeOverride(int capturedIndex, bestShotInfo_t* info, bool& centreFlag);
  // True when the best frame's central region is clearly less sharp than the captured one's.
  bool calcCenterRoi(int capturedIndex, bestShotInfo_t* info);
  // Sets info->shiftDetected when the two pictures are shifted against each other.
  void checkShift(sp<KoFrameData> captured, sp<KoFrameData> best, bestShotInfo_t* info);

  // ---- Similarity and replacement.

  // Under long exposure, a sharper list frame right next to the capture replaces the
  // captured frame.
  bool replaceCapture(sp<KoFrameData> captured, sp<KoFrameData>& newCaptured, int& listIndex);
  void populateSimilarity(unsigned int capturedIndex, bestShotInfo_t* info);
  bool checkSimilarityExposure(unsigned int capturedIndex, bestShotInfo_t* info);
  void replaceOnSimilar(bool& generated, unsigned int capturedIndex, bestShotInfo_t* info,
                        bool keep, float capturedAux, float capturedFaces,
                        unsigned int overrideFlags, int64_t captureDistanceUs);

  KoFrameHist* mFrameHist;
  Vector<KoBestShot::BSScore> mTopScoreList;
  Vector<capturedShotInfo_t> mCapturedShots;
  DexBlurDetect* mBlurDetect;

 private:
  size_t historyCount() const;
  // The history frame at index, or null when out of range.
  sp<KoFrameData> frameAt(int64_t index) const;
  // Index of the first (oldest) history frame with this id, or -1.
  int indexOfFrame(uint32_t frameId) const;
  sp<KoFrameData> frameWithId(uint32_t frameId) const;

  KoTopScore(const KoTopScore&) = delete;
  KoTopScore& operator=(const KoTopScore&) = delete;
};

static_assert(sizeof(KoTopScore::capturedShotInfo_t) == 24, "capturedShotInfo_t is 24 bytes");
static_assert(offsetof(KoTopScore::capturedShotInfo_t, jobId) == 0, "capturedShotInfo_t layout");
static_assert(offsetof(KoTopScore::capturedShotInfo_t, frameId) == 4, "capturedShotInfo_t layout");
static_assert(offsetof(KoTopScore::capturedShotInfo_t, timestampUs) == 16,
              "capturedShotInfo_t layout");

}  // namespace android
