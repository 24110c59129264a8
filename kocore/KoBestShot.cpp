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

namespace android {

KoBestShot::KoBestShot() {}
KoBestShot::~KoBestShot() {}
int KoBestShot::findFrameInFG(KoSequenceData*, bool) { mScores.clear(); return 0; }
int KoBestShot::findFrame(KoSequenceData*) { mScores.clear(); return 0; }
int KoBestShot::getBestShotList(Vector<BSScore>& out) { out = mScores; return static_cast<int>(out.size()); }
int KoBestShot::isFaceScene(unsigned int, KoFrameHistBase*) { return 0; }

}  // namespace android
