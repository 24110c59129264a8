// Block motion between consecutive analysis views. The global shift is the median of the block
// vectors, which ignores a moving subject covering less than half of the blocks. Each block then
// contributes min(1, |v - global| / FULL_DEVIATION) to the subject-motion score, averaged over the
// matched blocks: 0 when everything follows the camera, 1 when every block moves on its own by
// FULL_DEVIATION pixels or more. Deviations of one pixel or less are matching noise and count 0.
// Before matching, the view is brought to the reference's exposure (its mean and standard
// deviation matched to the reference's), so that an exposure step between the two frames is not
// taken for motion; blocks that the exposure clipped (more than an eighth of their pixels at 0 or
// 255 in either frame) are left out, having lost the detail to match on.
#include "DexMotionDetection.h"

#include <log/log.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "DexFrameMetaData.h"
#include "KoFrameHistSnapshot.h"

namespace android {

namespace {

constexpr const char* kTag = "DexMotionDetection";
// Mean absolute neighbour difference (grey levels) below which a block is too flat to match.
constexpr int kMinTexture = 3;

uint32_t sad(const uint8_t* a, int strideA, const uint8_t* b, int strideB, int size) {
  uint32_t s = 0;
  for (int y = 0; y < size; ++y) {
    const uint8_t* ra = a + static_cast<long>(y) * strideA;
    const uint8_t* rb = b + static_cast<long>(y) * strideB;
    for (int x = 0; x < size; ++x) s += static_cast<uint32_t>(std::abs(ra[x] - rb[x]));
  }
  return s;
}

bool textured(const uint8_t* a, int stride, int size) {
  int sum = 0;
  for (int y = 0; y < size; ++y) {
    const uint8_t* r = a + static_cast<long>(y) * stride;
    for (int x = 1; x < size; ++x) sum += std::abs(r[x] - r[x - 1]);
    if (y > 0) {
      for (int x = 0; x < size; ++x) sum += std::abs(r[x] - r[x - stride]);
    }
  }
  return sum >= kMinTexture * 2 * size * (size - 1);
}

void meanAndSpread(const uint8_t* img, int w, int h, int stride, double* mean, double* spread) {
  DexFrameMetaData::meanAndSpread2D(img, w, h, stride, mean, spread);
}

// Pixels of a size x size block at or beyond the ends of the 8-bit range.
constexpr int kMaxClipped = DexMotionDetection::BLOCK * DexMotionDetection::BLOCK / 8;

int clippedCount(const uint8_t* mask, int stride, int size) {
  int n = 0;
  for (int y = 0; y < size; ++y) {
    const uint8_t* r = mask + static_cast<long>(y) * stride;
    for (int x = 0; x < size; ++x) n += r[x];
  }
  return n;
}

float median(std::vector<float> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : 0.5f * (v[n / 2 - 1] + v[n / 2]);
}

}  // namespace

DexMotionDetection::DexMotionDetection(int width, int height)
    : mMaxWidth(width), mMaxHeight(height) {}

DexMotionDetection::~DexMotionDetection() = default;

int DexMotionDetection::copyNewRefFrame(const uint8_t* view, int w, int h, int stride) {
  if (view == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: null view", __func__);
    return -1;
  }
  if (w <= 0 || h <= 0 || stride < w || w > mMaxWidth || h > mMaxHeight) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: invalid size %dx%d stride %d (max %dx%d)",
                        __func__, w, h, stride, mMaxWidth, mMaxHeight);
    return -1;
  }
  mRef.resize(static_cast<size_t>(w) * h);
  for (int y = 0; y < h; ++y) {
    std::copy_n(view + static_cast<long>(y) * stride, w, &mRef[static_cast<size_t>(y) * w]);
  }
  mRefWidth = w;
  mRefHeight = h;
  meanAndSpread(mRef.data(), w, h, w, &mRefMean, &mRefSpread);
  mRefHalf.assign(static_cast<size_t>(w / 2) * (h / 2), 0);
  if (w >= 2 && h >= 2) {
    DexFrameMetaData::downScaleLuma2x(mRefHalf.data(), mRef.data(), w, w / 2, h / 2);
  }
  return 0;
}

int DexMotionDetection::processMEPerFrame(const uint8_t* view, const void* /*unused1*/,
                                          const void* /*unused2*/, const void* /*unused3*/,
                                          void* /*scratch*/, int stride, void* result) {
  if (view == nullptr || result == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: null pointer argument", __func__);
    return -1;
  }
  motionResult_t out{};
  const int w = mRefWidth, h = mRefHeight;
  if (w == 0 || h == 0) {
    *static_cast<motionResult_t*>(result) = out;  // no reference yet
    return 0;
  }
  if (stride < w) {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "%s: stride %d below reference width %d",
                        __func__, stride, w);
    return -1;
  }
  // The view at the reference's exposure: mean and spread matched (gain limited to 1/4..4).
  double mean = 0, spread = 0;
  meanAndSpread(view, w, h, stride, &mean, &spread);
  double gain = 1.0;
  if (mRefSpread > 0.5 && spread > 0.5) gain = std::min(4.0, std::max(0.25, mRefSpread / spread));
  const double offset = mRefMean - gain * mean;
  std::vector<uint8_t> matched(static_cast<size_t>(w) * h);
  std::vector<uint8_t> clipped(matched.size());  // 1 where the view or the reference is clipped
  uint8_t lut[256];
  for (int v = 0; v < 256; ++v) {
    lut[v] = static_cast<uint8_t>(std::min(255L, std::max(0L, std::lround(gain * v + offset))));
  }
  for (int y = 0; y < h; ++y) {
    const uint8_t* r = view + static_cast<long>(y) * stride;
    const uint8_t* ref = &mRef[static_cast<size_t>(y) * w];
    uint8_t* d = &matched[static_cast<size_t>(y) * w];
    uint8_t* c = &clipped[static_cast<size_t>(y) * w];
    for (int x = 0; x < w; ++x) {
      d[x] = lut[r[x]];
      c[x] = static_cast<uint8_t>(r[x] == 0 || r[x] == 255 || ref[x] == 0 || ref[x] == 255);
    }
  }
  view = matched.data();
  stride = w;
  // 2x reduction of the view for the coarse search.
  const int hw = w / 2, hh = h / 2;
  std::vector<uint8_t> half(static_cast<size_t>(hw) * hh);
  DexFrameMetaData::downScaleLuma2x(half.data(), view, stride, hw, hh);

  struct Block {
    float dx, dy;
    float cx, cy;  // centre
    int x, y;      // top-left corner
    uint32_t sad;  // at the best vector
  };
  std::vector<Block> blocks;
  double diffSum = 0;
  const int hb = BLOCK / 2, hr = RANGE / 2;
  for (int by = RANGE; by + BLOCK + RANGE <= h; by += BLOCK) {
    for (int bx = RANGE; bx + BLOCK + RANGE <= w; bx += BLOCK) {
      const uint8_t* ref = &mRef[static_cast<size_t>(by) * w + bx];
      if (!textured(ref, w, BLOCK)) continue;
      // A block that the exposure clipped in either frame has lost the detail to match on.
      if (clippedCount(&clipped[static_cast<size_t>(by) * w + bx], w, BLOCK) > kMaxClipped) {
        continue;
      }
      // Coarse: full search at half resolution.
      const uint8_t* refHalf = &mRefHalf[static_cast<size_t>(by / 2) * hw + bx / 2];
      uint32_t best = UINT32_MAX;
      int cdx = 0, cdy = 0;
      for (int dy = -hr; dy <= hr; ++dy) {
        for (int dx = -hr; dx <= hr; ++dx) {
          const uint8_t* cand = &half[static_cast<size_t>(by / 2 + dy) * hw + bx / 2 + dx];
          const uint32_t s = sad(refHalf, hw, cand, hw, hb);
          if (s < best || (s == best && std::abs(dx) + std::abs(dy) < std::abs(cdx) + std::abs(cdy))) {
            best = s;
            cdx = dx;
            cdy = dy;
          }
        }
      }
      // Fine: +/-2 around the coarse vector at full resolution, inside the search range.
      best = UINT32_MAX;
      int fdx = 0, fdy = 0;
      for (int dy = std::max(-RANGE, 2 * cdy - 2); dy <= std::min(RANGE, 2 * cdy + 2); ++dy) {
        for (int dx = std::max(-RANGE, 2 * cdx - 2); dx <= std::min(RANGE, 2 * cdx + 2); ++dx) {
          const uint8_t* cand = view + static_cast<long>(by + dy) * stride + bx + dx;
          const uint32_t s = sad(ref, w, cand, stride, BLOCK);
          if (s < best) {
            best = s;
            fdx = dx;
            fdy = dy;
          }
        }
      }
      blocks.push_back({static_cast<float>(fdx), static_cast<float>(fdy), bx + BLOCK / 2.0f,
                        by + BLOCK / 2.0f, bx, by, best});
    }
  }
  out.numBlocks = static_cast<int32_t>(blocks.size());
  if (!blocks.empty()) {
    std::vector<float> xs, ys;
    for (const Block& b : blocks) {
      xs.push_back(b.dx);
      ys.push_back(b.dy);
    }
    const double n = static_cast<double>(blocks.size());
    out.globalDx = median(xs);
    out.globalDy = median(ys);
    // Blocks of repetitive or weak texture may find a slightly better match elsewhere: a block
    // that matches the global shift nearly as well as its own vector follows the camera.
    const int gx = static_cast<int>(std::lround(out.globalDx));
    const int gy = static_cast<int>(std::lround(out.globalDy));
    double magSum = 0, magSq = 0;
    for (Block& b : blocks) {
      if ((b.dx != gx || b.dy != gy) && std::abs(gx) <= RANGE && std::abs(gy) <= RANGE) {
        const uint32_t g = sad(&mRef[static_cast<size_t>(b.y) * w + b.x], w,
                               view + static_cast<long>(b.y + gy) * stride + b.x + gx, stride,
                               BLOCK);
        if (g <= b.sad + b.sad / 8 + BLOCK * BLOCK / 2) {
          b.dx = static_cast<float>(gx);
          b.dy = static_cast<float>(gy);
          b.sad = g;
        }
      }
      diffSum += static_cast<double>(b.sad) / (BLOCK * BLOCK);
      const double m = std::hypot(b.dx, b.dy);
      magSum += m;
      magSq += m * m;
    }
    out.vecMagMean = static_cast<float>(magSum / n);
    out.vecMagStddev = static_cast<float>(
        std::sqrt(std::max(0.0, magSq / n - (magSum / n) * (magSum / n))));
    out.matchDiff = static_cast<float>(diffSum / n);
    double score = 0, ctrScore = 0;
    int ctrCount = 0;
    for (const Block& b : blocks) {
      const double dev = std::hypot(b.dx - out.globalDx, b.dy - out.globalDy);
      const double s = dev <= 1.0 ? 0.0 : std::min(1.0, dev / FULL_DEVIATION);
      score += s;
      if (b.cx >= w / 3.0 && b.cx < 2.0 * w / 3.0 && b.cy >= h / 3.0 && b.cy < 2.0 * h / 3.0) {
        ctrScore += s;
        ++ctrCount;
      }
      const double dot = b.dx * out.globalDx + b.dy * out.globalDy;
      if (dot < 0 && std::hypot(b.dx, b.dy) > 1.0) ++out.numOpposing;
    }
    out.frmMotionScoreNorm = static_cast<float>(score / n);
    out.ctrFrmMotionScoreNorm = ctrCount > 0 ? static_cast<float>(ctrScore / ctrCount) : 0.0f;
  }
  *static_cast<motionResult_t*>(result) = out;
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Whether a capture is worth a clip.

namespace {

constexpr uint32_t kMotionDone = 0x10000;
constexpr uint32_t kStatsDone = 0x20000;
// Frames looked at on each side of the captured index.
constexpr int kDecisionReach = 10;
// Mean subject motion below which the scene counts as still, and at which the decision is 1.
constexpr double kMinSubjectMotion = 0.06;
constexpr double kFullSubjectMotion = 0.3;
// Median global shift (analysis pixels between two estimations) that is a hard pan.
constexpr double kPanShift = 8.0;
// Without motion results: frame difference (grey levels) below which the scene is still and
// at which the decision is 1.
constexpr double kMinDiff = 3.0;
constexpr double kFullDiff = 10.0;

float wordAsFloat(const uint32_t* words, int i) {
  float v;
  std::memcpy(&v, &words[i], sizeof v);
  return v;
}

}  // namespace

__attribute__((no_sanitize("vptr"))) float DexMotionDetection::KoMotionDecision(
    KoFrameHistSnapshot* snapshot, Vector<KO_camMotionType_t>& camMotion, int count,
    int capturedIndex) {
  if (snapshot == nullptr || count <= 0) return 0.0f;
  const int n = static_cast<int>(std::min(static_cast<size_t>(count), snapshot->mHistory.size()));
  if (capturedIndex < 0 || capturedIndex >= n) return 0.0f;
  // A hard pan over the snapshot's span, as the motion sensors tell.
  for (size_t i = 0; i < camMotion.size(); ++i) {
    const KO_camMotionType_t& m = camMotion[i];
    if (m.mode == DexCameraMotion::MODE_PANNING || m.gyroMean >= DexCameraMotion::SHAKE_MEAN) {
      return 0.0f;
    }
  }
  std::vector<float> subject, globalShift, diffs;
  int panning = 0, classified = 0;
  const int lo = std::max(0, capturedIndex - kDecisionReach);
  const int hi = std::min(n - 1, capturedIndex + kDecisionReach);
  for (int i = lo; i <= hi; ++i) {
    const KoFrameHistNode* node = snapshot->mHistory[static_cast<size_t>(i)].get();
    const KoFrameData* f = node != nullptr ? node->mFrameData.get() : nullptr;
    if (f == nullptr) continue;
    const uint32_t events = f->mProcessedEvents.load(std::memory_order_acquire);
    if (events & kMotionDone) {
      const int32_t blocks = static_cast<int32_t>(f->mMotionResult[0]);
      if (blocks > 0) {
        subject.push_back(std::max(wordAsFloat(f->mMotionResult, 8), wordAsFloat(f->mMotionResult, 9)));
        globalShift.push_back(std::hypot(wordAsFloat(f->mMotionResult, 1), wordAsFloat(f->mMotionResult, 2)));
      }
    }
    if (events & kStatsDone) diffs.push_back(f->mDiffStats.mean);
    if (events & 0x40000u) {
      ++classified;
      if (static_cast<int32_t>(f->mCamMotion[3]) == DexCameraMotion::MODE_PANNING) ++panning;
    }
  }
  // Most frames of the stretch classified as panning by their own sensor window.
  if (classified > 0 && 2 * panning > classified) return 0.0f;
  auto median = [](std::vector<float> v) {
    std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
    return static_cast<double>(v[v.size() / 2]);
  };
  double d = 0.0;
  if (!subject.empty()) {
    // A pan seen in the picture: most estimations found a large common shift.
    if (median(globalShift) >= kPanShift) return 0.0f;
    double mean = 0;
    for (float s : subject) mean += s;
    mean /= static_cast<double>(subject.size());
    if (mean < kMinSubjectMotion) return 0.0f;
    d = mean / kFullSubjectMotion;
  } else if (!diffs.empty()) {
    const double diff = median(diffs);
    if (diff < kMinDiff) return 0.0f;
    d = diff / kFullDiff;
  }
  return static_cast<float>(std::min(1.0, d));
}

}  // namespace android
