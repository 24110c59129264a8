#include "ReplayRunner.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include <nlohmann/json.hpp>

#include "CameraSimulator.h"
#include "ClipDecoder.h"
#include "ClipFaceAnalysis.h"
#include "DegradationSpec.h"
#include "Degrader.h"
#include "DexVideoGeneration.h"
#include "FaceTrackFile.h"
#include "JpegWriter.h"
#include "MotionPhoto.h"
#include "KoStatsReader.h"
#include "Metrics.h"
#include "ProgressLine.h"
#include "ReportWriter.h"
#include "SharpnessMeasure.h"
#include "ShutterPlan.h"

namespace kovane_replay {

namespace {

// Reach of a best shot around the shutter frame, as the engine's candidate list has it.
constexpr int kWindowFrames = ShutterPlan::kWindowFrames;
constexpr int64_t kWindowUs = 430000;
// Frames shown around a press in the outputs.
constexpr int kTimelineBefore = 14;
constexpr int kTimelineAfter = 8;
// Analysis image the engine needs: 640x360 from a 16:9 preview, 640x480 from a 4:3 one.
constexpr int kMaxDefaultWidth = 1280;
constexpr int kMaxDefaultHeight = 720;

int evenDown(double v) { return static_cast<int>(std::floor(v)) & ~1; }

// Per-frame scores as the engine printed them in one statistics record, by frame id; with the
// session row's library version and late flag when asked for.
void readEngineScores(const std::vector<uint8_t>& record, std::map<uint32_t, EngineFrameScores>& out,
                      std::string* version = nullptr, bool* late = nullptr) {
  if (record.empty()) return;
  android::KoStatsReader reader;
  reader.parse(record.data(), record.size());
  if (reader.hasSession()) {
    if (version) *version = reader.session().getText("libKoCoreVersion");
    if (late) *late = reader.session().getInt("isLateMode") != 0;
  }
  for (const auto& row : reader.frames()) {
    EngineFrameScores s;
    s.frameId = static_cast<uint32_t>(row.getInt("frame_id"));
    s.timestampUs = row.getInt("ts");
    s.sobelMean = row.getFloat("sob.mean");
    s.motion = row.getFloat("frmMotionScoreNorm");
    s.feScore = static_cast<double>(row.getInt("fe_score"));
    s.facesScore = row.getFloat("faces_score");
    s.bsScore = row.getFloat("bs_score");
    s.zsl = row.getInt("zsl") != 0;
    out[s.frameId] = s;
  }
  for (const auto& group : reader.faceGroups()) {
    const uint32_t id = static_cast<uint32_t>(group.group.getInt("frame_id"));
    auto it = out.find(id);
    if (it == out.end()) continue;
    it->second.numFaces = static_cast<int>(group.group.getInt("face.num_detected"));
    const android::KoStatsReader::Row* best = nullptr;
    int64_t bestArea = -1;
    for (const auto& face : group.faces) {
      const int64_t area = face.getInt("face.width") * face.getInt("face.height");
      if (area > bestArea) {
        bestArea = area;
        best = &face;
      }
    }
    if (best) {
      it->second.blinkDegree = static_cast<int>(std::max(best->getInt("blink.l"), best->getInt("blink.r")));
      it->second.smile = static_cast<int>(best->getInt("smile.degree"));
    }
  }
}

nlohmann::json recordJson(const std::vector<uint8_t>& record) {
  if (record.empty()) return nullptr;
  android::KoStatsReader reader;
  reader.parse(record.data(), record.size());
  nlohmann::json j = nlohmann::json::parse(reader.toJson(), nullptr, false);
  return j.is_discarded() ? nlohmann::json(reader.toJson()) : j;
}

}  // namespace


bool ReplayRunner::fail(std::string* error, const std::string& text) {
  if (error) *error = text;
  return false;
}

void ReplayRunner::choosePreviewSize(int clipWidth, int clipHeight, int& width, int& height) {
  const double aspect = static_cast<double>(clipWidth) / clipHeight;
  // The engine reduces a preview to about this many pixels and analyses a 640x360 band of it.
  const double target = aspect < 1.4 ? 640.0 * 480.0 : 640.0 * 360.0;
  width = clipWidth & ~1;
  height = clipHeight & ~1;
  if (width > kMaxDefaultWidth || height > kMaxDefaultHeight) {
    const double s = std::min(static_cast<double>(kMaxDefaultWidth) / clipWidth,
                              static_cast<double>(kMaxDefaultHeight) / clipHeight);
    width = evenDown(clipWidth * s);
    height = evenDown(clipHeight * s);
  }
  if (static_cast<double>(width) * height < target || width < 640 || height < 360) {
    // Smallest size of that aspect that holds the analysis image, in whole blocks of 16x8 so
    // that the engine's reduction does not round it up past the picture.
    width = std::max(640, static_cast<int>(std::ceil(std::sqrt(target * aspect) / 16.0)) * 16);
    height = std::max(360, static_cast<int>(std::ceil(width / aspect / 8.0)) * 8);
  }
}

void ReplayRunner::pressWindow(const std::vector<int64_t>& timesUs, int shutter, int& first, int& last) {
  const int n = static_cast<int>(timesUs.size());
  first = last = shutter;
  while (first - 1 >= 0 && shutter - (first - 1) <= kWindowFrames &&
         timesUs[shutter] - timesUs[first - 1] <= kWindowUs) {
    --first;
  }
  while (last + 1 < n && (last + 1) - shutter <= kWindowFrames &&
         timesUs[last + 1] - timesUs[shutter] <= kWindowUs) {
    ++last;
  }
}

bool ReplayRunner::run(std::string* error) {
  const auto start = std::chrono::steady_clock::now();
  if (!prepare(error)) return false;
  if (!replay(error)) return false;
  collect();
  mInfo.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  return writeOutputs(error);
}

}  // namespace kovane_replay

namespace kovane_replay {

// State of one replay that only the implementation needs.
struct ReplayRunner::Impl {
  struct Press {
    PlannedPress plan;
    bool hasEvent = false;
    DegradationEvent event;
    int jobId = 0;
    int clipFd = -1;  // with --video: capture-NN/clip.mp4, open while the engine writes it
  };
  std::vector<Press> presses;
  std::vector<BlinkEvent> naturalBlinks;
  std::vector<CameraSimulator::Job> jobs;
  CameraSimulator::Books books;
  ClipDecoder::Fit fit = ClipDecoder::FIT_CROP;

  const CameraSimulator::Job* jobFor(int jobId) const {
    for (const auto& j : jobs) {
      if (j.jobId == jobId) return &j;
    }
    return nullptr;
  }
};

}  // namespace kovane_replay

namespace kovane_replay {

ReplayRunner::ReplayRunner(const ReplayOptions& options) : mOptions(options), mImpl(new Impl()) {}
ReplayRunner::~ReplayRunner() = default;

bool ReplayRunner::prepare(std::string* error) {
  const ReplayOptions& o = mOptions;
  mImpl->fit = o.fit == "letterbox" ? ClipDecoder::FIT_LETTERBOX : ClipDecoder::FIT_CROP;
  if (o.fit != "crop" && o.fit != "letterbox") return fail(error, "--fit must be crop or letterbox");
  if (o.pace != "fast" && o.pace != "realtime") return fail(error, "--pace must be fast or realtime");

  ClipDecoder decoder;
  if (!decoder.open(o.clip)) return fail(error, decoder.error());
  mInfo.clip = o.clip;
  mInfo.clipWidth = decoder.info().width;
  mInfo.clipHeight = decoder.info().height;
  mInfo.fit = o.fit;
  mInfo.width = o.width;
  mInfo.height = o.height;
  if (mInfo.width == 0 || mInfo.height == 0) {
    choosePreviewSize(mInfo.clipWidth, mInfo.clipHeight, mInfo.width, mInfo.height);
  }
  if (!decoder.setOutput(16, 16, ClipDecoder::FIT_CROP)) return fail(error, decoder.error());

  // The engine has the last word on a preview size. It drops a frame it cannot reduce without
  // saying so to the caller, so the probe asks the way a camera can: two frames and a shutter
  // press, whose statistics record lists the frames the engine kept.
  {
    CameraSimulator::Options probe;
    probe.width = mInfo.width;
    probe.height = mInfo.height;
    probe.zslBuffers = 2;
    CameraSimulator cam(probe);
    if (!cam.start(error)) return false;
    Nv21Image grey;
    grey.allocate(mInfo.width, mInfo.height);
    std::fill(grey.data.begin(), grey.data.end(), 128);
    int rc = cam.feedFrame(grey, 1, 0, {}, {});
    if (rc == 0) rc = cam.feedFrame(grey, 2, 33000, {}, {});
    cam.takePicture(2, 33000);
    cam.waitForStatistics(5000);
    cam.stop();
    std::map<uint32_t, EngineFrameScores> kept;
    const auto jobs = cam.jobs();
    if (!jobs.empty()) readEngineScores(jobs[0].statisticsRecord, kept);
    if (rc != 0 || kept.empty()) {
      return fail(error, "the engine rejects preview size " + std::to_string(mInfo.width) + "x" +
                             std::to_string(mInfo.height) + (rc != 0 ? " (error " + std::to_string(rc) + ")" : ""));
    }
  }

  // The clip's time line, from a pass that decodes at a tiny size.
  decoder.overrideFps(o.fps);
  ClipFrame frame;
  ProgressLine progress("decoding", decoder.info().frameCountHint, o.progress);
  while (decoder.next(frame)) {
    mTimesUs.push_back(frame.ptsUs);
    progress.update(static_cast<int>(mTimesUs.size()));
  }
  progress.finish();
  if (!decoder.error().empty()) return fail(error, o.clip + ": " + decoder.error());
  if (o.untilS > 0) {
    while (!mTimesUs.empty() && mTimesUs.back() - mTimesUs.front() > static_cast<int64_t>(o.untilS * 1e6)) {
      mTimesUs.pop_back();
    }
  }
  if (mTimesUs.size() < 2) return fail(error, o.clip + " has fewer than two frames");
  for (size_t i = 1; i < mTimesUs.size(); ++i) {
    if (mTimesUs[i] <= mTimesUs[i - 1]) mTimesUs[i] = mTimesUs[i - 1] + 1;
  }
  mInfo.frames = static_cast<int>(mTimesUs.size());
  mInfo.durationS = (mTimesUs.back() - mTimesUs.front()) / 1e6;
  mInfo.fps = mInfo.durationS > 0 ? (mInfo.frames - 1) / mInfo.durationS : 0.0;
  if (mInfo.durationS < o.warmupS + ShutterPlan::kEndMarginS) {
    char text[160];
    snprintf(text, sizeof(text), "%s lasts %.2f s, shorter than the warm-up of %.2f s and the end margin",
             o.clip.c_str(), mInfo.durationS, o.warmupS);
    return fail(error, text);
  }
  mInfo.clipSha256 = ClipFaceAnalysis::sha256File(o.clip, nullptr);

  // Faces.
  mFaces.assign(mTimesUs.size(), {});
  if (o.faces == "none") {
    mInfo.faces = "none";
  } else if (o.faces == "dlib") {
    ClipFaceAnalysis::Options fo;
    fo.width = mInfo.width;
    fo.height = mInfo.height;
    fo.fit = mImpl->fit;
    fo.cacheDir = o.cacheDir;
    fo.progress = o.progress;
    bool cached = false;
    if (!ClipFaceAnalysis::analyse(o.clip, fo, mFaces, error, &cached)) return false;
    mInfo.faces = cached ? "dlib (cached)" : "dlib";
  } else {
    if (!FaceTrackFile::read(o.faces, mFaces, error)) return false;
    mInfo.faces = o.faces;
  }
  if (mFaces.size() < mTimesUs.size() && o.faces != "dlib" && o.faces != "none") {
    return fail(error, o.faces + " has face records for " + std::to_string(mFaces.size()) +
                           " frames, the replay has " + std::to_string(mTimesUs.size()));
  }
  mFaces.resize(mTimesUs.size());
  if (o.faces != "none") mImpl->naturalBlinks = ClipFaceAnalysis::findBlinks(mFaces);

  // Presses.
  ShutterPlan::Inputs in;
  in.frameTimesUs = mTimesUs;
  in.shutter = o.shutter;
  if (!DegradationSpec::parse(o.degrade, &in.degradations, error)) return false;
  for (const BlinkEvent& b : mImpl->naturalBlinks) {
    BlinkSpan span;
    span.firstFrame = b.firstFrame;
    span.lastFrame = b.lastFrame;
    span.peakFrame = b.peakFrame;
    in.naturalBlinks.push_back(span);
  }
  in.facePresent.resize(mFaces.size());
  for (size_t i = 0; i < mFaces.size(); ++i) in.facePresent[i] = !mFaces[i].empty();
  in.warmupS = o.warmupS;
  in.spacingS = o.spacingS;
  in.seed = o.seed;
  std::vector<PlannedPress> planned;
  if (!ShutterPlan::build(in, &planned, error)) return false;
  Degrader degrader(o.seed);
  for (const PlannedPress& p : planned) {
    Impl::Press press;
    press.plan = p;
    if (p.source == "degrade") {
      press.event = degrader.plan(p.kind, p.frame, mInfo.frames, mInfo.width);
      press.hasEvent = press.event.valid();
    }
    mImpl->presses.push_back(press);
  }
  mInfo.shutter = o.shutter;
  mInfo.degrade = o.degrade;
  mInfo.seed = o.seed;
  return true;
}

bool ReplayRunner::replay(std::string* error) {
  const ReplayOptions& o = mOptions;
  ClipDecoder decoder;
  if (!decoder.open(o.clip) || !decoder.setOutput(mInfo.width, mInfo.height, mImpl->fit)) {
    return fail(error, decoder.error());
  }
  decoder.overrideFps(o.fps);
  const int64_t intervalUs = mInfo.fps > 0 ? static_cast<int64_t>(1e6 / mInfo.fps) : 40000;
  CameraSimulator::Options so;
  so.width = mInfo.width;
  so.height = mInfo.height;
  so.zslBuffers = o.zslBuffers;
  so.frameIntervalS = intervalUs / 1e6;
  CameraSimulator cam(so);
  if (!cam.start(error)) return false;
  Degrader degrader(o.seed);

  // Which press each frame belongs to (the shutter) and which fault covers it.
  std::map<int, size_t> shutterAt;
  for (size_t i = 0; i < mImpl->presses.size(); ++i) shutterAt[mImpl->presses[i].plan.frame] = i;
  std::vector<bool> inNaturalBlink(mTimesUs.size(), false);
  for (const BlinkEvent& b : mImpl->naturalBlinks) {
    for (int f = std::max(0, b.firstFrame); f <= b.lastFrame && f < mInfo.frames; ++f) inNaturalBlink[f] = true;
  }

  const double speed = o.pace == "realtime" ? 1.0 : o.speed;
  char pacing[96];
  snprintf(pacing, sizeof(pacing), o.pace == "realtime" ? "real time" : "fast: %.3g times real time", speed);
  mInfo.pacing = pacing;
  const auto t0 = std::chrono::steady_clock::now();
  ProgressLine progress("replay", mInfo.frames, o.progress);
  mTruth.assign(mTimesUs.size(), FrameTruth());
  ClipFrame frame;
  while (decoder.next(frame)) {
    const int i = frame.index;
    if (i >= mInfo.frames) break;
    const int64_t ts = mTimesUs[i];
    // Pace on the clip's own time line.
    const auto due = t0 + std::chrono::microseconds(static_cast<int64_t>((ts - mTimesUs[0]) / speed));
    std::this_thread::sleep_until(due);

    FrameTruth& truth = mTruth[i];
    truth.frame = i;
    truth.timestampUs = ts;
    std::vector<FaceRecord> faces = mFaces[i];
    std::vector<GyroSample> gyro;
    bool shaken = false;
    for (const Impl::Press& p : mImpl->presses) {
      if (!p.hasEvent || !p.event.covers(i)) continue;
      degrader.applyImage(p.event, i, frame.image);
      degrader.applyFaces(p.event, i, faces);
      if (p.event.kind == kind::kShake) {
        gyro = degrader.gyro(p.event, i, ts, intervalUs);
        shaken = true;
      }
      p.event.markTruth(i, truth);
    }
    if (!shaken) gyro = degrader.gyroQuiet(ts, intervalUs);
    const FaceRecord* face = ClipFaceAnalysis::mainFace(faces);
    truth.hasFace = face != nullptr;
    truth.blinkDegree = face ? face->blinkDegree() : 0;
    truth.smile = face ? face->smile : 0;
    truth.eyesOpen = !face || face->blinkDegree() < kBlinkClosedDegree;
    truth.naturalBlink = inNaturalBlink[i] && truth.degradation.empty();
    truth.sharpness = SharpnessMeasure::of(frame.image);

    const uint32_t frameId = static_cast<uint32_t>(i + 1);
    cam.feedFrame(frame.image, frameId, ts, faces, gyro);
    auto it = shutterAt.find(i);
    if (it != shutterAt.end()) {
      Impl::Press& press = mImpl->presses[it->second];
      if (o.video) press.clipFd = openClip(it->second);
      press.jobId = cam.takePicture(frameId, ts, press.clipFd);
    }
    progress.update(i + 1);
  }
  progress.finish();
  if (!decoder.error().empty()) return fail(error, o.clip + ": " + decoder.error());
  cam.flushMetadata();
  cam.waitForJobs(mImpl->presses.empty() ? 0 : o.waitMs);
  cam.stop();
  mImpl->jobs = cam.jobs();
  mImpl->books = cam.books();
  // The engine never closes a clip's descriptor: the camera does, once the engine is gone. A
  // clip the engine did not save is not kept.
  for (size_t n = 0; n < mImpl->presses.size(); ++n) {
    Impl::Press& press = mImpl->presses[n];
    if (press.clipFd < 0) continue;
    close(press.clipFd);
    press.clipFd = -1;
    const CameraSimulator::Job* job = mImpl->jobFor(press.jobId);
    if (!job || !job->videoDone) unlink(clipPath(n).c_str());
  }
  return true;
}

std::string ReplayRunner::captureDir(size_t press) const {
  char name[32];
  snprintf(name, sizeof(name), "capture-%02d", static_cast<int>(press) + 1);
  return name;
}

std::string ReplayRunner::clipPath(size_t press) const {
  return mOptions.outDir + "/" + captureDir(press) + "/clip.mp4";
}

int ReplayRunner::openClip(size_t press) {
  std::error_code ec;
  std::filesystem::create_directories(mOptions.outDir + "/" + captureDir(press), ec);
  const int fd = open(clipPath(press).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) fprintf(stderr, "kovane-replay: cannot write %s: %s\n", clipPath(press).c_str(), strerror(errno));
  return fd;
}

}  // namespace kovane_replay

namespace kovane_replay {

void ReplayRunner::collect() {
  mPresses.clear();
  const CameraSimulator::Books& b = mImpl->books;
  mInfo.zslLent = b.lent;
  mInfo.zslReturned = b.returned;
  mInfo.zslDoubleReturns = b.doubleReturns + b.unknownReturns;
  mInfo.zslNotReturned = b.notReturned;
  mInfo.zslSkipped = b.skipped;
  mInfo.zslRefused = b.returnedAtOnce;
  mInfo.jobsFinished = 0;
  mInfo.lateFrames = 0;
  mInfo.engineDecides = false;

  for (size_t n = 0; n < mImpl->presses.size(); ++n) {
    const Impl::Press& p = mImpl->presses[n];
    PressResult r;
    r.index = static_cast<int>(n);
    r.jobId = p.jobId;
    r.kind = p.plan.kind;
    r.source = p.plan.source;
    r.shutterFrame = p.plan.frame;
    r.shutterTimeUs = mTimesUs[p.plan.frame];
    pressWindow(mTimesUs, r.shutterFrame, r.windowFirst, r.windowLast);

    const CameraSimulator::Job* job = mImpl->jobFor(p.jobId);
    std::map<uint32_t, EngineFrameScores> scores;
    r.finalFrame = r.shutterFrame;
    if (job) {
      r.statisticsReceived = job->statistics;
      r.engineDone = job->engineDone;
      if (job->engineDone) mInfo.jobsFinished++;
      bool late = false;
      readEngineScores(job->statisticsRecord, scores, &mInfo.engineVersion, &late);
      readEngineScores(job->bestShotRecord, scores);
      if (late) {
        mInfo.lateFrames++;
        mInfo.lateModeEntered = true;
      }
      if (job->bestShotDone) {
        r.engineDecided = true;
        mInfo.engineDecides = true;
        r.engineFrame = static_cast<int>(job->chosenFrameId) - 1;
        r.replace = job->replace;
        r.algBitField = job->algBitField;
        r.captureOffsetUs = job->captureOffsetUs;
        r.decisionMs = job->decisionMs;
        if (r.replace && r.engineFrame >= 0 && r.engineFrame < mInfo.frames) r.finalFrame = r.engineFrame;
      }
    }

    // The sharpest frame of the window, as a plain "pick the sharpest" camera would choose.
    r.baselineFrame = r.shutterFrame;
    for (int f = r.windowFirst; f <= r.windowLast; ++f) {
      if (mTruth[f].sharpness > mTruth[r.baselineFrame].sharpness) r.baselineFrame = f;
    }
    auto goodInWindow = [&](int f) {
      return f >= r.windowFirst && f <= r.windowLast && mTruth[f].good();
    };
    r.capturedGood = mTruth[r.shutterFrame].good();
    r.finalGood = goodInWindow(r.finalFrame);
    r.baselineGood = goodInWindow(r.baselineFrame);

    const int first = std::max(0, r.shutterFrame - kTimelineBefore);
    const int last = std::min(mInfo.frames - 1, r.shutterFrame + kTimelineAfter);
    for (int f = first; f <= last; ++f) {
      r.truth.push_back(mTruth[f]);
      auto it = scores.find(static_cast<uint32_t>(f + 1));
      if (it != scores.end()) r.engineScores.push_back(it->second);
    }
    mPresses.push_back(std::move(r));
  }
}

bool ReplayRunner::writeOutputs(std::string* error) {
  const std::string& out = mOptions.outDir;
  std::error_code ec;
  std::filesystem::create_directories(out, ec);
  if (ec) return fail(error, "cannot make the output folder " + out + ": " + ec.message());
  for (size_t n = 0; n < mPresses.size(); ++n) {
    PressResult& r = mPresses[n];
    const Impl::Press& p = mImpl->presses[n];
    char name[32];
    snprintf(name, sizeof(name), "capture-%02d", r.index + 1);
    const std::string dir = out + "/" + name;
    std::filesystem::create_directory(dir, ec);
    if (ec) return fail(error, "cannot make " + dir + ": " + ec.message());
    const CameraSimulator::Job* job = mImpl->jobFor(p.jobId);
    if (!job) continue;
    std::string jpegError;
    if (!job->captured.empty() &&
        JpegWriter::write(job->captured, dir + "/captured.jpg", mOptions.jpegQuality, &jpegError)) {
      r.capturedJpeg = std::string(name) + "/captured.jpg";
    }
    // The camera ends with the engine's frame when it was told to replace the picture.
    const Nv21Image& final = r.finalFrame != r.shutterFrame && !job->chosen.empty() ? job->chosen : job->captured;
    if (!final.empty() && JpegWriter::write(final, dir + "/final.jpg", mOptions.jpegQuality, &jpegError)) {
      r.finalJpeg = std::string(name) + "/final.jpg";
    }
    nlohmann::json record = {{"statistics", recordJson(job->statisticsRecord)},
                             {"best_shot", recordJson(job->bestShotRecord)}};
    std::ofstream f(dir + "/record.json");
    f << record.dump(2) << "\n";
    if (!f) return fail(error, "cannot write " + dir + "/record.json");
    r.recordJson = std::string(name) + "/record.json";
    if (job->videoDone && std::filesystem::exists(clipPath(n))) {
      r.clipMp4 = std::string(name) + "/clip.mp4";
      // The still's place in the clip: the clip starts 1.5 s before the shutter (or with the
      // first frame of the replay), unless a camera pan or a stalled preview moved its start.
      if (!r.finalJpeg.empty() && r.finalFrame >= 0 && r.finalFrame < static_cast<int>(mTimesUs.size())) {
        const int64_t shutterUs = mTimesUs[static_cast<size_t>(r.shutterFrame)];
        const int64_t startUs = std::max(mTimesUs.front(), shutterUs - android::DexVideoGeneration::kPreRollUs);
        const int64_t stillUs = mTimesUs[static_cast<size_t>(r.finalFrame)] - startUs;
        std::string mpError;
        if (MotionPhoto::write(dir + "/final.jpg", clipPath(n), stillUs, dir + "/motion.jpg", &mpError)) {
          r.motionJpg = std::string(name) + "/motion.jpg";
        } else {
          fprintf(stderr, "kovane-replay: %s/motion.jpg: %s\n", dir.c_str(), mpError.c_str());
        }
      }
    }
  }
  return ReportWriter::writeRun(out, mInfo, mPresses, error);
}

}  // namespace kovane_replay
