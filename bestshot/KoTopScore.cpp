#include "KoTopScore.h"

#include <cstring>

namespace android {

void KoTopScore::getNoCapturedInfo(capturedShotInfo_t& out) {
  memset(&out, 0, sizeof(out));
  out.jobId = NO_CAPTURED_SHOT;
  out.frameId = NO_CAPTURED_SHOT;
}

void KoTopScore::setBestShotAlgBits(bestShotInfo_t* info, bool first, bool second, bool third) {
  if (!info) return;
  uint32_t bits = info->algBitField & ~static_cast<uint32_t>(KO_BS_ALG_SET_MASK);
  if (first) bits |= KO_BS_ALG_NOT_IN_SCORE_BAND;
  if (second) bits |= KO_BS_ALG_FACE_SCENE;
  if (third) bits |= KO_BS_ALG_HDR;
  info->algBitField = bits;
}

}  // namespace android
