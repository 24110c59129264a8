#include "ClipFaceAnalysis.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>

#include "FaceDetector.h"
#include "ProgressLine.h"
#include "FaceTrackFile.h"

namespace kovane_replay {

namespace {

const char* fitName(ClipDecoder::Fit fit) { return fit == ClipDecoder::FIT_CROP ? "crop" : "letterbox"; }

std::string detectorName() {
  return "dlib frontal HOG + 68 landmarks, v" + std::to_string(ClipFaceAnalysis::kDetectorVersion);
}

// Frames flow from the decoding thread through a short queue to the detection workers; each
// worker has its own FaceDetector. Everything the threads share is under `lock`.
struct Pipeline {
  static constexpr size_t kQueueDepth = 8;

  std::mutex lock;
  std::condition_variable hasWork, hasRoom;
  std::deque<std::pair<int, Nv21Image>> queue;
  bool closed = false;
  std::vector<std::vector<DetectedFace>> results;  // by frame index
  std::string failure;
  std::atomic<int> finished{0};

  void work(FaceDetector& detector) {
    while (true) {
      std::pair<int, Nv21Image> job;
      {
        std::unique_lock<std::mutex> l(lock);
        hasWork.wait(l, [&] { return closed || !queue.empty(); });
        if (queue.empty()) return;
        job = std::move(queue.front());
        queue.pop_front();
      }
      hasRoom.notify_one();
      std::vector<DetectedFace> faces;
      std::string error;
      try {
        faces = detector.detect(job.second);
      } catch (const std::exception& e) {
        error = std::string("face detection failed on frame ") + std::to_string(job.first) + ": " + e.what();
      }
      {
        std::lock_guard<std::mutex> l(lock);
        if (!error.empty() && failure.empty()) failure = error;
        results[static_cast<size_t>(job.first)] = std::move(faces);
      }
      finished.fetch_add(1, std::memory_order_relaxed);
    }
  }
};

// Detects and tracks frames first..last (last < 0: all) of an opened decoder.
bool detectAndTrack(ClipDecoder& decoder, const std::string& clipPath, bool progress, int first,
                    int last, ClipFaces& out, std::string* error) {
  auto fail = [&](const std::string& text) {
    if (error) *error = text;
    return false;
  };
  out.clear();
  FaceDetector detector;
  std::string loadError;
  if (!detector.load(FaceDetector::predictorPath(), &loadError)) return fail(loadError);

  const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
  const int workers = static_cast<int>(std::min<unsigned>(ClipFaceAnalysis::kMaxWorkers, cores));
  // Copies are made here, before any thread starts; each thread then owns one detector.
  std::vector<std::unique_ptr<FaceDetector>> detectors;
  for (int i = 1; i < workers; ++i) detectors.emplace_back(new FaceDetector(detector));

  Pipeline p;
  std::vector<std::thread> threads;
  threads.emplace_back([&] { p.work(detector); });
  for (auto& d : detectors) {
    FaceDetector* own = d.get();
    threads.emplace_back([&p, own] { p.work(*own); });
  }

  const int hint = decoder.info().frameCountHint;
  const int total = last >= 0 ? last - first + 1 : (hint > first ? hint - first : 0);
  ProgressLine bar("faces", total, progress);
  int frames = 0;  // frames decoded, including those before `first`
  ClipFrame frame;
  while ((last < 0 || frames <= last) && decoder.next(frame)) {
    frames = frame.index + 1;
    if (frame.index < first) continue;
    std::unique_lock<std::mutex> l(p.lock);
    p.hasRoom.wait(l, [&] { return p.queue.size() < Pipeline::kQueueDepth; });
    if (p.results.size() <= static_cast<size_t>(frame.index)) p.results.resize(static_cast<size_t>(frame.index) + 1);
    p.queue.emplace_back(frame.index, std::move(frame.image));
    l.unlock();
    p.hasWork.notify_one();
    bar.update(p.finished.load(std::memory_order_relaxed));
  }
  {
    std::lock_guard<std::mutex> l(p.lock);
    p.closed = true;
  }
  p.hasWork.notify_all();
  for (std::thread& t : threads) t.join();
  bar.update(p.finished.load());
  bar.finish();

  if (!decoder.error().empty()) return fail(clipPath + ": " + decoder.error());
  if (!p.failure.empty()) return fail(p.failure);
  if (frames == 0) return fail(clipPath + ": no frames could be decoded");

  FaceTracker tracker(frames);
  for (size_t i = static_cast<size_t>(std::max(0, first)); i < p.results.size(); ++i) {
    std::vector<FaceRecord> records;
    for (const DetectedFace& f : p.results[i]) records.push_back(FaceDetector::toRecord(f));
    tracker.add(static_cast<int>(i), std::move(records));
  }
  out = tracker.finish();
  return true;
}

// Where faces are detected: a preview larger than the clip (a small webcam clip replayed at
// 640x480) adds no detail, only interpolation that shifts the landmarks, so such a clip is
// decoded at its own scale with the preview's framing and the records are scaled up to the
// preview afterwards. Eye and mouth ratios do not change with the scale.
struct DetectionGeometry {
  int previewWidth = 0, previewHeight = 0;
  double scaleX = 1.0, scaleY = 1.0;  // preview pixels per detection pixel
};

bool openClip(ClipDecoder& decoder, const std::string& clipPath,
              const ClipFaceAnalysis::Options& opt, DetectionGeometry& geo, std::string* error) {
  if ((opt.width == 0) != (opt.height == 0) || opt.width < 0 || opt.height < 0) {
    if (error) *error = "preview size " + std::to_string(opt.width) + "x" + std::to_string(opt.height) + " is not valid";
    return false;
  }
  if (!decoder.open(clipPath) || !decoder.setOutput(opt.width, opt.height, opt.fit)) {
    if (error) *error = decoder.error();
    return false;
  }
  geo.previewWidth = decoder.outputWidth();
  geo.previewHeight = decoder.outputHeight();
  const double sx = static_cast<double>(geo.previewWidth) / decoder.info().width;
  const double sy = static_cast<double>(geo.previewHeight) / decoder.info().height;
  const double scale = opt.fit == ClipDecoder::FIT_CROP ? std::max(sx, sy) : std::min(sx, sy);
  if (scale > 1.0) {
    const int w = std::max(16, static_cast<int>(std::lround(geo.previewWidth / scale)) & ~1);
    const int h = std::max(16, static_cast<int>(std::lround(geo.previewHeight / scale)) & ~1);
    if (!decoder.setOutput(w, h, opt.fit)) {
      if (error) *error = decoder.error();
      return false;
    }
    geo.scaleX = static_cast<double>(geo.previewWidth) / w;
    geo.scaleY = static_cast<double>(geo.previewHeight) / h;
  }
  return true;
}

// Records of the detection picture in preview pixels.
void toPreview(const DetectionGeometry& geo, ClipFaces& faces) {
  if (geo.scaleX == 1.0 && geo.scaleY == 1.0) return;
  auto sx = [&](int v) { return static_cast<int>(std::lround(v * geo.scaleX)); };
  auto sy = [&](int v) { return static_cast<int>(std::lround(v * geo.scaleY)); };
  for (auto& frame : faces) {
    for (FaceRecord& f : frame) {
      f.left = sx(f.left);
      f.top = sy(f.top);
      f.width = sx(f.width);
      f.height = sy(f.height);
      f.leftEyeX = sx(f.leftEyeX);
      f.leftEyeY = sy(f.leftEyeY);
      f.rightEyeX = sx(f.rightEyeX);
      f.rightEyeY = sy(f.rightEyeY);
      f.mouthX = sx(f.mouthX);
      f.mouthY = sy(f.mouthY);
    }
  }
}

}  // namespace

std::string ClipFaceAnalysis::sha256File(const std::string& path, std::string* error) {
  std::ifstream f(path, std::ios::binary);
  if (!f) {
    if (error) *error = "cannot open " + path;
    return "";
  }
  std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  if (!ctx || EVP_DigestInit_ex(ctx.get(), EVP_sha256(), nullptr) != 1) {
    if (error) *error = "SHA-256 is not available from OpenSSL";
    return "";
  }
  std::vector<char> buf(1 << 20);
  while (f) {
    f.read(buf.data(), static_cast<std::streamsize>(buf.size()));
    const std::streamsize n = f.gcount();
    if (n > 0 && EVP_DigestUpdate(ctx.get(), buf.data(), static_cast<size_t>(n)) != 1) {
      if (error) *error = "hashing " + path + " failed";
      return "";
    }
  }
  if (f.bad()) {
    if (error) *error = "cannot read " + path;
    return "";
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (EVP_DigestFinal_ex(ctx.get(), digest, &len) != 1) {
    if (error) *error = "hashing " + path + " failed";
    return "";
  }
  static const char* hex = "0123456789abcdef";
  std::string out;
  for (unsigned i = 0; i < len; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

std::string ClipFaceAnalysis::cacheFileName(const std::string& clipSha256, int width, int height,
                                            ClipDecoder::Fit fit) {
  return "faces-" + clipSha256.substr(0, 16) + "-" + std::to_string(width) + "x" + std::to_string(height) +
         "-" + fitName(fit) + "-v" + std::to_string(kDetectorVersion) + ".csv";
}

bool ClipFaceAnalysis::analyseRange(const std::string& clipPath, const Options& opt, int first,
                                    int last, ClipFaces& out, std::string* error) {
  out.clear();
  if (first < 0 || (last >= 0 && last < first)) {
    if (error) *error = "frame range " + std::to_string(first) + ".." + std::to_string(last) + " is empty";
    return false;
  }
  ClipDecoder decoder;
  DetectionGeometry geo;
  if (!openClip(decoder, clipPath, opt, geo, error)) return false;
  if (!detectAndTrack(decoder, clipPath, opt.progress, first, last, out, error)) return false;
  toPreview(geo, out);
  return true;
}

bool ClipFaceAnalysis::analyse(const std::string& clipPath, const Options& opt, ClipFaces& out,
                               std::string* error, bool* fromCache) {
  out.clear();
  if (fromCache) *fromCache = false;
  ClipDecoder decoder;
  DetectionGeometry geo;
  if (!openClip(decoder, clipPath, opt, geo, error)) return false;
  const int width = geo.previewWidth;
  const int height = geo.previewHeight;

  std::string cachePath;
  FaceTrackFile::Meta meta;
  if (!opt.cacheDir.empty()) {
    const std::string sha = sha256File(clipPath, error);
    if (sha.empty()) return false;
    meta = {{"clip-sha256", sha},
            {"size", std::to_string(width) + "x" + std::to_string(height)},
            {"fit", fitName(opt.fit)},
            {"detector", detectorName()}};
    cachePath = (std::filesystem::path(opt.cacheDir) / cacheFileName(sha, width, height, opt.fit)).string();
    ClipFaces cached;
    FaceTrackFile::Meta found;
    std::error_code ec;
    if (std::filesystem::exists(cachePath, ec) && FaceTrackFile::read(cachePath, cached, nullptr, &found)) {
      bool same = true;
      for (const auto& kv : meta) same = same && FaceTrackFile::metaValue(found, kv.first) == kv.second;
      if (same) {
        out = std::move(cached);
        if (fromCache) *fromCache = true;
        return true;
      }
    }
  }

  if (!detectAndTrack(decoder, clipPath, opt.progress, 0, -1, out, error)) return false;
  toPreview(geo, out);

  if (!cachePath.empty()) {
    std::error_code ec;
    std::filesystem::create_directories(opt.cacheDir, ec);
    std::string writeError;
    if (ec) {
      writeError = "cannot create " + opt.cacheDir + ": " + ec.message();
    } else {
      FaceTrackFile::write(cachePath, out, &writeError, meta);
    }
    if (!writeError.empty()) {
      std::fprintf(stderr, "kovane-replay: face cache not written: %s\n", writeError.c_str());
    }
  }
  return true;
}

const FaceRecord* ClipFaceAnalysis::mainFace(const std::vector<FaceRecord>& faces) {
  const FaceRecord* best = nullptr;
  for (const FaceRecord& f : faces) {
    if (!best || static_cast<long long>(f.width) * f.height > static_cast<long long>(best->width) * best->height) {
      best = &f;
    }
  }
  return best;
}

namespace {

template <typename Select>
std::vector<BlinkEvent> blinkRuns(const ClipFaces& faces, Select select) {
  std::vector<BlinkEvent> events;
  bool inRun = false;
  BlinkEvent cur;
  for (size_t i = 0; i < faces.size(); ++i) {
    const int frame = static_cast<int>(i);
    const FaceRecord* f = select(faces[i]);
    const bool closed = f != nullptr && f->blinkDegree() >= ClipFaceAnalysis::kClosedDegree;
    if (inRun && (!closed || f->id != cur.faceId)) {
      events.push_back(cur);
      inRun = false;
    }
    if (!closed) continue;
    const int degree = f->blinkDegree();
    if (!inRun) {
      cur = BlinkEvent{f->id, frame, frame, frame, degree};
      inRun = true;
    } else {
      cur.lastFrame = frame;
      if (degree > cur.peakDegree) {
        cur.peakDegree = degree;
        cur.peakFrame = frame;
      }
    }
  }
  if (inRun) events.push_back(cur);
  return events;
}

}  // namespace

std::vector<BlinkEvent> ClipFaceAnalysis::findBlinks(const ClipFaces& faces) {
  return blinkRuns(faces, [](const std::vector<FaceRecord>& frame) { return mainFace(frame); });
}

std::vector<BlinkEvent> ClipFaceAnalysis::findBlinks(const ClipFaces& faces, int faceId) {
  return blinkRuns(faces, [faceId](const std::vector<FaceRecord>& frame) -> const FaceRecord* {
    for (const FaceRecord& f : frame) {
      if (f.id == faceId) return &f;
    }
    return nullptr;
  });
}

}  // namespace kovane_replay
