// Block motion between consecutive analysis views. The global shift is the median of the block
// vectors, which ignores a moving subject covering less than half of the blocks. Each block then
// contributes min(1, |v - global| / FULL_DEVIATION) to the subject-motion score, averaged over the
// matched blocks: 0 when everything follows the camera, 1 when every block moves on its own by
// FULL_DEVIATION pixels or more. Deviations of one pixel or less are matching noise and count 0.
#include "DexMotionDetection.h"

#include <log/log.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "DexFrameMetaData.h"

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

}  // namespace android

namespace android {
float DexMotionDetection::KoMotionDecision(KoFrameHistSnapshot*, Vector<KO_camMotionType_t>&, int, int) { return 0.0f; }
}  // namespace android
