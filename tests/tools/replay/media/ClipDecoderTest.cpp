// The clip decoder and the JPEG writer on the real test clips.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

#include "ClipDecoder.h"
#include "JpegDecode.h"
#include "JpegWriter.h"
#include "TempFile.h"
#include "TestData.h"

using kovane_replay::ClipDecoder;
using kovane_replay::ClipFrame;
using kovane_replay::JpegWriter;

namespace {

double meanOf(const uint8_t* p, size_t n) {
  double s = 0;
  for (size_t i = 0; i < n; ++i) s += p[i];
  return n ? s / n : 0.0;
}

// Mean luma of a rectangle of a picture.
double meanRect(const kovane_replay::Nv21Image& img, int x0, int y0, int w, int h) {
  double s = 0;
  for (int y = y0; y < y0 + h; ++y)
    for (int x = x0; x < x0 + w; ++x) s += img.y()[static_cast<size_t>(y) * img.width + x];
  return s / (static_cast<double>(w) * h);
}

}  // namespace

// The webcam clip reads at its own size with its real 25 fps time line, and at a larger
// preview size by cropping (same aspect: same content) or letterboxing (black bars).
TEST(ClipDecoder, ReadsTheClipWithItsTimesAtAnySize) {
  const std::string clip = kovane_test::testDataPath("webcam_face_a_400x300_25fps.mp4");
  ASSERT_FALSE(clip.empty());
  ClipDecoder d;
  ASSERT_TRUE(d.open(clip)) << d.error();
  EXPECT_EQ(d.info().width, 400);
  EXPECT_EQ(d.info().height, 300);
  EXPECT_NEAR(d.info().fps, 25.0, 0.01);
  ClipFrame f;
  int64_t lastPts = -1;
  for (int i = 0; i < 30; ++i) {
    ASSERT_TRUE(d.next(f)) << d.error();
    EXPECT_EQ(f.index, i);
    EXPECT_EQ(f.image.width, 400);
    EXPECT_GT(f.ptsUs, lastPts);
    lastPts = f.ptsUs;
  }
  EXPECT_NEAR(static_cast<double>(lastPts), 29 * 40000.0, 2000.0);

  // Crop to 16:9 keeps the width (the picture is scaled to 640x480 and cut to 640x360);
  // letterbox puts black bars left and right of a 480x360 picture.
  auto firstFrame = [&](int width, int height, ClipDecoder::Fit fit) {
    EXPECT_TRUE(d.open(clip) && d.setOutput(width, height, fit)) << d.error();
    ClipFrame first;
    EXPECT_TRUE(d.next(first)) << d.error();
    return first.image;
  };
  const kovane_replay::Nv21Image full = firstFrame(640, 480, ClipDecoder::FIT_CROP);
  int frames = 1;
  while (d.next(f)) ++frames;
  EXPECT_TRUE(d.error().empty()) << d.error();
  EXPECT_EQ(frames, 1337);
  const kovane_replay::Nv21Image crop = firstFrame(640, 360, ClipDecoder::FIT_CROP);
  const kovane_replay::Nv21Image box = firstFrame(640, 360, ClipDecoder::FIT_LETTERBOX);
  ASSERT_TRUE(full.width == 640 && crop.width == 640 && box.width == 640);
  // The crop is the middle band of the 640x480 frame.
  double diff = 0;
  for (int y = 0; y < 360; ++y)
    for (int x = 0; x < 640; ++x) diff += std::abs(crop.y()[y * 640 + x] - full.y()[(y + 60) * 640 + x]);
  EXPECT_LT(diff / (640.0 * 360), 1.5);
  EXPECT_NEAR(meanRect(box, 0, 0, 70, 360), 16.0, 0.5);
  EXPECT_NEAR(meanRect(box, 570, 0, 70, 360), 16.0, 0.5);
  EXPECT_GT(std::abs(meanRect(box, 100, 0, 440, 360) - 16.0), 20.0);

  // --fps overrides the time line.
  d.open(clip);
  d.overrideFps(10.0);
  ASSERT_TRUE(d.next(f));
  ASSERT_TRUE(d.next(f));
  EXPECT_EQ(f.ptsUs, 100000);
}

TEST(ClipDecoder, RejectsMissingAndUndecodableFilesAndBadSizes) {
  ClipDecoder d;
  EXPECT_FALSE(d.open("/nonexistent/clip.mp4"));
  EXPECT_NE(d.error().find("/nonexistent/clip.mp4"), std::string::npos);
  const kovane_test::TempFile notAClip;
  ASSERT_EQ(write(notAClip.fd, "this is not a video\n", 20), 20);
  EXPECT_FALSE(d.open(notAClip.path));
  EXPECT_FALSE(d.error().empty());
  ClipFrame f;
  EXPECT_FALSE(d.next(f));

  ASSERT_TRUE(d.open(kovane_test::testDataPath("webcam_face_b_400x300_25fps.mp4")));
  EXPECT_FALSE(d.setOutput(641, 480, ClipDecoder::FIT_CROP));
  EXPECT_FALSE(d.setOutput(8, 8, ClipDecoder::FIT_CROP));
  EXPECT_TRUE(d.setOutput(640, 480, ClipDecoder::FIT_CROP));
}

// A picture written as JPEG reads back as the same picture, within coding loss.
TEST(JpegWriter, EncodesAFrameThatDecodesToTheSamePicture) {
  std::string error;
  ClipDecoder d;
  ASSERT_TRUE(d.open(kovane_test::testDataPath("cockatoo_1280x720_20fps.mp4")));
  ClipFrame f;
  ASSERT_TRUE(d.next(f));
  std::vector<uint8_t> jpeg;
  ASSERT_TRUE(JpegWriter::encode(f.image, 90, jpeg, &error)) << error;
  EXPECT_EQ(jpeg[0], 0xFF);
  EXPECT_EQ(jpeg[1], 0xD8);
  int w = 0, h = 0;
  std::vector<uint8_t> grey;
  ASSERT_TRUE(kovane_replay_test::decodeGrey(jpeg, w, h, grey));
  ASSERT_EQ(w, 1280);
  ASSERT_EQ(h, 720);
  double err = 0;
  for (size_t i = 0; i < grey.size(); ++i) err += std::abs(grey[i] - f.image.y()[i]);
  EXPECT_LT(err / grey.size(), 3.0);
  EXPECT_NEAR(meanOf(grey.data(), grey.size()), meanOf(f.image.y(), grey.size()), 1.0);

  kovane_replay::Nv21Image empty;
  EXPECT_FALSE(JpegWriter::encode(empty, 90, jpeg, &error));
  EXPECT_FALSE(JpegWriter::write(f.image, "/nonexistent/dir/x.jpg", 90, &error));
  EXPECT_FALSE(kovane_replay_test::decodeGrey({1, 2, 3}, w, h, grey));
}
