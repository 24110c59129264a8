#pragma once
// Ranked list of best-shot candidates between shutter presses, and the shutter presses still
// waiting for their best-shot decision.
#include <cstddef>
#include <cstdint>

#include "KoBestShot.h"
#include "KoBestShotTypes.h"

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

  // The record that stands for "no pending shutter press": jobId and frameId -1, all other
  // bytes zero.
  static void getNoCapturedInfo(capturedShotInfo_t& out);

  // Clears exactly the bits 0x1, 0x2 and 0x4 of info->algBitField, then sets 0x1, 0x2, 0x4 for
  // first, second, third where true. All other bits are kept.
  static void setBestShotAlgBits(bestShotInfo_t* info, bool first, bool second, bool third);
};

static_assert(sizeof(KoTopScore::capturedShotInfo_t) == 24, "capturedShotInfo_t is 24 bytes");
static_assert(offsetof(KoTopScore::capturedShotInfo_t, jobId) == 0, "capturedShotInfo_t layout");
static_assert(offsetof(KoTopScore::capturedShotInfo_t, frameId) == 4, "capturedShotInfo_t layout");
static_assert(offsetof(KoTopScore::capturedShotInfo_t, timestampUs) == 16,
              "capturedShotInfo_t layout");

}  // namespace android
