#include "FaceDetector.h"

#include <dlib/image_processing.h>
#include <dlib/image_processing/frontal_face_detector.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>

namespace kovane_replay {

struct FaceDetector::Models {
  dlib::frontal_face_detector detector = dlib::get_frontal_face_detector();
  dlib::shape_predictor predictor;
  bool loaded = false;
  dlib::array2d<unsigned char> picture;  // scratch: the reduced grey picture
};

namespace {

// Area-average reduction of a grey picture by the factor dst/src (<= 1). Every destination
// pixel is the mean of the source pixels its footprint covers (whole pixels), which keeps
// fine edges such as eyelids from aliasing the way point sampling would.
void reduce(const uint8_t* src, int sw, int sh, dlib::array2d<unsigned char>& dst, int dw, int dh) {
  dst.set_size(dh, dw);
  std::vector<int> x0(dw + 1);
  for (int x = 0; x <= dw; ++x) x0[x] = static_cast<int>(static_cast<int64_t>(x) * sw / dw);
  for (int y = 0; y < dh; ++y) {
    const int ya = static_cast<int>(static_cast<int64_t>(y) * sh / dh);
    const int yb = std::max(ya + 1, static_cast<int>(static_cast<int64_t>(y + 1) * sh / dh));
    for (int x = 0; x < dw; ++x) {
      const int xa = x0[x];
      const int xb = std::max(xa + 1, x0[x + 1]);
      unsigned sum = 0;
      for (int yy = ya; yy < yb; ++yy) {
        const uint8_t* row = src + static_cast<size_t>(yy) * sw;
        for (int xx = xa; xx < xb; ++xx) sum += row[xx];
      }
      const unsigned n = static_cast<unsigned>((yb - ya) * (xb - xa));
      dst[y][x] = static_cast<unsigned char>((sum + n / 2) / n);
    }
  }
}

float dist(const LandmarkPoint& a, const LandmarkPoint& b) {
  return std::hypot(a.x - b.x, a.y - b.y);
}

LandmarkPoint mean(const std::array<LandmarkPoint, 68>& p, int first, int count) {
  LandmarkPoint m;
  for (int i = first; i < first + count; ++i) {
    m.x += p[i].x;
    m.y += p[i].y;
  }
  m.x /= static_cast<float>(count);
  m.y /= static_cast<float>(count);
  return m;
}

int roundi(float v) { return static_cast<int>(std::lround(v)); }

}  // namespace

std::string FaceDetector::predictorPath() {
  const char* env = std::getenv("KOVANE_DLIB_PREDICTOR");
  if (env != nullptr && env[0] != '\0') return env;
  return kDefaultPredictorPath;
}

FaceDetector::FaceDetector() : mModels(new Models()) {}
FaceDetector::~FaceDetector() = default;

FaceDetector::FaceDetector(const FaceDetector& other) : mModels(new Models()) {
  mModels->detector = other.mModels->detector;
  mModels->predictor = other.mModels->predictor;
  mModels->loaded = other.mModels->loaded;
}

bool FaceDetector::load(const std::string& predictorFile, std::string* error) {
  auto fail = [&](const std::string& text) {
    if (error) *error = text;
    return false;
  };
  std::ifstream probe(predictorFile, std::ios::binary);
  if (!probe) {
    return fail("face landmark model " + predictorFile +
                " not found (install Debian's libdlib-data, or set KOVANE_DLIB_PREDICTOR)");
  }
  probe.close();
  try {
    dlib::shape_predictor predictor;
    dlib::deserialize(predictorFile) >> predictor;
    if (predictor.num_parts() != 68) {
      return fail("face landmark model " + predictorFile + " has " +
                  std::to_string(predictor.num_parts()) + " points, 68 are needed");
    }
    mModels->predictor = std::move(predictor);
  } catch (const std::exception& e) {
    std::string what = e.what();
    what.erase(std::remove(what.begin(), what.end(), '\n'), what.end());
    return fail("cannot read face landmark model " + predictorFile + ": " + what);
  }
  mModels->loaded = true;
  return true;
}

bool FaceDetector::loaded() const { return mModels->loaded; }

std::vector<DetectedFace> FaceDetector::detect(const Nv21Image& image) {
  if (image.width <= 0 || image.height <= 0 ||
      image.data.size() < static_cast<size_t>(image.width) * image.height) {
    return {};
  }
  return detectGrey(image.y(), image.width, image.height);
}

std::vector<DetectedFace> FaceDetector::detectGrey(const uint8_t* grey, int width, int height) {
  std::vector<DetectedFace> out;
  if (!mModels->loaded || grey == nullptr || width < 16 || height < 16) return out;
  const int side = std::max(width, height);
  const double scale = side > kMaxDetectSide ? static_cast<double>(kMaxDetectSide) / side : 1.0;
  const int dw = std::max(1, static_cast<int>(std::lround(width * scale)));
  const int dh = std::max(1, static_cast<int>(std::lround(height * scale)));
  dlib::array2d<unsigned char>& pic = mModels->picture;
  reduce(grey, width, height, pic, dw, dh);
  // Map reduced coordinates back to the caller's pixels.
  const float fx = static_cast<float>(width) / dw;
  const float fy = static_cast<float>(height) / dh;

  std::vector<dlib::rect_detection> found;
  mModels->detector(pic, found, 0.0);
  for (const dlib::rect_detection& d : found) {
    DetectedFace f;
    f.left = static_cast<float>(d.rect.left()) * fx;
    f.top = static_cast<float>(d.rect.top()) * fy;
    f.width = static_cast<float>(d.rect.width()) * fx;
    f.height = static_cast<float>(d.rect.height()) * fy;
    f.confidence = d.detection_confidence;
    f.score = scoreFromConfidence(d.detection_confidence);
    if (!placeLandmarks(fx, fy, f)) continue;
    out.push_back(f);
  }
  std::stable_sort(out.begin(), out.end(), [](const DetectedFace& a, const DetectedFace& b) {
    return a.width * a.height > b.width * b.height;
  });
  return out;
}

bool FaceDetector::placeLandmarks(double scaleX, double scaleY, DetectedFace& f) {
  // Each box: shift right, shift down, in units of kLandmarkJitter of the face size.
  static constexpr int kBoxes[kLandmarkBoxes][2] = {{0, 0}, {1, 0}, {-1, 0}, {0, 1}, {0, -1}};
  const double l = f.left / scaleX, t = f.top / scaleY;
  const double w = f.width / scaleX, h = f.height / scaleY;
  std::array<double, 68> sumX{}, sumY{};
  for (int b = 0; b < kLandmarkBoxes; ++b) {
    const double bl = l + kBoxes[b][0] * kLandmarkJitter * w;
    const double bt = t + kBoxes[b][1] * kLandmarkJitter * h;
    const dlib::rectangle box(std::lround(bl), std::lround(bt), std::lround(bl + w) - 1,
                              std::lround(bt + h) - 1);
    const dlib::full_object_detection shape = mModels->predictor(mModels->picture, box);
    if (shape.num_parts() != 68) return false;
    for (unsigned long i = 0; i < 68; ++i) {
      sumX[i] += static_cast<double>(shape.part(i).x());
      sumY[i] += static_cast<double>(shape.part(i).y());
    }
  }
  for (int i = 0; i < 68; ++i) {
    // Pixel centres sit at integer positions in both pictures; scale about them.
    f.landmarks[i].x = static_cast<float>((sumX[i] / kLandmarkBoxes + 0.5) * scaleX - 0.5);
    f.landmarks[i].y = static_cast<float>((sumY[i] / kLandmarkBoxes + 0.5) * scaleY - 0.5);
  }
  return true;
}

int FaceDetector::scoreFromConfidence(double confidence) {
  const double s = 50.0 + 50.0 * confidence / kFullScoreMargin;
  return static_cast<int>(std::lround(std::clamp(s, 0.0, 100.0)));
}

float FaceDetector::eyeAspectRatio(const std::array<LandmarkPoint, 68>& p, int first) {
  const LandmarkPoint* e = &p[first];
  const float across = dist(e[0], e[3]);
  if (across <= 0.f) return 0.f;
  return (dist(e[1], e[5]) + dist(e[2], e[4])) / (2.f * across);
}

float FaceDetector::mouthRatio(const std::array<LandmarkPoint, 68>& p) {
  const float eyes = dist(mean(p, 36, 6), mean(p, 42, 6));
  if (eyes <= 0.f) return 0.f;
  return dist(p[48], p[54]) / eyes;
}

FaceRecord FaceDetector::toRecord(const DetectedFace& face) {
  FaceRecord r;
  r.score = face.score;
  r.left = roundi(face.left);
  r.top = roundi(face.top);
  r.width = roundi(face.width);
  r.height = roundi(face.height);
  const LandmarkPoint leftEye = mean(face.landmarks, 42, 6);   // subject's left, picture right
  const LandmarkPoint rightEye = mean(face.landmarks, 36, 6);  // subject's right, picture left
  const LandmarkPoint mouth = mean(face.landmarks, 48, 12);    // outer lip contour
  r.leftEyeX = roundi(leftEye.x);
  r.leftEyeY = roundi(leftEye.y);
  r.rightEyeX = roundi(rightEye.x);
  r.rightEyeY = roundi(rightEye.y);
  r.mouthX = roundi(mouth.x);
  r.mouthY = roundi(mouth.y);
  r.leftEar = eyeAspectRatio(face.landmarks, 42);
  r.rightEar = eyeAspectRatio(face.landmarks, 36);
  r.mouthRatio = mouthRatio(face.landmarks);
  return r;
}

}  // namespace kovane_replay
