#include "Degrader.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <utility>

#include "DegradationSpec.h"
#include "SeededRandom.h"

namespace kovane_replay {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kTremorHz = 9.0;
// How much the shake's rate wobbles within one frame (its mean stays that of the blur).
constexpr double kGyroWobble = 0.15;
// A blink seen by a detector: a closed eye's aspect ratio is about a quarter of an open one's.
constexpr double kClosedEarFactor = 0.25;

// One weight of a 2-D kernel at an offset.
struct Tap {
  int dx;
  int dy;
  float w;
};

// A float copy of one plane (luma, V or U) with `reach` pixels of replicated edge around it.
class PaddedPlane {
 public:
  PaddedPlane(int w, int h, int reach) : mW(w), mH(h), mR(reach), mStride(w + 2 * reach) {
    mData.resize(static_cast<size_t>(mStride) * (h + 2 * reach));
  }
  // Reads every step-th byte starting at src (step 2 picks V or U out of the VU pairs).
  void load(const uint8_t* src, int step) {
    for (int y = 0; y < mH; ++y) {
      float* row = rowAt(y);
      const uint8_t* s = src + static_cast<size_t>(y) * mW * step;
      for (int x = 0; x < mW; ++x) row[x] = s[x * step];
      for (int x = 1; x <= mR; ++x) {
        row[-x] = row[0];
        row[mW - 1 + x] = row[mW - 1];
      }
    }
    for (int y = 1; y <= mR; ++y) {
      std::copy(rowAt(0) - mR, rowAt(0) - mR + mStride, rowAt(-y) - mR);
      std::copy(rowAt(mH - 1) - mR, rowAt(mH - 1) - mR + mStride, rowAt(mH - 1 + y) - mR);
    }
  }
  const float* rowAt(int y) const { return mData.data() + static_cast<size_t>(y + mR) * mStride + mR; }
  float* rowAt(int y) { return mData.data() + static_cast<size_t>(y + mR) * mStride + mR; }

 private:
  int mW, mH, mR, mStride;
  std::vector<float> mData;
};

uint8_t toByte(float v) {
  if (v <= 0.f) return 0;
  if (v >= 255.f) return 255;
  return static_cast<uint8_t>(v + 0.5f);
}

// a[x] += wt * s[x]. In blocks of a fixed 8 so that the compiler vectorises it at -O2.
void accumulate(float* __restrict a, const float* __restrict s, float wt, int n) {
  int x = 0;
  for (; x + 8 <= n; x += 8) {
    for (int k = 0; k < 8; ++k) a[x + k] += wt * s[x + k];
  }
  for (; x < n; ++x) a[x] += wt * s[x];
}

// Convolves one plane with a small sparse kernel in place; the picture's edge is replicated.
void convolvePlane(uint8_t* data, int w, int h, int step, const std::vector<Tap>& taps) {
  if (taps.empty() || w <= 0 || h <= 0) return;
  int reach = 0;
  for (const Tap& t : taps) reach = std::max(reach, std::max(std::abs(t.dx), std::abs(t.dy)));
  PaddedPlane src(w, h, reach);
  src.load(data, step);
  std::vector<float> acc(static_cast<size_t>(w));
  for (int y = 0; y < h; ++y) {
    std::fill(acc.begin(), acc.end(), 0.f);
    float* a = acc.data();
    for (const Tap& t : taps) accumulate(a, src.rowAt(y + t.dy) + t.dx, t.w, w);
    uint8_t* out = data + static_cast<size_t>(y) * w * step;
    for (int x = 0; x < w; ++x) out[x * step] = toByte(a[x]);
  }
}

// Applies the same kernel to the luma and, scaled by half, to both chroma planes.
template <typename MakeTaps>
void convolveImage(Nv21Image& image, MakeTaps makeTaps) {
  const int w = image.width, h = image.height;
  for (const std::vector<Tap>& pass : makeTaps(1.0)) convolvePlane(image.y(), w, h, 1, pass);
  for (const std::vector<Tap>& pass : makeTaps(0.5)) {
    convolvePlane(image.vu(), w / 2, h / 2, 2, pass);
    convolvePlane(image.vu() + 1, w / 2, h / 2, 2, pass);
  }
}

// A line of the given length through the centre, sampled every pixel or closer, each sample
// spread over its four neighbours (bilinear); the weights sum to 1.
std::vector<Tap> lineKernel(double length, double angle) {
  std::vector<Tap> taps;
  if (!(length > 0.0)) return taps;
  const int samples = std::max(2, static_cast<int>(std::ceil(length)) + 1);
  const double c = std::cos(angle), s = std::sin(angle);
  std::map<std::pair<int, int>, double> grid;
  for (int k = 0; k < samples; ++k) {
    const double t = -length / 2 + length * k / (samples - 1);
    const double px = t * c, py = t * s;
    const double fx = std::floor(px), fy = std::floor(py);
    const double ax = px - fx, ay = py - fy;
    const int ix = static_cast<int>(fx), iy = static_cast<int>(fy);
    grid[{ix, iy}] += (1 - ax) * (1 - ay);
    grid[{ix + 1, iy}] += ax * (1 - ay);
    grid[{ix, iy + 1}] += (1 - ax) * ay;
    grid[{ix + 1, iy + 1}] += ax * ay;
  }
  for (const auto& g : grid) {
    if (g.second > 1e-9) taps.push_back({g.first.first, g.first.second, static_cast<float>(g.second / samples)});
  }
  return taps;
}

// The two passes of a separable Gaussian, out to 3 sigma.
std::vector<std::vector<Tap>> gaussianPasses(double sigma) {
  if (!(sigma > 0.05)) return {};
  const int reach = std::max(1, static_cast<int>(std::ceil(3.0 * sigma)));
  std::vector<double> w(2 * reach + 1);
  double sum = 0.0;
  for (int i = -reach; i <= reach; ++i) sum += w[i + reach] = std::exp(-0.5 * i * i / (sigma * sigma));
  std::vector<Tap> across, down;
  for (int i = -reach; i <= reach; ++i) {
    const float v = static_cast<float>(w[i + reach] / sum);
    across.push_back({i, 0, v});
    down.push_back({0, i, v});
  }
  return {across, down};
}

// Values of a run: the peak at the shutter frame, falling off by 5..30 % a frame away from
// it, never below the floor.
void fallOff(SeededRandom& rng, DegradationEvent& e, double peak, double floor) {
  const int s = e.shutterFrame - e.firstFrame;
  e.values.assign(e.lastFrame - e.firstFrame + 1, peak);
  double f = 1.0;
  for (int i = s - 1; i >= 0; --i) e.values[i] = std::max(floor, peak * (f *= rng.uniform(0.7, 0.95)));
  f = 1.0;
  for (int i = s + 1; i < static_cast<int>(e.values.size()); ++i) {
    e.values[i] = std::max(floor, peak * (f *= rng.uniform(0.7, 0.95)));
  }
}

// Blink degrees of a run: half closed at its ends, closed inside, fully closed at the shutter
// frame; inside, each frame away from the shutter is 0..3 less closed than its neighbour.
void blinkProfile(SeededRandom& rng, DegradationEvent& e) {
  const int n = e.lastFrame - e.firstFrame + 1;
  const int s = e.shutterFrame - e.firstFrame;
  e.values.assign(n, 100.0);
  int degree = 100;
  for (int i = s - 1; i >= 0; --i)
    e.values[i] = degree = std::max(Degrader::kBlinkClosedMin, degree - rng.uniformInt(0, 3));
  degree = 100;
  for (int i = s + 1; i < n; ++i)
    e.values[i] = degree = std::max(Degrader::kBlinkClosedMin, degree - rng.uniformInt(0, 3));
  if (s != 0) e.values[0] = rng.uniformInt(Degrader::kBlinkEdgeMin, Degrader::kBlinkEdgeMax);
  if (s != n - 1) e.values[n - 1] = rng.uniformInt(Degrader::kBlinkEdgeMin, Degrader::kBlinkEdgeMax);
}

const FaceRecord* largest(const std::vector<FaceRecord>& faces) {
  const FaceRecord* best = nullptr;
  for (const FaceRecord& f : faces) {
    if (!best || static_cast<int64_t>(f.width) * f.height > static_cast<int64_t>(best->width) * best->height) best = &f;
  }
  return best;
}

}  // namespace

Degrader::Degrader(uint64_t seed) : mSeed(seed) {}

bool Degrader::wellFormed(const Nv21Image& image) {
  return image.width >= 2 && image.height >= 2 && image.width % 2 == 0 && image.height % 2 == 0 &&
         image.data.size() == static_cast<size_t>(image.width) * image.height * 3 / 2;
}

DegradationEvent Degrader::plan(const std::string& kind, int shutterFrame, int numFrames, int frameWidth) const {
  DegradationEvent e;
  e.kind = kind;
  e.shutterFrame = shutterFrame;
  e.frameWidth = frameWidth;
  if (!DegradationSpec::isKind(kind) || numFrames <= 0 || shutterFrame < 0 || shutterFrame >= numFrames ||
      frameWidth < 2) {
    return e;
  }
  SeededRandom rng(SeededRandom::mix(mSeed, SeededRandom::hashText(kind.c_str()), static_cast<uint64_t>(shutterFrame)));

  // The run: its length, then where the shutter falls in it. A blink's shutter frame is an
  // inner one when the run has inner frames, so that the press catches the eyes closed.
  const int len = std::min(numFrames, rng.uniformInt(kMinRun, kMaxRun));
  const bool inner = kind == kind::kBlink && len >= 3;
  const int pos = inner ? rng.uniformInt(1, len - 2) : rng.uniformInt(0, len - 1);
  e.firstFrame = std::max(0, shutterFrame - pos);
  e.lastFrame = e.firstFrame + len - 1;
  if (e.lastFrame >= numFrames) {
    e.lastFrame = numFrames - 1;
    e.firstFrame = std::max(0, e.lastFrame - len + 1);
  }

  const double scale = frameWidth / 640.0;
  if (kind == kind::kBlink) {
    blinkProfile(rng, e);
    e.eyeDifference = rng.uniformInt(0, 4);
    e.leftEyeLess = rng.chance(0.5);
  } else if (kind == kind::kShake) {
    e.angleRad = rng.uniform(0.0, kPi);
    e.gyroPhase = rng.uniform(0.0, 2 * kPi);
    const double peak = frameWidth * rng.uniform(kShakeMinOfWidth, kShakeMaxOfWidth);
    fallOff(rng, e, peak, frameWidth * kShakeMinOfWidth);
  } else if (kind == kind::kDefocus) {
    const double peak = scale * rng.uniform(kDefocusMinAt640, kDefocusMaxAt640);
    fallOff(rng, e, peak, scale * kDefocusMinAt640);
  } else if (kind == kind::kExposure) {
    const double gain =
        rng.chance(0.5) ? rng.uniform(kDarkGainMin, kDarkGainMax) : rng.uniform(kBrightGainMin, kBrightGainMax);
    e.values.assign(e.lastFrame - e.firstFrame + 1, gain);
  } else if (kind == kind::kNoise) {
    e.noiseSeed = rng.next();
    fallOff(rng, e, rng.uniform(kNoiseMin, kNoiseMax), kNoiseMin);
  }
  return e;
}

double Degrader::applyImage(const DegradationEvent& event, int frame, Nv21Image& image) const {
  if (!event.covers(frame) || event.kind == kind::kBlink || !wellFormed(image)) return 0.0;
  double v = event.valueAt(frame);
  // Lengths were planned for frameWidth; a picture of another width gets them scaled.
  const double sizeScale = event.frameWidth > 0 ? static_cast<double>(image.width) / event.frameWidth : 1.0;
  if (event.kind == kind::kShake) {
    v *= sizeScale;
    motionBlur(image, v, event.angleRad);
  } else if (event.kind == kind::kDefocus) {
    v *= sizeScale;
    gaussianBlur(image, v);
  } else if (event.kind == kind::kExposure) {
    exposureGain(image, v);
  } else if (event.kind == kind::kNoise) {
    addNoise(image, v, SeededRandom::mix(event.noiseSeed, static_cast<uint64_t>(frame)));
  } else {
    return 0.0;
  }
  return v;
}

void Degrader::applyFaces(const DegradationEvent& event, int frame, std::vector<FaceRecord>& faces) const {
  if (event.kind != kind::kBlink || !event.covers(frame)) return;
  const FaceRecord* main = largest(faces);
  if (!main) return;
  FaceRecord& f = faces[static_cast<size_t>(main - faces.data())];
  const int degree = static_cast<int>(event.valueAt(frame));
  const int floor = degree >= kBlinkClosedMin ? kBlinkClosedMin : kBlinkEdgeMin;
  const int less = std::max(floor, degree - event.eyeDifference);
  const int left = event.leftEyeLess ? less : degree;
  const int right = event.leftEyeLess ? degree : less;
  // The eyes close over whatever the face was doing; a natural blink already more closed wins.
  auto close = [](int& blink, float& ear, int to) {
    if (to <= blink) return;
    // The aspect ratio the degree came from, when the record has one, follows the degree.
    if (ear > 0.f)
      ear *= static_cast<float>((1.0 - (1.0 - kClosedEarFactor) * to / 100.0) /
                                (1.0 - (1.0 - kClosedEarFactor) * blink / 100.0));
    blink = to;
  };
  close(f.leftBlink, f.leftEar, left);
  close(f.rightBlink, f.rightEar, right);
}

double Degrader::gyroRateForBlur(double blurPx, int frameWidth, int64_t exposureUs) {
  if (frameWidth <= 0 || exposureUs <= 0) return 0.0;
  return blurPx / (focalPx(frameWidth) * (exposureUs / 1e6));
}

std::vector<GyroSample> Degrader::gyroQuiet(int64_t frameTsUs, int64_t frameIntervalUs) const {
  std::vector<GyroSample> out;
  if (frameIntervalUs <= 0) return out;
  const uint64_t stream = SeededRandom::mix(mSeed, SeededRandom::hashText("hand tremor"));
  SeededRandom phases(stream);
  const double px = phases.uniform(0, 2 * kPi), py = phases.uniform(0, 2 * kPi), pz = phases.uniform(0, 2 * kPi);
  for (int64_t t = frameTsUs; t < frameTsUs + frameIntervalUs; t += kGyroStepUs) {
    // Drawn from the timestamp alone, so any frame can be asked for in any order.
    SeededRandom rng(SeededRandom::mix(stream, static_cast<uint64_t>(t)));
    const double a = 2 * kPi * kTremorHz * (t / 1e6);
    GyroSample g;
    g.timestampUs = t;
    g.x = static_cast<float>(kTremorWaveRadS * std::sin(a + px) + kTremorNoiseRadS * rng.normal());
    g.y = static_cast<float>(kTremorWaveRadS * std::sin(a + py) + kTremorNoiseRadS * rng.normal());
    g.z = static_cast<float>(0.5 * kTremorWaveRadS * std::sin(a + pz) + kTremorNoiseRadS * rng.normal());
    out.push_back(g);
  }
  return out;
}

std::vector<GyroSample> Degrader::gyro(const DegradationEvent& event, int frame, int64_t frameTsUs,
                                       int64_t frameIntervalUs) const {
  std::vector<GyroSample> out = gyroQuiet(frameTsUs, frameIntervalUs);
  if (event.kind != kind::kShake || !event.covers(frame) || out.empty()) return out;
  const double rate = gyroRateForBlur(event.valueAt(frame), event.frameWidth, frameIntervalUs);
  const int n = static_cast<int>(out.size());
  for (int k = 0; k < n; ++k) {
    // A wobble that averages out over the frame: the smear stays the blur's length.
    const double m = n > 1 ? 1.0 + kGyroWobble * std::sin(2 * kPi * k / n + event.gyroPhase) : 1.0;
    out[k].x += static_cast<float>(rate * m * std::sin(event.angleRad));
    out[k].y += static_cast<float>(rate * m * std::cos(event.angleRad));
  }
  return out;
}

void Degrader::motionBlur(Nv21Image& image, double lengthPx, double angleRad) {
  if (!wellFormed(image) || !(lengthPx > 0.0) || !std::isfinite(lengthPx) || !std::isfinite(angleRad)) return;
  // Longer than the picture means nothing more; the cap keeps the kernel small.
  lengthPx = std::min(lengthPx, static_cast<double>(std::max(image.width, image.height)));
  convolveImage(image,
                [&](double scale) { return std::vector<std::vector<Tap>>{lineKernel(lengthPx * scale, angleRad)}; });
}

void Degrader::gaussianBlur(Nv21Image& image, double sigmaPx) {
  if (!wellFormed(image) || !(sigmaPx > 0.0) || !std::isfinite(sigmaPx)) return;
  sigmaPx = std::min(sigmaPx, std::max(image.width, image.height) / 6.0);
  convolveImage(image, [&](double scale) { return gaussianPasses(sigmaPx * scale); });
}

void Degrader::exposureGain(Nv21Image& image, double gain) {
  if (!wellFormed(image) || !(gain >= 0.0) || !std::isfinite(gain)) return;
  const int w = image.width, h = image.height;
  uint8_t* y = image.y();
  uint8_t* vu = image.vu();
  // Chroma first: a bright frame's colours fade where the 2x2 block's new luma runs past
  // 220 and are gone at 280 (well past white).
  for (int cy = 0; cy < h / 2; ++cy) {
    for (int cx = 0; cx < w / 2; ++cx) {
      double keep = gain;
      if (gain > 1.0) {
        const uint8_t* r0 = y + static_cast<size_t>(2 * cy) * w + 2 * cx;
        const double lum = gain * (r0[0] + r0[1] + r0[w] + r0[w + 1]) / 4.0;
        keep = std::clamp((280.0 - lum) / 60.0, 0.0, 1.0);
      }
      uint8_t* c = vu + static_cast<size_t>(cy) * w + 2 * cx;
      c[0] = toByte(static_cast<float>(128.0 + (c[0] - 128.0) * keep));
      c[1] = toByte(static_cast<float>(128.0 + (c[1] - 128.0) * keep));
    }
  }
  const size_t n = static_cast<size_t>(w) * h;
  for (size_t i = 0; i < n; ++i) y[i] = toByte(static_cast<float>(y[i] * gain));
}

void Degrader::addNoise(Nv21Image& image, double sigma, uint64_t seed) {
  if (!wellFormed(image) || !(sigma > 0.0) || !std::isfinite(sigma)) return;
  SeededRandom rng(seed);
  uint8_t* y = image.y();
  const size_t n = static_cast<size_t>(image.width) * image.height;
  for (size_t i = 0; i < n; ++i) y[i] = toByte(static_cast<float>(y[i] + sigma * rng.normal()));
}

}  // namespace kovane_replay
