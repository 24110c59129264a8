// The media module on the real test clips and pictures: the clip decoder, the JPEG writer, and
// motion photos read back the way a gallery would (the JPEG decoder sees the same picture, FFmpeg
// plays the clip from where the XMP directory places it).
#include <gtest/gtest.h>
#include <turbojpeg.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <tuple>

#include "../ReplayTestUtil.h"
#include "ClipDecoder.h"
#include "ClipProbe.h"
#include "JpegWriter.h"
#include "MotionPhoto.h"
#include "TempFile.h"
#include "TestData.h"

using kovane_replay::ClipDecoder;
using kovane_replay::ClipFrame;
using kovane_replay::JpegWriter;
using kovane_replay::MotionPhoto;
using kovane_replay_test::readBytes;
using kovane_replay_test::writeBytes;

namespace {

const char kClipA[] = "webcam_face_a_400x300_25fps.mp4";
const char kClipB[] = "webcam_face_b_400x300_25fps.mp4";

// A JPEG decoded to grey by libturbojpeg; false when it is not a readable JPEG.
bool decodeGrey(const std::vector<uint8_t>& jpeg, int& width, int& height, std::vector<uint8_t>& grey) {
  tjhandle handle = tjInitDecompress();
  const auto size = static_cast<unsigned long>(jpeg.size());
  int subsamp = 0, colorspace = 0;
  bool ok = tjDecompressHeader3(handle, jpeg.data(), size, &width, &height, &subsamp, &colorspace) == 0;
  if (ok) {
    grey.resize(static_cast<size_t>(width) * height);
    ok = tjDecompress2(handle, jpeg.data(), size, grey.data(), width, 0, height, TJPF_GRAY, 0) == 0;
  }
  tjDestroy(handle);
  return ok;
}

// Mean luma of a rectangle of a picture.
double meanRect(const kovane_replay::Nv21Image& img, int x0, int y0, int w, int h) {
  double s = 0;
  for (int y = y0; y < y0 + h; ++y)
    for (int x = x0; x < x0 + w; ++x) s += img.y()[static_cast<size_t>(y) * img.width + x];
  return s / (static_cast<double>(w) * h);
}

// Presentation times of every frame FFmpeg decodes from `offset` on (empty when it cannot).
std::vector<int64_t> framePts(const std::string& path, int64_t offset) {
  const kovane_test::ProbedClip clip = kovane_test::probeClip(path, offset);
  EXPECT_TRUE(clip.ok) << path << " @" << offset << ": " << clip.error;
  return clip.ptsUs;
}

// The encoder's JPEG of a real frame.
std::vector<uint8_t> cockatooJpeg(const std::string& path) {
  kovane_replay::Nv21Image image;
  image.width = 1280;
  image.height = 720;
  image.data = kovane_test::readNv21("cockatoo_f005_1280x720.nv21", 1280, 720);
  std::string error;
  EXPECT_TRUE(kovane_replay::JpegWriter::write(image, path, 90, &error)) << error;
  return readBytes(path);
}

}  // namespace

// The webcam clip reads at its own size with its real 25 fps time line, and at a larger
// preview size by cropping (same aspect: same content) or letterboxing (black bars).
TEST(ClipDecoder, ReadsTheClipWithItsTimesAtAnySize) {
  const std::string clip = kovane_test::testDataPath(kClipA);
  ClipDecoder d;
  ASSERT_TRUE(d.open(clip)) << d.error();
  EXPECT_TRUE(d.info().width == 400 && d.info().height == 300);
  EXPECT_NEAR(d.info().fps, 25.0, 0.01);
  ClipFrame f;
  for (int i = 0; i < 30; ++i) ASSERT_TRUE(d.next(f) && f.index == i && f.image.width == 400) << d.error();
  EXPECT_NEAR(static_cast<double>(f.ptsUs), 29 * 40000.0, 2000.0);

  // Crop to 16:9 is the middle band of the 640x480 frame; letterbox puts black bars left and
  // right of a 480x360 picture.
  auto firstFrame = [&](int width, int height, ClipDecoder::Fit fit) {
    EXPECT_TRUE(d.open(clip) && d.setOutput(width, height, fit)) << d.error();
    ClipFrame first;
    EXPECT_TRUE(d.next(first)) << d.error();
    return first.image;
  };
  const kovane_replay::Nv21Image full = firstFrame(640, 480, ClipDecoder::FIT_CROP);
  const kovane_replay::Nv21Image crop = firstFrame(640, 360, ClipDecoder::FIT_CROP);
  const kovane_replay::Nv21Image box = firstFrame(640, 360, ClipDecoder::FIT_LETTERBOX);
  ASSERT_TRUE(full.width == 640 && crop.width == 640 && box.width == 640);
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
  ASSERT_TRUE(d.next(f) && d.next(f));
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

  ASSERT_TRUE(d.open(kovane_test::testDataPath(kClipB)));
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
  int w = 0, h = 0;
  std::vector<uint8_t> grey;
  ASSERT_TRUE(decodeGrey(jpeg, w, h, grey));
  ASSERT_TRUE(w == 1280 && h == 720);
  double err = 0;
  for (size_t i = 0; i < grey.size(); ++i) err += std::abs(grey[i] - f.image.y()[i]);
  EXPECT_LT(err / grey.size(), 3.0);

  kovane_replay::Nv21Image empty;
  EXPECT_FALSE(JpegWriter::encode(empty, 90, jpeg, &error));
  EXPECT_FALSE(JpegWriter::write(f.image, "/nonexistent/dir/x.jpg", 90, &error));
  EXPECT_FALSE(decodeGrey({1, 2, 3}, w, h, grey));
}

TEST(MotionPhoto, EmbedsTheClipSoThatPictureAndClipBothStillRead) {
  kovane_replay_test::TempDir dir;
  const std::string jpegPath = dir.file("final.jpg"), outPath = dir.file("motion.jpg");
  const std::string clipPath = kovane_test::testDataPath(kClipA);
  const std::vector<uint8_t> jpeg = cockatooJpeg(jpegPath), mp4 = readBytes(clipPath);
  ASSERT_GT(jpeg.size(), 1000u);
  std::string error;
  ASSERT_TRUE(MotionPhoto::write(jpegPath, clipPath, 1200000, outPath, &error)) << error;
  const std::vector<uint8_t> file = readBytes(outPath);
  std::vector<uint8_t> inMemory;
  ASSERT_TRUE(MotionPhoto::compose(jpeg, mp4, 1200000, inMemory, &error)) << error;
  EXPECT_TRUE(inMemory == file);
  EXPECT_EQ(dir.names(), (std::vector<std::string>{"final.jpg", "motion.jpg"}));  // no temporary left

  // The directory read back matches the file: the clip is its last mp4.size() bytes, and the
  // picture ends with EOI right before it.
  MotionPhoto::Info info;
  ASSERT_TRUE(MotionPhoto::parse(outPath, &info, &error)) << error;
  const size_t offset = file.size() - mp4.size();
  EXPECT_EQ(std::make_tuple(info.motionPhoto, info.version, info.presentationTimestampUs, info.fileSize,
                            info.videoOffset, info.videoLength, info.primaryEnd),
            std::make_tuple(1, 1, int64_t{1200000}, static_cast<int64_t>(file.size()), static_cast<int64_t>(offset),
                            static_cast<int64_t>(mp4.size()), static_cast<int64_t>(offset)));
  ASSERT_EQ(info.items.size(), 2u);
  EXPECT_EQ(info.items[1].mime + " " + info.items[1].semantic, "video/mp4 MotionPhoto");
  ASSERT_GT(offset, jpeg.size());
  EXPECT_TRUE(file[offset - 2] == 0xFF && file[offset - 1] == 0xD9);
  EXPECT_TRUE(std::equal(mp4.begin(), mp4.end(), file.begin() + offset));

  // libjpeg reads the same picture from the whole file, trailing clip and all; FFmpeg plays
  // every frame of the embedded clip from its offset, on the original time line.
  int w = 0, h = 0, w0 = 0, h0 = 0;
  std::vector<uint8_t> grey, grey0;
  ASSERT_TRUE(decodeGrey(file, w, h, grey));
  ASSERT_TRUE(decodeGrey(jpeg, w0, h0, grey0));
  EXPECT_TRUE(w == 1280 && h == 720 && grey == grey0);
  const std::vector<int64_t> original = framePts(clipPath, 0);
  EXPECT_EQ(original.size(), 1337u);
  EXPECT_EQ(framePts(outPath, static_cast<int64_t>(offset)), original);

  // A motion photo given as the picture: its XMP is replaced and its old clip dropped.
  const std::string clipB = kovane_test::testDataPath(kClipB), againPath = dir.file("again.jpg");
  ASSERT_TRUE(MotionPhoto::write(outPath, clipB, -1, againPath, &error)) << error;
  MotionPhoto::Info infoB;
  ASSERT_TRUE(MotionPhoto::parse(againPath, &infoB, &error)) << error;
  EXPECT_EQ(infoB.videoLength, static_cast<int64_t>(readBytes(clipB).size()));
  const std::vector<uint8_t> again = readBytes(againPath);
  const std::string head(again.begin(), again.begin() + infoB.videoOffset);
  EXPECT_EQ(head.find("http://ns.adobe.com/xap/1.0/"), head.rfind("http://ns.adobe.com/xap/1.0/"));
  EXPECT_EQ(framePts(againPath, infoB.videoOffset).size(), 765u);
}

TEST(MotionPhoto, RejectsBadInputsWithAReasonAndWritesNothing) {
  kovane_replay_test::TempDir dir;
  const std::string jpegPath = dir.file("final.jpg"), outPath = dir.file("motion.jpg");
  const std::string clipPath = kovane_test::testDataPath(kClipA);
  const std::vector<uint8_t> jpeg = cockatooJpeg(jpegPath), mp4 = readBytes(clipPath);
  ASSERT_FALSE(mp4.empty());
  writeBytes(dir.file("no_eoi.jpg"), std::vector<uint8_t>(jpeg.begin(), jpeg.begin() + jpeg.size() / 2));
  writeBytes(dir.file("empty.mp4"), {});
  writeBytes(dir.file("cut.mp4"), std::vector<uint8_t>(mp4.begin(), mp4.begin() + 100000));
  writeBytes(outPath, {'o', 'l', 'd'});
  const std::vector<std::string> inputs = dir.names();

  struct Case {
    std::string jpeg, mp4;
    int64_t ptsUs;
    std::string out, mentions;
  };
  const std::vector<Case> cases = {
      {dir.file("absent.jpg"), clipPath, 0, outPath, "absent.jpg"},
      {clipPath, clipPath, 0, outPath, "SOI"},                  // an MP4 is no JPEG
      {dir.file("no_eoi.jpg"), clipPath, 0, outPath, "EOI"},
      {jpegPath, dir.file("empty.mp4"), 0, outPath, "empty"},
      {jpegPath, jpegPath, 0, outPath, "ftyp"},                 // a JPEG is no MP4
      {jpegPath, dir.file("cut.mp4"), 0, outPath, "truncated"},
      {jpegPath, clipPath, -2, outPath, "timestamp"},
      {jpegPath, clipPath, 0, dir.file("no/such/dir/motion.jpg"), "no/such/dir"},
  };
  for (const Case& c : cases) {
    std::string error;
    EXPECT_FALSE(MotionPhoto::write(c.jpeg, c.mp4, c.ptsUs, c.out, &error)) << c.mentions;
    EXPECT_NE(error.find(c.mentions), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }
  EXPECT_EQ(readBytes(outPath), (std::vector<uint8_t>{'o', 'l', 'd'}));
  EXPECT_EQ(dir.names(), inputs);

  // Reading back refuses a plain JPEG and files whose end no longer matches the directory.
  std::string error;
  MotionPhoto::Info info;
  EXPECT_FALSE(MotionPhoto::parse(jpegPath, &info, &error));
  EXPECT_NE(error.find("XMP"), std::string::npos) << error;
  std::vector<uint8_t> good;
  ASSERT_TRUE(MotionPhoto::compose(jpeg, mp4, 0, good, &error)) << error;
  ASSERT_TRUE(MotionPhoto::parse(good, &info, &error)) << error;
  std::vector<uint8_t> cut(good.begin(), good.end() - 1000), longer = good;
  longer.insert(longer.end(), 1000, 0);
  EXPECT_FALSE(MotionPhoto::parse(cut, &info, &error));
  EXPECT_FALSE(MotionPhoto::parse(longer, &info, &error));
  EXPECT_NE(error.find("MP4"), std::string::npos) << error;
}
