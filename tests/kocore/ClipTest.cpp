// The preview path to clips, on real webcam frames at 640x360: the clip writer (what it writes
// into a file or a pipe decodes back, with FFmpeg's own demuxer and decoder, to the frames and
// stamps it was fed; write failures end the clip with the errno and never kill the process), the
// preview encoder (its rolling frame buffer, its completion plumbing, the clips it writes), and
// where a capture's clip starts and ends (around the shutter, cut at hard camera pans and where
// the preview stops feeding the clip, cancelled when too short).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>
#include <utils/RefBase.h>
#include <utils/Vector.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "ClipProbe.h"
#include "DexCameraMotion.h"
#include "DexVideoGeneration.h"
#include "KoClipWriter.h"
#include "KoPreviewEncode.h"
#include "KoSequenceData.h"
#include "KocoreClips.h"
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
constexpr int64_t kCameraBaseUs = 987654321;  // camera clock at the first frame of a clip
constexpr int64_t kBaseUs = 1000000000;       // an arbitrary monotonic-clock stamp

using kocore_test::ClipReports;
using kovane_test::TempFile;

// About 3 s (75 frames at 25 fps) of a webcam clip as 640x360 planar 4:2:0 frames with camera
// stamps: the clip's own times plus up to 0.6 ms of jitter, so that any rounding of the
// stamps on the way through shows.
struct Clip {
  const std::vector<std::vector<uint8_t>>& frames;
  std::vector<int64_t> stamps;
};

Clip webcamClip(const std::string& name) {
  const kocore_test::PlanarClip& p = kocore_test::planarClip(name, kW, kH, 75);
  Clip c{p.frames, {}};
  for (size_t i = 0; i < p.ptsUs.size(); ++i) c.stamps.push_back(kCameraBaseUs + p.ptsUs[i] + (static_cast<int64_t>(i) * 7919) % 601);
  return c;
}

std::vector<size_t> allFrames(const Clip& c) {
  std::vector<size_t> idx(c.frames.size());
  for (size_t i = 0; i < idx.size(); ++i) idx[i] = i;
  return idx;
}

// Collects what is written into a pipe until its write end fd() is closed by finish().
struct PipeCollector {
  int fds[2] = {-1, -1};
  std::vector<uint8_t> bytes;
  std::thread reader;
  PipeCollector() {
    EXPECT_EQ(pipe(fds), 0);
    reader = std::thread([this] {
      uint8_t buf[65536];
      for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) bytes.insert(bytes.end(), buf, buf + n);
    });
  }
  ~PipeCollector() { finish(); }
  int fd() const { return fds[1]; }
  const std::vector<uint8_t>& finish() {
    if (reader.joinable()) {
      close(fds[1]);
      reader.join();
      close(fds[0]);
    }
    return bytes;
  }
};

// Feeds the chosen frames; the first error of addFrame() or finish(), or OK.
status_t writeClip(KoClipWriter& w, int fd, const Clip& c, const std::vector<size_t>& idx) {
  status_t err = w.open(fd, kW, kH);
  for (size_t i = 0; err == OK && i < idx.size(); ++i) {
    err = w.addFrame(c.frames[idx[i]].data(), c.stamps[idx[i]]);
  }
  return err == OK ? w.finish() : err;
}

// Top-level MP4 boxes of a byte stream, "?" for a box that runs past the end.
std::vector<std::string> topLevelBoxes(const std::vector<uint8_t>& b) {
  std::vector<std::string> out;
  for (size_t pos = 0; pos < b.size();) {
    const uint64_t size = pos + 8 > b.size() ? 0
                                             : (uint64_t{b[pos]} << 24) | (b[pos + 1] << 16) |
                                                   (b[pos + 2] << 8) | b[pos + 3];
    if (size < 8 || pos + size > b.size()) {
      out.push_back("?");
      break;
    }
    out.emplace_back(reinterpret_cast<const char*>(&b[pos + 4]), 4);
    pos += size;
  }
  return out;
}

// Writes the chosen frames to a file with `w` and checks everything FFmpeg reads back from it;
// `bytes`: what was written.
void checkRoundTrip(KoClipWriter& w, const Clip& c, const std::vector<size_t>& idx, std::vector<uint8_t>& bytes) {
  TempFile file;
  ASSERT_EQ(writeClip(w, file.fd, c, idx), OK);
  bytes = file.bytes();
  EXPECT_EQ(w.bytesWritten(), bytes.size());
  EXPECT_LT(bytes.size(), 2u * 1024 * 1024);

  // Fragmented: an empty moov up front, then a moof and its mdat per keyframe.
  const std::vector<std::string> boxes = topLevelBoxes(bytes);
  ASSERT_GE(boxes.size(), 2u);
  EXPECT_EQ(boxes[0], "ftyp");
  EXPECT_EQ(boxes[1], "moov");
  EXPECT_EQ(std::count(boxes.begin(), boxes.end(), "?"), 0);
  EXPECT_GE(std::count(boxes.begin(), boxes.end(), "moof"), 3);
  EXPECT_EQ(std::count(boxes.begin(), boxes.end(), "moof"),
            std::count(boxes.begin(), boxes.end(), "mdat"));

  const kovane_test::ProbedClip d = kovane_test::probeClip(file.path);
  ASSERT_TRUE(d.ok) << d.error;
  EXPECT_EQ(d.videoStreams, 1);
  EXPECT_EQ(d.codec, "h264");
  ASSERT_EQ(d.width, kW);
  ASSERT_EQ(d.height, kH);
  EXPECT_TRUE(d.profile == 77 || (d.profile & 0xff) == 66)
      << "profile " << d.profile;  // main, baseline
  EXPECT_FALSE(d.anyB);
  ASSERT_EQ(d.ptsUs.size(), idx.size());
  ASSERT_EQ(d.frames.size(), idx.size());

  int64_t minSpacing = INT64_MAX, maxSpacing = 0;
  for (size_t i = 0; i < idx.size(); ++i) {
    EXPECT_NEAR(d.ptsUs[i], c.stamps[idx[i]] - c.stamps[idx[0]], 1) << "frame " << i;
    if (i > 0) {
      minSpacing = std::min(minSpacing, c.stamps[idx[i]] - c.stamps[idx[i - 1]]);
      maxSpacing = std::max(maxSpacing, c.stamps[idx[i]] - c.stamps[idx[i - 1]]);
    }
  }
  // The last frame lasts one frame period; the clip lasts as long as it was recorded.
  EXPECT_NEAR(d.trackDurationUs - d.ptsUs.back(), minSpacing, 1);
  const double durationS = d.trackDurationUs / 1e6;
  EXPECT_GE(durationS, 1.0);
  EXPECT_LE(durationS, 3.5);
  // A keyframe at least every second, give or take how much a frame came later than expected.
  ASSERT_FALSE(d.keyUs.empty());
  EXPECT_EQ(d.keyUs[0], 0);
  for (size_t k = 1; k <= d.keyUs.size(); ++k) {
    const int64_t next = k < d.keyUs.size() ? d.keyUs[k] : d.ptsUs.back();
    EXPECT_LE(next - d.keyUs[k - 1], KoClipWriter::kKeyframeIntervalUs + maxSpacing - minSpacing);
  }

  double minY = 99, minC = 99;
  for (size_t i = 0; i < idx.size(); ++i) {
    const uint8_t* fed = c.frames[idx[i]].data();
    minY = std::min(minY, kovane_test::planePsnr(fed, d.frames[i].data(), kW, kH));
    minC = std::min(minC, kovane_test::planePsnr(fed + kLuma, d.frames[i].data() + kLuma, kW, kH / 2));
  }
  EXPECT_GE(minY, 35.0);
  EXPECT_GE(minC, 35.0);  // catches swapped or shifted chroma planes
}

// Clips a and b, a with ten frames dropped in the middle (a 440 ms frame, the rest of the clip
// stays in time), and clip a again into a pipe by the same writer: the same bytes.
TEST(KoClipWriterTest, WritesRealFramesThatDecodeBackWithTheirStampsIntoAFileOrAPipe) {
  const Clip a = webcamClip("webcam_face_a_400x300_25fps.mp4");
  const Clip b = webcamClip("webcam_face_b_400x300_25fps.mp4");
  ASSERT_FALSE(a.frames.empty());
  ASSERT_FALSE(b.frames.empty());
  std::vector<size_t> gap = allFrames(a);
  gap.erase(gap.begin() + 30, gap.begin() + 40);
  KoClipWriter w;
  std::vector<uint8_t> bytes;
  for (const auto& [label, clip, idx] : {std::make_tuple("clip b", &b, allFrames(b)),
                                         std::make_tuple("clip a, 10 frames dropped", &a, gap),
                                         std::make_tuple("clip a", &a, allFrames(a))}) {
    SCOPED_TRACE(label);
    checkRoundTrip(w, *clip, idx, bytes);
  }

  PipeCollector pipeOut;
  EXPECT_EQ(writeClip(w, pipeOut.fd(), a, allFrames(a)), OK);
  const std::vector<uint8_t>& piped = pipeOut.finish();
  EXPECT_EQ(w.bytesWritten(), piped.size());
  EXPECT_TRUE(piped == bytes);  // one encoder thread: the same bytes
}

TEST(KoClipWriterTest, WriteFailuresEndTheClipWithoutSigpipe) {
  const Clip a = webcamClip("webcam_face_a_400x300_25fps.mp4");
  ASSERT_FALSE(a.frames.empty());
  const std::vector<size_t> idx = allFrames(a);
  KoClipWriter w;
  // Whichever call first finds the error reports it; later calls repeat it and do nothing.
  auto expectFailure = [&](int fd, status_t expected) {
    EXPECT_EQ(writeClip(w, fd, a, idx), expected);
    EXPECT_EQ(w.addFrame(a.frames[0].data(), INT64_MAX), expected);
    EXPECT_EQ(w.finish(), expected);
  };

  const int full = ::open("/dev/full", O_WRONLY);
  ASSERT_GE(full, 0);
  expectFailure(full, -ENOSPC);
  EXPECT_EQ(w.bytesWritten(), 0u);
  close(full);

  // The reader went away: EPIPE, the process lives on, and the thread's signal mask is as it was.
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  close(p[0]);
  expectFailure(p[1], -EPIPE);
  sigset_t mask, pending;
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &mask), 0);
  EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
  ASSERT_EQ(sigpending(&pending), 0);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);

  // A descriptor closed under a running clip; a closed one is refused up front.
  ASSERT_EQ(w.open(p[1], kW, kH), OK);
  close(p[1]);
  status_t err = OK;
  for (size_t i = 0; err == OK && i < idx.size(); ++i)
    err = w.addFrame(a.frames[i].data(), a.stamps[i]);
  EXPECT_EQ(err == OK ? w.finish() : err, -EBADF);
  EXPECT_EQ(w.open(p[1], kW, kH), BAD_VALUE);
}

TEST(KoClipWriterTest, RejectsBadArgumentsAndCallsOutOfOrder) {
  const Clip a = webcamClip("webcam_face_a_400x300_25fps.mp4");
  ASSERT_FALSE(a.frames.empty());
  const uint8_t* f = a.frames[0].data();
  TempFile file;
  KoClipWriter w;
  EXPECT_EQ(w.addFrame(f, 0), INVALID_OPERATION);
  EXPECT_EQ(w.finish(), INVALID_OPERATION);
  int p[2];
  ASSERT_EQ(pipe(p), 0);
  EXPECT_EQ(w.open(p[0], kW, kH), BAD_VALUE);  // read end
  close(p[0]);
  close(p[1]);
  EXPECT_EQ(w.open(-1, kW, kH), BAD_VALUE);
  EXPECT_EQ(w.open(file.fd, kW + 1, kH), BAD_VALUE);
  EXPECT_EQ(w.open(file.fd, kW, kH - 1), BAD_VALUE);
  EXPECT_EQ(w.open(file.fd, 0, kH), BAD_VALUE);
  EXPECT_EQ(w.open(file.fd, kW, kH, 0), BAD_VALUE);
  EXPECT_EQ(w.bytesWritten(), 0u);

  // Rejected frames leave the clip as it was.
  ASSERT_EQ(w.open(file.fd, kW, kH), OK);
  EXPECT_EQ(w.open(file.fd, kW, kH), INVALID_OPERATION);
  EXPECT_EQ(w.addFrame(nullptr, 1000), BAD_VALUE);
  EXPECT_EQ(w.addFrame(f, 1000), OK);
  EXPECT_EQ(w.addFrame(f, 1000), BAD_VALUE);
  EXPECT_EQ(w.addFrame(f, 999), BAD_VALUE);
  EXPECT_EQ(w.addFrame(a.frames[1].data(), 34333), OK);
  EXPECT_EQ(w.finish(), OK);
  EXPECT_EQ(w.addFrame(f, 100000), INVALID_OPERATION);
  EXPECT_EQ(w.finish(), INVALID_OPERATION);
  const kovane_test::ProbedClip d = kovane_test::probeClip(file.path);
  EXPECT_EQ(d.ptsUs, (std::vector<int64_t>{0, 33333}));
  EXPECT_EQ(d.trackDurationUs, 66666);
}

TEST(KoClipWriterTest, AbandonedClipWritesNothingMore) {
  const Clip a = webcamClip("webcam_face_a_400x300_25fps.mp4");
  ASSERT_FALSE(a.frames.empty());
  TempFile file;
  size_t written = 0;
  {
    KoClipWriter w;
    ASSERT_EQ(w.open(file.fd, kW, kH), OK);
    for (size_t i = 0; i < 40; ++i) ASSERT_EQ(w.addFrame(a.frames[i].data(), a.stamps[i]), OK);
    written = w.bytesWritten();
    EXPECT_GT(written, 0u);  // the fragment before the second keyframe is out
  }
  EXPECT_EQ(file.bytes().size(), written);
}

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
  for (const auto& [w, h] : {std::pair{0, kH}, {kW, -2}, {639, kH}, {kW, 359}, {1 << 20, 1 << 20}}) {
    enc.addFrame(frame(0).data(), w, h, kBaseUs);
  }
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
  PipeCollector pipeOut;

  // Clip 1 (file) from frame 10 to 80, opened once frame 60 is buffered; frames 40-44 never
  // reach the encoder (shed by a late engine). Clip 2 (pipe) from 30 to 70, open at the same time.
  feed(enc, 0, 39);
  feed(enc, 45, 60);
  ASSERT_EQ(enc.startClip(1, file.fd, ts(10)), OK);
  ASSERT_EQ(enc.startClip(2, pipeOut.fd(), ts(30) - 1), OK);
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
  const std::vector<uint8_t>& piped = pipeOut.finish();
  EXPECT_EQ(enc.openClips(), 0u);
  EXPECT_FALSE(enc.clipSpan(1, first, newest));
  for (const auto& call : owner->calls()) EXPECT_TRUE(call.second) << "job " << call.first;

  {
    SCOPED_TRACE("file clip");
    const kovane_test::ProbedClip clip = kovane_test::probeClip(file.path);
    ASSERT_TRUE(clip.ok) << clip.error;  // the container itself: the clip writer's tests
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

  // A pipe whose reader went away (the write errors themselves: the clip writer's tests).
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

constexpr int64_t kFrameUs = 33333;
constexpr int64_t kT0 = 5000000;

// A preview running at 30 fps with real webcam pictures, a gyroscope that can be made to pan,
// and one capture whose clip is being cut.
class VideoGenerationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mPictures = kocore_test::planarClip("webcam_face_b_400x300_25fps.mp4", kW, kH, 30).frames;
    ASSERT_EQ(mPictures.size(), 30u);
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
      mEnc->addFrame(mPictures[static_cast<size_t>(i) % mPictures.size()].data(), kW, kH, ts(i));
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

  std::vector<std::vector<uint8_t>> mPictures;
  sp<ClipReports> mReports;
  std::unique_ptr<KoPreviewEncode> mEnc;
  DexCameraMotion mMotion;
  DexVideoGeneration mGen;
  KoSequenceData mJob{};
  kovane_test::TempFile mFile;
  int mPanFrom = -1, mPanTo = -1;
  float mPanRate = 0.0f;
};

TEST_F(VideoGenerationTest, SteadyCameraGivesAClipFromOneAndAHalfSecondsBeforeToAfterTheShutter) {
  run(0, 100);
  shutterAt(94);
  run(101, 106);  // the capture's frames after the shutter, then the motion decision
  mGen.KoSetVideoStartPoint(&mJob, mEnc.get(), &mMotion);
  EXPECT_FALSE(mJob.mVideoCancelled);
  EXPECT_EQ(mJob.mVideoStartFrameId, 94 - 45);
  bool set = false, cancelled = false;
  EXPECT_EQ(endAfterEach(107, 200, set, cancelled), 140) << "known once a frame past 1.5 s after the shutter came";
  EXPECT_TRUE(set);
  EXPECT_FALSE(cancelled);
  EXPECT_EQ(mJob.mVideoStopFrameId, 94 + 45);
  ASSERT_TRUE(reported());
  EXPECT_EQ(mReports->calls()[0], std::make_pair(7, true));
  const kovane_test::ProbedClip clip = kovane_test::probeClip(mFile.path);
  ASSERT_TRUE(clip.ok) << clip.error;
  ASSERT_EQ(clip.ptsUs.size(), 91u);  // frames 49..139
  EXPECT_EQ(clip.ptsUs[45], ts(94) - ts(49)) << "the shutter frame is in the middle";
}

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
    // A slow pan (below the hard rate) after the shutter does not cut it.
    mPanFrom = 110, mPanTo = 120, mPanRate = 0.15f;
    bool set = false, cancelled = false;
    EXPECT_EQ(endAfterEach(107, 200, set, cancelled), 140);
    EXPECT_TRUE(set);
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

TEST_F(VideoGenerationTest, ClipEndsWhereThePreviewStopsFeedingItOrIsCancelledWhenItCannotOpen) {
  run(0, 100);
  shutterAt(94);
  mGen.KoSetVideoStartPoint(&mJob, mEnc.get(), &mMotion);
  bool set = false, cancelled = false;
  EXPECT_EQ(endAfterEach(101, 120, set, cancelled), -1);
  mEnc->startRecording();  // the host records: no more preview frames for the clip
  mGen.KoSetVideoEndPoint(&mJob, mEnc.get(), &mMotion, set, cancelled);
  EXPECT_TRUE(set) << "ends at the last frame it got";
  ASSERT_TRUE(reported());
  EXPECT_TRUE(mReports->calls()[0].second);
  EXPECT_EQ(kovane_test::probeClip(mFile.path).ptsUs.size(), 120u - 49u + 1u);

  // While recording no clip can open: cancelled at once, reported not saved.
  kovane_test::StderrCapture quiet;
  KoSequenceData other{};
  other.mJobId = 9;
  other.mVideoFd = mFile.fd;
  other.mCapturedTsUs = ts(120);
  mGen.KoSetVideoStartPoint(&other, mEnc.get(), &mMotion);
  EXPECT_TRUE(other.mVideoCancelled);
  ASSERT_TRUE(reported(2));
  EXPECT_EQ(mReports->calls()[1], std::make_pair(9, false));
  mEnc->stopRecording();

  // A preview that stalls without recording (frames no longer reach the encoder) ends the clip
  // after a while.
  KoSequenceData stalled{};
  stalled.mJobId = 10;
  stalled.mVideoFd = mFile.fd;
  run(121, 160);
  stalled.mCapturedTsUs = ts(155);
  mGen.KoSetVideoStartPoint(&stalled, mEnc.get(), &mMotion);
  set = cancelled = false;
  for (int n = 0; n < DexVideoGeneration::kStallFrames + 1 && !set; ++n) {
    mGen.KoSetVideoEndPoint(&stalled, mEnc.get(), &mMotion, set, cancelled);
  }
  EXPECT_TRUE(set);
}

}  // namespace
}  // namespace android
