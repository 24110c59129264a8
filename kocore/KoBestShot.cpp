#include "KoBestShot.h"

namespace android {

// `<` is false for NaN on either side, so an unordered pair yields 0 and is never swapped.
int KoBestShot::compare(const BSScore* lhs, const BSScore* rhs) {
  return rhs->bsScore < lhs->bsScore ? 1 : 0;
}

int KoBestShot::compareFaces(const BSScore* lhs, const BSScore* rhs) {
  return rhs->facesScore < lhs->facesScore ? 1 : 0;
}

int KoBestShot::compareFE(const BSScore* lhs, const BSScore* rhs) {
  return rhs->feScore < lhs->feScore ? 1 : 0;
}

}  // namespace android
