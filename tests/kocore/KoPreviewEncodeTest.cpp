// The preview encoder's rolling frame buffer, its completion plumbing and the clips it writes,
// on 640x360 planar frames of a real webcam clip.
#include <gtest/gtest.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>
#include <utils/Vector.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "ClipProbe.h"
#include "KoPreviewEncode.h"
#include "KocoreClipViews.h"
#include "StderrCapture.h"
#include "TempFile.h"
#include "TestData.h"
#include "TestWait.h"

namespace android {
namespace {

constexpr int kW = 640;
constexpr int kH = 360;
constexpr size_t kBytes = static_cast<size_t>(kW) * kH * 3 / 2;
constexpr int64_t kBaseUs = 1000000000;  // an arbitrary monotonic-clock stamp

using kocore_test::ClipReports;
using kovane_test::TempFile;

class KoPreviewEncodeTest : public ::testing::Test {
 protected:
  // The real webcam clip a at 640x360, 25 fps.
  static const kocore_test::PlanarClip& clip() {
    return kocore_test::planarClip("webcam_face_a_400x300_25fps.mp4", kW, kH, 100);
  }
  void SetUp() override { ASSERT_EQ(clip().frames.size(), 100u); }
  // Frame i of a sequence: clip frame i % 100 with i stamped into its first luma bytes, so that
  // every frame of a sequence is distinguishable.
  std::vector<uint8_t>& frame(int i) {
    mFrame = clip().frames[static_cast<size_t>(i) % 100];
    memcpy(mFrame.data(), &i, sizeof(i));
    return mFrame;
  }
  void add(KoPreviewEncode& enc, int i, int64_t ts) { enc.addFrame(frame(i).data(), kW, kH, ts); }
  // Frames from..to at the clip's own times.
  static int64_t ts(int i) { return kBaseUs + clip().ptsUs[static_cast<size_t>(i)]; }
  void feed(KoPreviewEncode& enc, int from, int to) {
    for (int i = from; i <= to; ++i) add(enc, i, ts(i));
  }
  // Reads back the frame stamped exactly ts and compares it with frame(i).
  void expectFrame(const KoPreviewEncode& enc, int i, int64_t ts) {
    std::vector<uint8_t> out(kBytes);
    int w = 0, h = 0;
    int64_t got = 0;
    ASSERT_EQ(enc.copyFrame(ts, out.data(), out.size(), w, h, got), OK);
    EXPECT_EQ(got, ts);
    EXPECT_EQ(w, kW);
    EXPECT_EQ(h, kH);
    EXPECT_TRUE(out == frame(i)) << "frame " << i;
  }
  std::vector<uint8_t> mFrame;
};

TEST_F(KoPreviewEncodeTest, KeepsArrivalOrderAndCopiesByStamp) {
  KoPreviewEncode enc(true, true);
  Vector<int64_t> times;
  EXPECT_FALSE(enc.getFrameTimes(times));
  EXPECT_EQ(enc.oldestTimestampUs(), -1);
  // The caller's buffer is overwritten after every add: the kept copies must not change.
  std::vector<uint8_t> src;
  for (int i = 0; i < 5; ++i) {
    src = frame(i);
    enc.addFrame(src.data(), kW, kH, kBaseUs + i * 100000);
    std::fill(src.begin(), src.end(), 0);
  }
  add(enc, 5, kBaseUs + 400000);  // repeated stamp: kept after the first
  {
    kovane_test::StderrCapture quiet;
    add(enc, 6, kBaseUs + 350000);  // goes back a little: dropped
    quiet.finish();
  }
  ASSERT_TRUE(enc.getFrameTimes(times));
  ASSERT_EQ(times.size(), 6u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(times[i], kBaseUs + i * 100000);
  EXPECT_EQ(times[5], kBaseUs + 400000);
  for (int i = 0; i < 5; ++i) expectFrame(enc, i, kBaseUs + i * 100000);  // 4: the first of two
  EXPECT_EQ(enc.memoryBytes(), 6 * kBytes);

  std::vector<uint8_t> out(kBytes);
  int w = 0, h = 0;
  int64_t ts = 0;
  // The oldest frame at or after a stamp between two frames; none after the newest.
  ASSERT_EQ(enc.copyFrame(kBaseUs + 150000, out.data(), out.size(), w, h, ts), OK);
  EXPECT_EQ(ts, kBaseUs + 200000);
  EXPECT_EQ(enc.copyFrame(kBaseUs + 400001, out.data(), out.size(), w, h, ts), NAME_NOT_FOUND);
  // Too small or null: the size and stamp are reported, nothing is copied.
  w = h = 0;
  std::vector<uint8_t> small(kBytes - 1, 0xAB);
  EXPECT_EQ(enc.copyFrame(0, small.data(), small.size(), w, h, ts), BAD_VALUE);
  EXPECT_EQ(w, kW);
  EXPECT_EQ(ts, kBaseUs);
  EXPECT_TRUE(std::all_of(small.begin(), small.end(), [](uint8_t b) { return b == 0xAB; }));
  EXPECT_EQ(enc.copyFrame(0, nullptr, kBytes, w, h, ts), BAD_VALUE);

  // Far back: the clock restarted; the buffer starts anew with this frame.
  {
    kovane_test::StderrCapture quiet;
    add(enc, 7, 5000);
    quiet.finish();
  }
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
    expectFrame(enc, first, kBaseUs + first * periodUs);
    expectFrame(enc, 399, kBaseUs + 399 * periodUs);

    // Larger frames keep the memory bound; their size is reported back.
    std::vector<uint8_t> tall(static_cast<size_t>(640) * 480 * 3 / 2, 128);
    memcpy(tall.data(), frame(0).data(), static_cast<size_t>(kW) * kH);
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

TEST_F(KoPreviewEncodeTest, RecordingFlushAndDisabledVideoKeepNothing) {
  KoPreviewEncode enc(true, true);
  for (int i = 0; i < 5; ++i) add(enc, i, kBaseUs + i * 33333);
  enc.startRecording();
  EXPECT_TRUE(enc.isRecording());
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  for (int i = 5; i < 10; ++i) add(enc, i, kBaseUs + i * 33333);
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  enc.stopRecording();
  for (int i = 10; i < 13; ++i) add(enc, i, kBaseUs + i * 33333);
  EXPECT_EQ(enc.frameCount(), 3u);

  enc.flush();
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  EXPECT_EQ(enc.oldestTimestampUs(), -1);
  Vector<int64_t> times;
  times.push_back(7);
  EXPECT_FALSE(enc.getFrameTimes(times));
  EXPECT_EQ(times.size(), 0u);
  add(enc, 20, kBaseUs);  // kept again afterwards, even with an earlier stamp
  expectFrame(enc, 20, kBaseUs);

  KoPreviewEncode off(false, true);
  for (int i = 0; i < 5; ++i) add(off, i, kBaseUs + i * 33333);
  EXPECT_EQ(off.frameCount(), 0u);
  EXPECT_EQ(off.memoryBytes(), 0u);
}

TEST_F(KoPreviewEncodeTest, BadInputIgnoredAndLogged) {
  KoPreviewEncode enc(true, true);
  kovane_test::StderrCapture capture;
  enc.addFrame(nullptr, kW, kH, kBaseUs);
  enc.addFrame(frame(0).data(), 0, kH, kBaseUs);
  enc.addFrame(frame(0).data(), kW, -2, kBaseUs);
  enc.addFrame(frame(0).data(), 639, kH, kBaseUs);
  enc.addFrame(frame(0).data(), kW, 359, kBaseUs);
  enc.addFrame(frame(0).data(), 1 << 20, 1 << 20, kBaseUs);
  const std::string log = capture.finish();
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  EXPECT_NE(log.find("KoPreviewEncode"), std::string::npos) << log;
  add(enc, 1, kBaseUs);  // a good frame still goes in afterwards
  EXPECT_EQ(enc.frameCount(), 1u);
}

TEST(KoPreviewEncodeComplete, ReachesBoundOwnerFromEncodingThreadAndIsSafeWithoutOne) {
  sp<ClipReports> owner = new ClipReports();
  auto enc = std::make_unique<KoPreviewEncode>(owner, ClipReports::cb, true, false);
  EXPECT_EQ(owner->getStrongCount(), 2);  // the encoder holds its owner
  std::thread::id encoder;
  std::thread t([&] {
    encoder = std::this_thread::get_id();
    enc->notifyEncodeComplete(7, true);
    enc->notifyEncodeComplete(8, false);
  });
  t.join();
  const auto calls = owner->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0], std::make_pair(7, true));
  EXPECT_EQ(calls[1], std::make_pair(8, false));
  EXPECT_EQ(owner->thread(), encoder);
  enc.reset();
  EXPECT_EQ(owner->getStrongCount(), 1);  // released with the encoder

  kovane_test::StderrCapture quiet;
  KoPreviewEncode plain(true, true);
  plain.notifyEncodeComplete(3, true);
  sp<ClipReports> none;
  KoPreviewEncode nullOwner(none, ClipReports::cb, true, true);
  nullOwner.notifyEncodeComplete(4, false);
  KoPreviewEncode nullCb(owner, static_cast<void (*)(sp<ClipReports>&, int, bool)>(nullptr), true,
                         true);
  nullCb.notifyEncodeComplete(5, true);
  quiet.finish();
  EXPECT_EQ(owner->calls().size(), 2u);
}

TEST_F(KoPreviewEncodeTest, ConcurrentAddAndFlush) {
  KoPreviewEncode enc(true, true);
  std::atomic<bool> stop{false};
  std::atomic<int> added{0};
  // The foreground thread adds frames; the camera thread flushes and toggles recording; a
  // reader walks the buffer.
  std::thread fg([&] {
    std::vector<uint8_t> buf = frame(0);
    for (int i = 0; !stop.load(); ++i) {
      enc.addFrame(buf.data(), kW, kH, kBaseUs + static_cast<int64_t>(i) * 33333);
      added.fetch_add(1);
    }
  });
  std::thread reader([&] {
    std::vector<uint8_t> out(kBytes);
    int w = 0, h = 0;
    int64_t ts = 0;
    Vector<int64_t> times;
    while (!stop.load()) {
      enc.getFrameTimes(times);
      enc.copyFrame(enc.oldestTimestampUs(), out.data(), out.size(), w, h, ts);
      (void)enc.memoryBytes();
    }
  });
  for (int k = 0; k < 50; ++k) {
    const int target = added.load() + 5;
    if (!kovane_test::waitUntil([&] { return added.load() >= target; })) {
      ADD_FAILURE() << "the foreground thread stalled";  // not ASSERT: the threads must be joined
      break;
    }
    if (k % 10 == 9) {
      enc.startRecording();
      enc.stopRecording();
    } else {
      enc.flush();
    }
  }
  stop.store(true);
  fg.join();
  reader.join();
  EXPECT_LE(enc.memoryBytes(), KoPreviewEncode::kMaxMemoryBytes);
  enc.flush();
  EXPECT_EQ(enc.frameCount(), 0u);
}

TEST_F(KoPreviewEncodeTest, ClipsDecodeToTheFramesFedWithTheirStampsAndGaps) {
  sp<ClipReports> owner = new ClipReports();
  KoPreviewEncode enc(owner, ClipReports::cb, true, true);
  TempFile file;
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  std::string piped;
  std::thread reader([&] {
    char buf[65536];
    ssize_t n;
    while ((n = read(pipeFds[0], buf, sizeof buf)) > 0) piped.append(buf, static_cast<size_t>(n));
  });

  // Clip 1 (file) from frame 10 to 80, opened once frame 60 is buffered; frames 40-44 never
  // reach the encoder (shed by a late engine). Clip 2 (pipe) from 30 to 70, open at the same time.
  feed(enc, 0, 39);
  feed(enc, 45, 60);
  ASSERT_EQ(enc.startClip(1, file.fd, ts(10)), OK);
  ASSERT_EQ(enc.startClip(2, pipeFds[1], ts(30) - 1), OK);
  EXPECT_EQ(enc.startClip(1, file.fd, ts(10)), INVALID_OPERATION);  // one clip per job
  feed(enc, 61, 72);
  ASSERT_EQ(enc.endClip(2, ts(70)), OK);
  feed(enc, 73, 85);
  int64_t first = 0, newest = 0;
  ASSERT_TRUE(enc.clipSpan(1, first, newest));
  EXPECT_EQ(first, ts(10));
  EXPECT_EQ(newest, ts(85));
  ASSERT_EQ(enc.endClip(1, ts(80)), OK);
  ASSERT_TRUE(owner->reported(2));
  close(pipeFds[1]);
  reader.join();
  close(pipeFds[0]);
  EXPECT_EQ(enc.openClips(), 0u);
  EXPECT_FALSE(enc.clipSpan(1, first, newest));
  for (const auto& call : owner->calls()) EXPECT_TRUE(call.second) << "job " << call.first;

  {
    SCOPED_TRACE("file clip");
    const kovane_test::ProbedClip clip = kovane_test::probeClip(file.path);
    ASSERT_TRUE(clip.ok) << clip.error;  // the container itself: KoClipWriterTest
    ASSERT_EQ(clip.width, kW);
    ASSERT_EQ(clip.height, kH);
    std::vector<int> fed;
    for (int i = 10; i <= 80; ++i) {
      if (i < 40 || i > 44) fed.push_back(i);
    }
    ASSERT_EQ(clip.ptsUs.size(), fed.size());
    double worst = 99.0;
    for (size_t k = 0; k < fed.size(); ++k) {
      EXPECT_NEAR(static_cast<double>(clip.ptsUs[k]), static_cast<double>(ts(fed[k]) - ts(10)), 1.0) << k;
      worst = std::min(worst, kovane_test::planePsnr(clip.frames[k].data(), frame(fed[k]).data(), kW, kH));
    }
    EXPECT_GE(worst, 35.0);
  }
  {
    SCOPED_TRACE("piped clip");
    TempFile copy;
    ASSERT_EQ(write(copy.fd, piped.data(), piped.size()), static_cast<ssize_t>(piped.size()));
    const kovane_test::ProbedClip clip = kovane_test::probeClip(copy.path);
    ASSERT_TRUE(clip.ok) << clip.error;
    ASSERT_EQ(clip.ptsUs.size(), 41u - 5u);
    EXPECT_EQ(clip.ptsUs.back(), ts(70) - ts(30));
  }
  // The descriptors stay the caller's.
  EXPECT_NE(fcntl(file.fd, F_GETFD), -1);
}

TEST_F(KoPreviewEncodeTest, FailuresAreReportedNotSavedOnceAndTheNextClipWorks) {
  sp<ClipReports> owner = new ClipReports();
  kovane_test::StderrCapture quiet;
  auto enc = std::make_unique<KoPreviewEncode>(owner, ClipReports::cb, true, true);
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

  // A full disk.
  const int full = open("/dev/full", O_WRONLY);
  ASSERT_GE(full, 0);
  ASSERT_EQ(enc->startClip(10, full, ts(0)), OK);
  enc->endClip(10, ts(30));
  expectReport(10, false);
  close(full);

  // A pipe whose reader went away: no SIGPIPE kills the process.
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  close(p[0]);
  ASSERT_EQ(enc->startClip(11, p[1], ts(0)), OK);
  enc->endClip(11, ts(30));
  expectReport(11, false);
  close(p[1]);

  // An encoder that cannot open; then a good clip with the default rate again.
  TempFile file;
  enc->setClipBitrate(-1);
  ASSERT_EQ(enc->startClip(12, file.fd, ts(0)), OK);
  enc->endClip(12, ts(30));
  expectReport(12, false);
  EXPECT_TRUE(file.bytes().empty());
  enc->setClipBitrate(0);
  TempFile good;
  ASSERT_EQ(enc->startClip(13, good.fd, ts(5)), OK);
  enc->endClip(13, ts(30));
  expectReport(13, true);
  // Recording dropped what was buffered before it: the clip has frames 21-30.
  EXPECT_EQ(kovane_test::probeClip(good.path).ptsUs.size(), 10u);

  // Cancelled while frames are being encoded; a clip that never got a frame.
  TempFile other;
  ASSERT_EQ(enc->startClip(14, other.fd, ts(0)), OK);
  feed(*enc, 31, 40);
  ASSERT_EQ(enc->cancelClip(14), OK);
  expectReport(14, false);
  ASSERT_EQ(enc->startClip(15, other.fd, ts(99)), OK);
  EXPECT_EQ(enc->endClip(15, ts(98)), BAD_VALUE);
  enc->endClip(15, ts(99));
  expectReport(15, false);

  // Deleted with a clip open and frames waiting: no report afterwards, the descriptor intact.
  ASSERT_EQ(enc->startClip(16, other.fd, ts(0)), OK);
  feed(*enc, 41, 60);
  enc.reset();
  EXPECT_EQ(owner->calls().size(), reports);
  EXPECT_NE(fcntl(other.fd, F_GETFD), -1);
  quiet.finish();
}

}  // namespace
}  // namespace android
