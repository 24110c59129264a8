#pragma once
// Records of the best-shot decision: the result of one decision (bestShotInfo_t), kept with the
// capture sequence and printed into the capture statistics, the score list the analysis
// library's best-shot search leaves with a sequence (bestShotScores_t), and the bit words that
// say which rules chose or cancelled a best shot and what overrode the replacement.
//
// The layouts are shared with the analysis library and with the statistics record, so the
// sizes and offsets are fixed and checked below; the gaps are part of the layout.
#include <cstddef>
#include <cstdint>

namespace android {

// Rules that chose a best shot (bestShotInfo_t::algBitField).
enum : uint32_t {
  // Set by setBestShotAlgBits. Normal path: the captured frame was outside the list's score
  // band; always set for the replace result and in the HDR path.
  KO_BS_ALG_NOT_IN_SCORE_BAND = 0x1,
  // Set by setBestShotAlgBits. Normal path: face scene; always set in the HDR path.
  KO_BS_ALG_FACE_SCENE = 0x2,
  // Set by setBestShotAlgBits in the HDR path only.
  KO_BS_ALG_HDR = 0x4,
  // The three bits setBestShotAlgBits owns; every other bit is left alone by it.
  KO_BS_ALG_SET_MASK = KO_BS_ALG_NOT_IN_SCORE_BAND | KO_BS_ALG_FACE_SCENE | KO_BS_ALG_HDR,
  // Set by the similarity check: the replacement stands, decided without / with a shift.
  KO_BS_ALG_REPLACE_SIMILAR = 0x10000,
  KO_BS_ALG_REPLACE_SIMILAR_SHIFT = 0x20000,
};

// Rules that cancelled a best shot (bestShotInfo_t::cancelledAlgBitField); reset to 0 whenever a
// frame is populated into the record.
enum : uint32_t {
  KO_BS_CANCEL_BLUR = 0x2,                  // the best shot is blurred
  KO_BS_CANCEL_LUX = 0x4,                   // no best shot after the low-light check
  KO_BS_CANCEL_HDR = 0x8,                   // cancelled in the HDR path
  KO_BS_CANCEL_SIMILAR = 0x10,              // no best shot after the similarity check, no shift
  KO_BS_CANCEL_SIMILAR_SHIFT = 0x20,        // the same with a shift detected
};

// Replace-override flag word, built by the foreground before a decision and added to by it.
// Any bit set keeps the similarity rules from setting `replace`.
enum : uint32_t {
  KO_BS_OVERRIDE_MISSING_FACE_DATA = 0x1,   // foreground's missing-face-data mode
  KO_BS_OVERRIDE_ZOOM = 0x2,                // newest frame has a non-zero zoom
  KO_BS_OVERRIDE_AF_ROI_TOUCH = 0x4,        // newest frame's AF region type is 2 (skips macro)
  KO_BS_OVERRIDE_MACRO = 0x8,               // the macro-mode override fired
  KO_BS_OVERRIDE_CAPTURE_REPLACED = 0x10,   // the captured frame was exchanged
};

// The result of one best-shot decision. Callers zero it before a decision.
struct alignas(8) bestShotInfo_t {
  uint8_t generated;              // "bestshot.generated": 1 once a frame was populated
  // 3-byte gap
  int32_t frameId;                // "bestshot.frameId"
  int32_t frameIndex;             // "bestshot.frameIndex": index in the history at decision time
  // 4-byte gap
  int64_t timestampUs;            // timestamp of the best-shot frame
  float bsScore;                  // combined score of the chosen frame
  uint32_t algBitField;           // "bestshot.algBitField": KO_BS_ALG_* bits
  float similarityCoeff;          // "bestshot.similarityCoeff": luma histogram coefficient
  int32_t expOffset;              // "bestshot.expOffset": histogram shift -5..+5 of best match
  float expSimilarity;            // "bestshot.expSimilarity": coefficient at that shift
  uint8_t replace;                // "jpeg.replace": 1 = replace the captured picture
  // 3-byte gap
  int32_t replaceOverride;        // "jpeg.replaceOverride": KO_BS_OVERRIDE_* word
  int32_t captureOffsetUs;        // low 32 bits of (captured timestamp - timestampUs)
  uint8_t isFaceScene;            // "isFaceScene"
  uint8_t shiftDetected;          // "shiftDetected"
  uint8_t blurDetected;           // "bestshot.blurDetected"
  // 1-byte gap
  float blurDetectCoeff;          // "bestshot.blurDetectCoeff": -1.0 = not measured
  float blurDetectSubCoeff;       // "bestshot.blurDetectSubCoeff": -1.0 = not measured
  uint32_t cancelledAlgBitField;  // "bestshot.cancelled.algBitField": KO_BS_CANCEL_* bits
  int32_t referenceFrameId;       // "reference.frameId": captured frame of the decision
  // 4-byte tail gap
};

static_assert(sizeof(bestShotInfo_t) == 80, "bestShotInfo_t is 80 bytes");
static_assert(alignof(bestShotInfo_t) == 8, "bestShotInfo_t is 8-byte aligned");
static_assert(offsetof(bestShotInfo_t, generated) == 0, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, frameId) == 4, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, frameIndex) == 8, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, timestampUs) == 16, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, bsScore) == 24, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, algBitField) == 28, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, similarityCoeff) == 32, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, expOffset) == 36, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, expSimilarity) == 40, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, replace) == 44, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, replaceOverride) == 48, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, captureOffsetUs) == 52, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, isFaceScene) == 56, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, shiftDetected) == 57, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, blurDetected) == 58, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, blurDetectCoeff) == 60, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, blurDetectSubCoeff) == 64, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, cancelledAlgBitField) == 68, "bestShotInfo_t layout");
static_assert(offsetof(bestShotInfo_t, referenceFrameId) == 72, "bestShotInfo_t layout");

// One entry of the score list that the analysis library's best-shot search leaves with a
// capture sequence (KoSequenceData::mBestShotScores). The library owns the meaning of the
// scores; the engine only carries the list.
struct bestShotScores_t {
  int32_t frameId;     // frame that was scored
  int32_t frameIndex;  // its index in the sequence's snapshot
  float bsScore;       // combined best-shot score
  float feScore;       // focus/exposure score
  float auxScore;      // further quality score
  float facesScore;    // faces score, 0.0 = not available
};

static_assert(sizeof(bestShotScores_t) == 24, "bestShotScores_t items are 24 bytes");

}  // namespace android
