// The preview path to clips on real webcam frames at 640x360: the clip writer (read back with
// FFmpeg), the preview encoder's frame buffer and clips, and where a capture's clip starts and ends.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>
#include <utils/RefBase.h>
#include <utils/Vector.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ClipDecoder.h"
#include "ClipProbe.h"
#include "DexCameraMotion.h"
#include "DexVideoGeneration.h"
#include "KoClipWriter.h"
#include "KoPreviewEncode.h"
#include "KoSequenceData.h"
#include "StderrCapture.h"
#include "TempFile.h"
#include "TestData.h"
#include "TestWait.h"

namespace android {
namespace {

constexpr int kW = 640;
constexpr int kH = 360;
constexpr size_t kLuma = static_cast<size_t>(kW) * kH;
constexpr size_t kBytes = kLuma * 3 / 2;
constexpr int64_t kBaseUs = 1000000000;  // an arbitrary monotonic-clock stamp

using kovane_test::TempFile;

// The first 100 frames of webcam clip a (25 fps) as planar 4:2:0, as the encoder keeps them.
struct PlanarClip {
  std::vector<std::vector<uint8_t>> frames;
  std::vector<int64_t> ptsUs;
};
const PlanarClip& clipA() {
  static PlanarClip c;
  if (!c.frames.empty()) return c;
  const std::string path = kovane_test::testDataPath("webcam_face_a_400x300_25fps.mp4");
  kovane_replay::ClipDecoder decoder;
  if (path.empty()) return c;  // testDataPath() reported where it looked
  if (!decoder.open(path) || !decoder.setOutput(kW, kH, kovane_replay::ClipDecoder::FIT_CROP)) {
    ADD_FAILURE() << path << ": " << decoder.error();
    return c;
  }
  for (kovane_replay::ClipFrame f; c.frames.size() < 100 && decoder.next(f);) {
    std::vector<uint8_t> p(kBytes);
    std::copy_n(f.image.y(), kLuma, p.begin());
    for (size_t i = 0; i < kLuma / 4; ++i) {  // V,U pairs to a U plane and a V plane
      p[kLuma + i] = f.image.vu()[2 * i + 1];
      p[kLuma + kLuma / 4 + i] = f.image.vu()[2 * i];
    }
    c.frames.push_back(std::move(p));
    c.ptsUs.push_back(f.ptsUs);
  }
  return c;
}

// An owner shaped like the engine's foreground handler, recording the encoder's reports.
class ClipReports : public RefBase {
 public:
  static void cb(sp<ClipReports>& owner, int jobId, bool saved) {
    std::lock_guard<std::mutex> lock(owner->mLock);
    owner->mCalls.push_back({jobId, saved});
    owner->mThread = std::this_thread::get_id();
  }
  std::vector<std::pair<int, bool>> calls() {
    std::lock_guard<std::mutex> lock(mLock);
    return mCalls;
  }
  std::thread::id thread() {
    std::lock_guard<std::mutex> lock(mLock);
    return mThread;
  }
  // Waits for `n` reports in all.
  bool reported(size_t n, int timeoutMs = 30000) {
    return kovane_test::waitUntil([&] { return calls().size() >= n; }, timeoutMs);
  }

 private:
  std::mutex mLock;
  std::vector<std::pair<int, bool>> mCalls;
  std::thread::id mThread;
};

// (frame, stamp) of frames 0..74 of clip a with 30..39 dropped (a 440 ms frame), stamped with the
// clip's times plus up to 0.6 ms of jitter so that any rounding shows.
using Fed = std::vector<std::pair<size_t, int64_t>>;
Fed fedFrames() {
  Fed f;
  for (size_t i = 0; i < 75 && i < clipA().ptsUs.size(); ++i) {
    if (i < 30 || i >= 40) f.emplace_back(i, 987654321 + clipA().ptsUs[i] + static_cast<int64_t>(i * 7919 % 601));
  }
  return f;
}

// The first error of addFrame() or finish(), or OK.
status_t writeClip(KoClipWriter& w, int fd, const Fed& fed) {
  status_t err = w.open(fd, kW, kH);
  for (const auto& [frame, stamp] : fed) {
    if (err == OK) err = w.addFrame(clipA().frames[frame].data(), stamp);
  }
  return err == OK ? w.finish() : err;
}

TEST(KoClipWriterTest, WritesRealFramesThatDecodeBackWithTheirStampsIntoAFileOrAPipe) {
  ASSERT_EQ(clipA().frames.size(), 100u);
  const Fed fed = fedFrames();
  KoClipWriter w;
  TempFile file;
  ASSERT_EQ(writeClip(w, file.fd, fed), OK);
  const std::vector<uint8_t> bytes = file.bytes();
  EXPECT_EQ(w.bytesWritten(), bytes.size());
  EXPECT_LT(bytes.size(), 2u * 1024 * 1024);

  const kovane_test::ProbedClip d = kovane_test::probeClip(file.path);
  ASSERT_TRUE(d.ok) << d.error;
  EXPECT_EQ(d.videoStreams, 1);
  EXPECT_EQ(d.codec, "h264");
  ASSERT_EQ(d.width, kW);
  ASSERT_EQ(d.height, kH);
  EXPECT_TRUE(d.profile == 77 || (d.profile & 0xff) == 66) << "profile " << d.profile;  // main, baseline
  EXPECT_FALSE(d.anyB);
  ASSERT_EQ(d.ptsUs.size(), fed.size());
  ASSERT_EQ(d.frames.size(), fed.size());
  int64_t minSpacing = INT64_MAX, maxSpacing = 0;
  double minY = 99, minC = 99;
  for (size_t i = 0; i < fed.size(); ++i) {
    EXPECT_NEAR(d.ptsUs[i], fed[i].second - fed[0].second, 1) << "frame " << i;
    if (i > 0) {
      minSpacing = std::min(minSpacing, fed[i].second - fed[i - 1].second);
      maxSpacing = std::max(maxSpacing, fed[i].second - fed[i - 1].second);
    }
    const uint8_t* in = clipA().frames[fed[i].first].data();
    minY = std::min(minY, kovane_test::planePsnr(in, d.frames[i].data(), kW, kH));
    minC = std::min(minC, kovane_test::planePsnr(in + kLuma, d.frames[i].data() + kLuma, kW, kH / 2));
  }
  EXPECT_GE(minY, 35.0);
  EXPECT_GE(minC, 35.0);  // catches swapped or shifted chroma planes
  // The last frame lasts one frame period; a keyframe at least every second, give or take how
  // much a frame came later than expected.
  EXPECT_NEAR(d.trackDurationUs - d.ptsUs.back(), minSpacing, 1);
  ASSERT_FALSE(d.keyUs.empty());
  EXPECT_EQ(d.keyUs[0], 0);
  for (size_t k = 1; k <= d.keyUs.size(); ++k) {
    const int64_t next = k < d.keyUs.size() ? d.keyUs[k] : d.ptsUs.back();
    EXPECT_LE(next - d.keyUs[k - 1], KoClipWriter::kKeyframeIntervalUs + maxSpacing - minSpacing);
  }

  // The same clip into a pipe by the same writer: the same bytes (one encoder thread).
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  std::vector<uint8_t> piped;
  std::thread reader([&] {
    uint8_t buf[65536];
    for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;) piped.insert(piped.end(), buf, buf + n);
  });
  EXPECT_EQ(writeClip(w, p[1], fed), OK);
  close(p[1]);
  reader.join();
  close(p[0]);
  EXPECT_EQ(w.bytesWritten(), piped.size());
  EXPECT_TRUE(piped == bytes);
}

TEST(KoClipWriterTest, RejectsBadArgumentsAndCallsOutOfOrderAndEndsTheClipWithoutSigpipeWhenTheReaderGoes) {
  ASSERT_EQ(clipA().frames.size(), 100u);
  const uint8_t* f = clipA().frames[0].data();
  TempFile file;
  KoClipWriter w;
  EXPECT_EQ(w.addFrame(f, 0), INVALID_OPERATION);
  EXPECT_EQ(w.finish(), INVALID_OPERATION);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  EXPECT_EQ(w.open(p[0], kW, kH), BAD_VALUE);  // read end
  close(p[0]);
  const int rate = KoClipWriter::kDefaultBitrate;
  for (const auto& [fd, width, height, bitrate] : {std::tuple{-1, kW, kH, rate}, {file.fd, kW + 1, kH, rate},
                                                 {file.fd, kW, kH - 1, rate}, {file.fd, 0, kH, rate},
                                                 {file.fd, kW, kH, 0}}) {
    EXPECT_EQ(w.open(fd, width, height, bitrate), BAD_VALUE) << fd << " " << width << "x" << height << " " << bitrate;
  }
  EXPECT_EQ(w.bytesWritten(), 0u);

  // Rejected frames leave the clip as it was.
  ASSERT_EQ(w.open(file.fd, kW, kH), OK);
  EXPECT_EQ(w.open(file.fd, kW, kH), INVALID_OPERATION);
  EXPECT_EQ(w.addFrame(nullptr, 1000), BAD_VALUE);
  EXPECT_EQ(w.addFrame(f, 1000), OK);
  EXPECT_EQ(w.addFrame(f, 1000), BAD_VALUE);
  EXPECT_EQ(w.addFrame(f, 999), BAD_VALUE);
  EXPECT_EQ(w.addFrame(clipA().frames[1].data(), 34333), OK);
  EXPECT_EQ(w.finish(), OK);
  EXPECT_EQ(w.addFrame(f, 100000), INVALID_OPERATION);
  EXPECT_EQ(w.finish(), INVALID_OPERATION);
  const kovane_test::ProbedClip d = kovane_test::probeClip(file.path);
  EXPECT_EQ(d.ptsUs, (std::vector<int64_t>{0, 33333}));
  EXPECT_EQ(d.trackDurationUs, 66666);

  // The pipe's reader went away: whichever call first finds it reports EPIPE, later calls repeat
  // it and do nothing; the process lives on and the thread's signal mask is as it was.
  EXPECT_EQ(writeClip(w, p[1], fedFrames()), -EPIPE);
  EXPECT_EQ(w.addFrame(f, INT64_MAX), -EPIPE);
  EXPECT_EQ(w.finish(), -EPIPE);
  close(p[1]);
  sigset_t mask, pending;
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
  EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
  ASSERT_EQ(sigpending(&pending), 0);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
  EXPECT_EQ(w.open(p[1], kW, kH), BAD_VALUE) << "a closed descriptor";
}

class KoPreviewEncodeTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(clipA().frames.size(), 100u); }
  // Frame i of a sequence: clip frame i % 100 with i stamped into its first luma bytes, so that
  // every frame of a sequence is distinguishable.
  std::vector<uint8_t>& frame(int i) {
    mFrame = clipA().frames[static_cast<size_t>(i) % 100];
    memcpy(mFrame.data(), &i, sizeof(i));
    return mFrame;
  }
  void add(KoPreviewEncode& enc, int i, int64_t ts) { enc.addFrame(frame(i).data(), kW, kH, ts); }
  // Frames from..to at the clip's own times.
  static int64_t ts(int i) { return kBaseUs + clipA().ptsUs[static_cast<size_t>(i)]; }
  void feed(KoPreviewEncode& enc, int from, int to) {
    for (int i = from; i <= to; ++i) add(enc, i, ts(i));
  }
  // Reads back the frame stamped exactly ts and compares it with frame(i).
  void expectFrame(const KoPreviewEncode& enc, int i, int64_t ts) {
    std::vector<uint8_t> out(kBytes);
    int w = 0, h = 0;
    int64_t got = 0;
    ASSERT_EQ(enc.copyFrame(ts, out.data(), out.size(), w, h, got), OK);
    EXPECT_TRUE(got == ts && w == kW && h == kH && out == frame(i)) << i << ": " << got << " " << w << "x" << h;
  }
  std::vector<uint8_t> mFrame;
};

TEST_F(KoPreviewEncodeTest, KeepsArrivalOrderAndCopiesByStamp) {
  KoPreviewEncode enc(true, true);
  Vector<int64_t> times;
  EXPECT_FALSE(enc.getFrameTimes(times));
  // The caller's buffer is overwritten after every add: the kept copies must not change.
  std::vector<uint8_t> src;
  for (int i = 0; i < 5; ++i) {
    src = frame(i);
    enc.addFrame(src.data(), kW, kH, kBaseUs + i * 100000);
    std::fill(src.begin(), src.end(), 0);
  }
  add(enc, 5, kBaseUs + 400000);  // repeated stamp: kept after the first
  kovane_test::StderrCapture quiet;
  add(enc, 6, kBaseUs + 350000);  // goes back a little: dropped
  ASSERT_TRUE(enc.getFrameTimes(times));
  ASSERT_EQ(times.size(), 6u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(times[i], kBaseUs + i * 100000);
  EXPECT_EQ(times[5], kBaseUs + 400000);
  for (int i = 0; i < 5; ++i) expectFrame(enc, i, kBaseUs + i * 100000);  // 4: the first of two
  EXPECT_EQ(enc.memoryBytes(), 6 * kBytes);

  // The oldest frame at or after a stamp between two frames; none after the newest.
  std::vector<uint8_t> out(kBytes);
  int w = 0, h = 0;
  int64_t ts = 0;
  ASSERT_EQ(enc.copyFrame(kBaseUs + 150000, out.data(), out.size(), w, h, ts), OK);
  EXPECT_EQ(ts, kBaseUs + 200000);
  EXPECT_EQ(enc.copyFrame(kBaseUs + 400001, out.data(), out.size(), w, h, ts), NAME_NOT_FOUND);
  EXPECT_EQ(enc.newestTimestampUs(), kBaseUs + 400000);

  // Far back: the clock restarted; the buffer starts anew with this frame.
  add(enc, 7, 5000);
  quiet.finish();
  EXPECT_EQ(enc.frameCount(), 1u);
  expectFrame(enc, 7, 5000);
}

TEST_F(KoPreviewEncodeTest, BoundedByTimeSpanAndMemoryAndFlatOnceWarm) {
  const size_t fit = KoPreviewEncode::kMaxMemoryBytes / kBytes;  // 97 frames of 640x360
  ASSERT_LT(fit * 33333, static_cast<size_t>(KoPreviewEncode::kMaxSpanUs));
  // At 10 fps the span bounds the buffer (41 frames 4 s apart); at 30 fps the memory does.
  for (int64_t periodUs : {100000, 33333}) {
    SCOPED_TRACE(periodUs);
    const size_t expected = periodUs == 100000 ? 41 : fit;
    KoPreviewEncode enc(true, true);
    size_t warm = 0;
    for (int i = 0; i < 400; ++i) {
      add(enc, i, kBaseUs + i * periodUs);
      ASSERT_LE(enc.newestTimestampUs() - enc.oldestTimestampUs(), KoPreviewEncode::kMaxSpanUs);
      ASSERT_LE(enc.memoryBytes(), KoPreviewEncode::kMaxMemoryBytes);
      if (i == 200) warm = enc.memoryBytes();
      ASSERT_TRUE(i <= 200 || enc.memoryBytes() == warm) << "memory grew at frame " << i;
    }
    ASSERT_EQ(enc.frameCount(), expected);
    const int first = 400 - static_cast<int>(expected);
    EXPECT_EQ(enc.oldestTimestampUs(), kBaseUs + first * periodUs);
    expectFrame(enc, 399, kBaseUs + 399 * periodUs);

    // Larger frames keep the memory bound; their size is reported back.
    std::vector<uint8_t> tall(static_cast<size_t>(640) * 480 * 3 / 2, 128);
    memcpy(tall.data(), frame(0).data(), kLuma);
    for (int i = 400; i < 500; ++i) {
      enc.addFrame(tall.data(), 640, 480, kBaseUs + i * periodUs);
      ASSERT_LE(enc.memoryBytes(), KoPreviewEncode::kMaxMemoryBytes);
    }
    std::vector<uint8_t> out(tall.size());
    int w = 0, h = 0;
    int64_t ts = 0;
    ASSERT_EQ(enc.copyFrame(kBaseUs + 499 * periodUs, out.data(), out.size(), w, h, ts), OK);
    EXPECT_EQ(h, 480);
    EXPECT_TRUE(out == tall);
  }
  // A gap longer than the span leaves only the new frame.
  KoPreviewEncode enc(true, true);
  add(enc, 0, kBaseUs);
  add(enc, 1, kBaseUs + KoPreviewEncode::kMaxSpanUs + 1);
  EXPECT_EQ(enc.frameCount(), 1u);
}

TEST_F(KoPreviewEncodeTest, BadInputIgnoredAndLoggedAndReportsWithoutAnOwnerGoNowhere) {
  KoPreviewEncode enc(true, true);
  kovane_test::StderrCapture capture;
  enc.addFrame(nullptr, kW, kH, kBaseUs);
  for (const auto& [w, h] : {std::pair{0, kH}, {kW, -2}, {639, kH}, {kW, 359}, {1 << 20, 1 << 20}}) {
    enc.addFrame(frame(0).data(), w, h, kBaseUs);
  }
  // Without an owner, or with a null owner or callback, completion reports go nowhere.
  enc.notifyEncodeComplete(3, true);
  sp<ClipReports> none, owner = new ClipReports();
  KoPreviewEncode(none, ClipReports::cb, true, true).notifyEncodeComplete(4, false);
  KoPreviewEncode(owner, static_cast<void (*)(sp<ClipReports>&, int, bool)>(nullptr), true, true)
      .notifyEncodeComplete(5, true);
  EXPECT_TRUE(owner->calls().empty());
  const std::string log = capture.finish();
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  EXPECT_NE(log.find("KoPreviewEncode"), std::string::npos) << log;
  add(enc, 1, kBaseUs);  // a good frame still goes in afterwards
  EXPECT_EQ(enc.frameCount(), 1u);
}

TEST_F(KoPreviewEncodeTest, FailuresAreReportedNotSavedOnceAndTheNextClipWorks) {
  sp<ClipReports> owner = new ClipReports();
  kovane_test::StderrCapture quiet;
  auto enc = std::make_unique<KoPreviewEncode>(owner, ClipReports::cb, true, true);
  EXPECT_EQ(owner->getStrongCount(), 2);  // the encoder holds its owner
  feed(*enc, 0, 20);
  size_t reports = 0;
  auto expectReport = [&](int job, bool saved) {
    ASSERT_TRUE(owner->reported(++reports)) << "job " << job;
    EXPECT_EQ(owner->calls().back(), std::make_pair(job, saved));
  };

  // Opening: bad descriptor, no clips while recording or when video is off.
  EXPECT_EQ(enc->startClip(1, -1, ts(0)), BAD_VALUE);
  enc->startRecording();
  EXPECT_EQ(enc->startClip(1, 1, ts(0)), INVALID_OPERATION);
  enc->stopRecording();
  KoPreviewEncode off(owner, ClipReports::cb, false, true);
  EXPECT_EQ(off.startClip(1, 1, ts(0)), INVALID_OPERATION);
  EXPECT_EQ(enc->endClip(99, ts(5)), NAME_NOT_FOUND);
  EXPECT_EQ(enc->cancelClip(99), NAME_NOT_FOUND);
  feed(*enc, 21, 30);

  // An encoder that cannot open; then a good clip with the default rate again.
  TempFile file;
  enc->setClipBitrate(-1);
  ASSERT_EQ(enc->startClip(12, file.fd, ts(0)), OK);
  enc->endClip(12, ts(30));
  expectReport(12, false);
  EXPECT_NE(owner->thread(), std::this_thread::get_id()) << "reported from the encoding thread";
  EXPECT_TRUE(file.bytes().empty());
  enc->setClipBitrate(0);
  TempFile good;
  ASSERT_EQ(enc->startClip(13, good.fd, ts(5)), OK);
  EXPECT_EQ(enc->startClip(13, good.fd, ts(5)), INVALID_OPERATION) << "one open clip per job";
  int64_t firstUs = 0, newestUs = 0;
  EXPECT_FALSE(enc->clipSpan(99, firstUs, newestUs));
  EXPECT_EQ(firstUs, -1);
  enc->endClip(13, ts(30));
  expectReport(13, true);
  // Recording dropped what was buffered before it: the clip has frames 21-30.
  EXPECT_EQ(kovane_test::probeClip(good.path).ptsUs.size(), 10u);

  // A device that takes no bytes: the clip fails while frames are written and is not saved.
  const int fullFd = open("/dev/full", O_WRONLY);
  ASSERT_GE(fullFd, 0);
  feed(*enc, 31, 60);
  ASSERT_EQ(enc->startClip(14, fullFd, ts(31)), OK);
  enc->endClip(14, ts(60));
  expectReport(14, false);
  EXPECT_EQ(enc->openClips(), 0u) << "a reported clip is gone";
  close(fullFd);

  // Deleted with a clip open and frames waiting: no report afterwards, the descriptor intact.
  TempFile other;
  ASSERT_EQ(enc->startClip(16, other.fd, ts(0)), OK);
  EXPECT_EQ(enc->openClips(), 1u);
  feed(*enc, 61, 90);
  enc.reset();
  EXPECT_EQ(owner->calls().size(), reports);
  EXPECT_EQ(owner->getStrongCount(), 2) << "released by the deleted encoder, held by the one without video";
  EXPECT_NE(fcntl(other.fd, F_GETFD), -1);
  quiet.finish();
}

constexpr int64_t kFrameUs = 33333;
constexpr int64_t kT0 = 5000000;

// A 30 fps preview with a gyroscope that can be made to pan, and one capture whose clip is cut.
class VideoGenerationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(clipA().frames.size(), 100u);
    mReports = new ClipReports();
    mEnc.reset(new KoPreviewEncode(mReports, ClipReports::cb, true, true));
    ASSERT_GE(mFile.fd, 0);
    mJob.mJobId = 7;
    mJob.mVideoFd = mFile.fd;
    mJob.mFirstFrameTsUs = mJob.mLastFrameTsUs = -1;
  }
  void TearDown() override { mEnc.reset(); }
  static int64_t ts(int i) { return kT0 + i * kFrameUs; }
  // Frames from..to of the preview: the encoder gets the picture, the camera-motion analyser
  // the gyroscope (panning at `panRate` rad/s about one axis for frames inside [panFrom, panTo]).
  void run(int from, int to) {
    for (int i = from; i <= to; ++i) {
      mEnc->addFrame(const_cast<uint8_t*>(clipA().frames[static_cast<size_t>(i) % 30].data()), kW, kH, ts(i));
      KO_sensorData_t s{};
      const float rate = (i >= mPanFrom && i <= mPanTo) ? mPanRate : 0.005f * std::sin(static_cast<float>(i));
      s.gyro = {ts(i) * 1000, rate, 0.0f, 0.0f};
      s.enabled[1] = 1;
      mMotion.readSensorData(ts(i), static_cast<uint32_t>(i), s);
    }
  }
  // Asks for the end point after each of frames from..to, as the engine does; returns the
  // frame after which it was set or cancelled (-1 when neither).
  int endAfterEach(int from, int to, bool& set, bool& cancelled) {
    for (int i = from; i <= to; ++i) {
      run(i, i);
      mGen.KoSetVideoEndPoint(&mJob, mEnc.get(), &mMotion, set, cancelled);
      if (set || cancelled) return i;
    }
    return -1;
  }
  void shutterAt(int frame) {
    mJob.mCapturedTsUs = ts(frame);
    mJob.mCapturedFrameId = frame;
    mJob.mFirstFrameId = frame - 6;
    mJob.mLastFrameId = frame + 6;
    mJob.mFirstFrameTsUs = ts(frame - 6);
    mJob.mLastFrameTsUs = ts(frame + 6);
  }
  bool reported(size_t n = 1) { return mReports->reported(n, 20000); }

  sp<ClipReports> mReports;
  std::unique_ptr<KoPreviewEncode> mEnc;
  DexCameraMotion mMotion;
  DexVideoGeneration mGen;
  KoSequenceData mJob{};
  TempFile mFile;
  int mPanFrom = -1, mPanTo = -1;
  float mPanRate = 0.0f;
};

TEST_F(VideoGenerationTest, HardPansCutTheClipAndAClipTooShortIsCancelled) {
  {
    SCOPED_TRACE("pan before the shutter: the clip starts after it");
    mPanFrom = 60, mPanTo = 70, mPanRate = 0.8f;
    run(0, 106);
    shutterAt(94);
    mGen.KoSetVideoStartPoint(&mJob, mEnc.get(), &mMotion);
    int64_t first = 0, newest = 0;
    ASSERT_TRUE(mEnc->clipSpan(7, first, newest));
    EXPECT_GE(first, ts(70));
    EXPECT_LE(first, ts(74));
    // A slow pan (below the hard rate) after the shutter does not cut it: it ends once a frame
    // past 1.5 s after the shutter came.
    mPanFrom = 110, mPanTo = 120, mPanRate = 0.15f;
    bool set = false, cancelled = false;
    EXPECT_EQ(endAfterEach(107, 200, set, cancelled), 140);
    EXPECT_TRUE(set);
    EXPECT_EQ(mJob.mVideoStopFrameId, 94 + 45);
    ASSERT_TRUE(reported());
    EXPECT_TRUE(mReports->calls()[0].second);
  }
  {
    SCOPED_TRACE("pan soon after a shutter with little preview before it: cancelled");
    kovane_test::StderrCapture quiet;
    mJob.mJobId = 8;
    mPanFrom = 215, mPanTo = 240, mPanRate = 1.0f;
    mEnc->flush();  // the preview restarts: nothing older than frame 200 is buffered
    run(200, 210);
    shutterAt(208);
    mGen.KoSetVideoStartPoint(&mJob, mEnc.get(), &mMotion);
    EXPECT_FALSE(mJob.mVideoCancelled);
    bool set = false, cancelled = false;
    EXPECT_GE(endAfterEach(211, 240, set, cancelled), 215);
    EXPECT_FALSE(set);
    EXPECT_TRUE(cancelled);
    ASSERT_TRUE(reported(2));
    EXPECT_EQ(mReports->calls()[1], std::make_pair(8, false));
  }
}

TEST_F(VideoGenerationTest, SteadyClipStartsOneAndAHalfSecondsBeforeTheShutterAndEndsWhereTheHostRecords) {
  run(0, 100);
  shutterAt(94);
  mGen.KoSetVideoStartPoint(&mJob, mEnc.get(), &mMotion);
  EXPECT_FALSE(mJob.mVideoCancelled);
  EXPECT_EQ(mJob.mVideoStartFrameId, 94 - 45) << "a steady camera: 1.5 s before the shutter";
  bool set = false, cancelled = false;
  EXPECT_EQ(endAfterEach(101, 120, set, cancelled), -1);
  mEnc->startRecording();  // the host records: no more preview frames for the clip
  mGen.KoSetVideoEndPoint(&mJob, mEnc.get(), &mMotion, set, cancelled);
  EXPECT_TRUE(set) << "ends at the last frame it got";
  ASSERT_TRUE(reported());
  EXPECT_TRUE(mReports->calls()[0].second);
  const kovane_test::ProbedClip clip = kovane_test::probeClip(mFile.path);
  ASSERT_EQ(clip.ptsUs.size(), 120u - 49u + 1u);
  EXPECT_EQ(clip.ptsUs[45], ts(94) - ts(49)) << "the shutter frame 1.5 s in";

  // A job whose clip cannot be opened is cancelled at once and reported as not saved.
  kovane_test::StderrCapture quiet;
  mEnc->stopRecording();
  mJob.mJobId = 9;
  mJob.mVideoFd = -1;
  mGen.KoSetVideoStartPoint(&mJob, mEnc.get(), &mMotion);
  EXPECT_TRUE(mJob.mVideoCancelled);
  ASSERT_TRUE(reported(2));
  EXPECT_EQ(mReports->calls()[1], std::make_pair(9, false));
}

}  // namespace
}  // namespace android
