// The clip writer on real webcam frames: what it writes into a file or a pipe decodes back,
// with FFmpeg's own demuxer and decoder, to the frames and stamps it was fed; write failures
// end the clip with the errno and never kill the process.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "ClipProbe.h"
#include "KoClipWriter.h"
#include "KocoreClipViews.h"
#include "TempFile.h"

namespace android {
namespace {

constexpr int kW = 640;
constexpr int kH = 360;
constexpr size_t kLuma = static_cast<size_t>(kW) * kH;
constexpr int64_t kBaseUs = 987654321;  // camera clock at the first frame

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
  for (size_t i = 0; i < p.ptsUs.size(); ++i) c.stamps.push_back(kBaseUs + p.ptsUs[i] + (static_cast<int64_t>(i) * 7919) % 601);
  return c;
}

std::vector<size_t> allFrames(const Clip& c) {
  std::vector<size_t> idx(c.frames.size());
  for (size_t i = 0; i < idx.size(); ++i) idx[i] = i;
  return idx;
}

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

  int p[2];
  ASSERT_EQ(pipe(p), 0);
  std::vector<uint8_t> piped;
  std::thread reader([&] {
    uint8_t buf[4096];
    for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;) piped.insert(piped.end(), buf, buf + n);
  });
  const status_t err = writeClip(w, p[1], a, allFrames(a));
  close(p[1]);
  reader.join();
  close(p[0]);
  EXPECT_EQ(err, OK);
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

}  // namespace
}  // namespace android
