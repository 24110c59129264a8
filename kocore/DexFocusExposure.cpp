// Focus/exposure choice among the frames around the captured one. Each candidate gets a score
// in 0..100, the product of three factors in [0, 1]:
//  - focus: the frame's mean Sobel response divided by its luma standard deviation (edge
//    strength relative to the picture's contrast, so that a darker or flatter exposure of the
//    same scene is not taken for a softer one), brought back to the sequence's typical spread
//    and compared with the sharpest frame of the sequence (the sequence's Sobel maximum, or the
//    sharpest candidate when that is larger);
//  - exposure: a Gaussian of the distance of the frame's luma mean from the median luma of the
//    snapshot's frames, with a tolerance of kLumaTolerance grey levels widened by the spread of
//    the per-frame means over the sequence;
//  - stillness: the sequence's mean frame difference (plus a noise allowance) over the frame's
//    own, capped at 1, so that frames changing more than usual (subject or camera moving) lose.
// The best candidate replaces the captured frame only when it scores more than kBetterBy times
// the captured frame's score and at least the analyser's threshold.
#include "DexFocusExposure.h"

#include <log/log.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "KoFrameHistSnapshot.h"

namespace android {

namespace {

constexpr const char* kTag = "DexFocusExposure";

// Candidates: within this many frame ids and this many microseconds of the captured frame.
constexpr int64_t kMaxIdDistance = 6;
constexpr int64_t kMaxTimeDistanceUs = 430000;
// Exposure tolerance (grey levels of the luma mean) before the sequence's own spread is added.
constexpr double kLumaTolerance = 12.0;
// Frame-difference allowance (grey levels): sensor noise alone makes consecutive frames differ.
constexpr double kDiffAllowance = 2.0;
// A candidate must beat the captured frame by this factor to replace it.
constexpr double kBetterBy = 1.08;
// Luma standard deviation below which a frame has no contrast to normalise by.
constexpr double kMinSpread = 2.0;

constexpr uint32_t kStatsDone = 0x20000;

struct Candidate {
  int index;
  const KoFrameData* frame;
  double sharpness;  // Sobel mean per grey level of luma spread
  double score;
};

}  // namespace

DexFocusExposure::DexFocusExposure(int32_t threshold) : mThreshold(threshold) {}

DexFocusExposure::~DexFocusExposure() {}

// The frame records are read through their headers only (this library does not link against the
// engine that defines them), so the sanitizer's dynamic-type check is left out here.
__attribute__((no_sanitize("vptr"))) int DexFocusExposure::findBestFocusExpKO(
    KoFrameHistSnapshot* snapshot, int count, int* frameIndex, int* frameId, int /*flags*/,
    KO_dataStats_t diffStats, KO_dataStats_t lumaStats, KO_dataStats_t sobelStats) {
  if (snapshot == nullptr || frameIndex == nullptr || frameId == nullptr || count <= 0) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: invalid arguments (snapshot %p, count %d)",
                        __func__, static_cast<void*>(snapshot), count);
    return -1;
  }
  const int n = static_cast<int>(std::min(static_cast<size_t>(count), snapshot->mHistory.size()));
  const int captured = *frameIndex;
  if (captured < 0 || captured >= n) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: captured index %d outside 0..%d", __func__,
                        captured, n - 1);
    return -1;
  }
  auto frameAt = [snapshot](int i) -> const KoFrameData* {
    const KoFrameHistNode* node = snapshot->mHistory[static_cast<size_t>(i)].get();
    return node != nullptr ? node->mFrameData.get() : nullptr;
  };
  auto hasStats = [](const KoFrameData* f) {
    return f != nullptr && (f->mProcessedEvents.load(std::memory_order_acquire) & kStatsDone) != 0;
  };
  const KoFrameData* capturedFrame = frameAt(captured);
  if (!hasStats(capturedFrame)) return 0;  // nothing to compare the others with

  // Sequence references: median luma mean and median luma spread of the snapshot's frames.
  std::vector<double> means, spreads;
  for (int i = 0; i < n; ++i) {
    const KoFrameData* f = frameAt(i);
    if (!hasStats(f)) continue;
    means.push_back(f->mLumaStats.mean);
    spreads.push_back(f->mLumaStats.stddev);
  }
  auto median = [](std::vector<double>& v) {
    std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
    return v[v.size() / 2];
  };
  const double lumaRef = median(means);
  const double spreadRef = std::max(kMinSpread, median(spreads));
  const double lumaTolerance = kLumaTolerance + std::max(0.0f, lumaStats.stddev);
  const double diffRef = std::max(0.0f, diffStats.mean) + kDiffAllowance;

  std::vector<Candidate> candidates;
  double sharpest = 0;
  for (int i = 0; i < n; ++i) {
    const KoFrameData* f = frameAt(i);
    if (!hasStats(f)) continue;
    const int64_t idDistance = std::llabs(static_cast<int64_t>(static_cast<int32_t>(
        f->mFrameId - capturedFrame->mFrameId)));
    const int64_t timeDistance = std::llabs(f->mTimestamp - capturedFrame->mTimestamp);
    if (idDistance > kMaxIdDistance || timeDistance > kMaxTimeDistanceUs) continue;
    const double sharpness =
        f->mSobelStats.mean / std::max(kMinSpread, static_cast<double>(f->mLumaStats.stddev));
    sharpest = std::max(sharpest, sharpness);
    candidates.push_back({i, f, sharpness, 0.0});
  }
  // The sharpest frame of the sequence, per grey level of the typical spread.
  const double focusRef = std::max(sharpest, std::max(0.0f, sobelStats.max) / spreadRef);
  if (focusRef <= 0) return 0;

  const Candidate* best = nullptr;
  const Candidate* mine = nullptr;
  for (Candidate& c : candidates) {
    const double focus = std::min(1.0, c.sharpness / focusRef);
    const double dl = (c.frame->mLumaStats.mean - lumaRef) / lumaTolerance;
    const double exposure = std::exp(-0.5 * dl * dl);
    const double diff = std::max(0.0f, c.frame->mDiffStats.mean) + kDiffAllowance;
    const double stillness = std::min(1.0, diffRef / diff);
    c.score = 100.0 * focus * exposure * stillness;
    if (best == nullptr || c.score > best->score) best = &c;
    if (c.index == captured) mine = &c;
  }
  if (best == nullptr || mine == nullptr || best == mine) return 0;
  if (best->score > kBetterBy * mine->score && best->score >= mThreshold) {
    *frameIndex = best->index;
    *frameId = static_cast<int>(best->frame->mFrameId);
  }
  return 0;
}

}  // namespace android
