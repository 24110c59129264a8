// The face module on the real webcam clips (400x300, 25 fps, one person talking and blinking).
// Hand labels, by FFmpeg's decode order `n` (the order ClipDecoder hands frames out), looked at
// by eye enlarged around the eyes: "closed" = no iris visible in either eye, "open" = both
// irises clearly visible; half-way frames were left out. Clip b: blinks on 98..101 (and
// 426..429); open 90, 92. Detection costs about 15 ms a frame (fifty times that under the
// thread sanitizer), so the whole-clip analysis runs on the first 130 frames of clip b.
#include "ClipFaceAnalysis.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "ClipDecoder.h"
#include "FaceDetector.h"
#include "FaceTrackFile.h"
#include "../ReplayTestUtil.h"
#include "TestData.h"

using namespace kovane_replay;

namespace {

const char* kClipA = "webcam_face_a_400x300_25fps.mp4";
const char* kClipB = "webcam_face_b_400x300_25fps.mp4";

ClipFaceAnalysis::Options preview(int width = 400, int height = 300) {
  ClipFaceAnalysis::Options opt;
  opt.width = width;
  opt.height = height;
  return opt;
}

// Copies the first `packets` video packets of a clip (decode order, so every copied frame has
// what it refers to) into a new clip, without re-encoding.
bool copyClipStart(const std::string& from, const std::string& to, int packets) {
  AVFormatContext* in = nullptr;
  if (avformat_open_input(&in, from.c_str(), nullptr, nullptr) < 0) return false;
  AVFormatContext* out = nullptr;
  AVPacket* packet = av_packet_alloc();
  bool ok = avformat_find_stream_info(in, nullptr) >= 0 && packet != nullptr;
  const int video = ok ? av_find_best_stream(in, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0) : -1;
  ok = ok && video >= 0 && avformat_alloc_output_context2(&out, nullptr, nullptr, to.c_str()) >= 0;
  AVStream* stream = ok ? avformat_new_stream(out, nullptr) : nullptr;
  ok = ok && stream != nullptr &&
       avcodec_parameters_copy(stream->codecpar, in->streams[video]->codecpar) >= 0;
  if (ok) {
    stream->codecpar->codec_tag = 0;
    stream->time_base = in->streams[video]->time_base;
    ok = avio_open(&out->pb, to.c_str(), AVIO_FLAG_WRITE) >= 0 && avformat_write_header(out, nullptr) >= 0;
  }
  for (int copied = 0; ok && copied < packets && av_read_frame(in, packet) >= 0; av_packet_unref(packet)) {
    if (packet->stream_index != video) continue;
    packet->stream_index = 0;
    av_packet_rescale_ts(packet, in->streams[video]->time_base, stream->time_base);
    ok = av_interleaved_write_frame(out, packet) >= 0;
    ++copied;
  }
  av_packet_unref(packet);
  if (ok) ok = av_write_trailer(out) >= 0;
  if (out) avio_closep(&out->pb);
  avformat_free_context(out);
  av_packet_free(&packet);
  avformat_close_input(&in);
  return ok;
}

// Sets an environment variable for the life of the object, then puts back what was there.
struct ScopedEnv {
  std::string name;
  const char* old;
  std::string oldValue = old ? old : "";
  ScopedEnv(const char* n, const char* value) : name(n), old(std::getenv(n)) { setenv(n, value, 1); }
  ~ScopedEnv() { old ? setenv(name.c_str(), oldValue.c_str(), 1) : unsetenv(name.c_str()); }
};

}  // namespace

TEST(ClipFaceAnalysis, DetectorFindsTheFaceOnSampledFramesOfClipAWithPlausibleGeometry) {
  FaceDetector detector;
  std::string error;
  ASSERT_TRUE(detector.load(FaceDetector::predictorPath(), &error)) << error;
  ClipDecoder decoder;
  ASSERT_TRUE(decoder.open(kovane_test::testDataPath(kClipA))) << decoder.error();
  ASSERT_TRUE(decoder.setOutput(400, 300, ClipDecoder::FIT_CROP)) << decoder.error();
  // Every 60th frame up to 1239 (the end of the clip has a hand in front of the face).
  int sampled = 0, found = 0;
  ClipFrame frame;
  while (decoder.next(frame) && frame.index < 1240) {
    if (frame.index % 60) continue;
    ++sampled;
    const std::vector<DetectedFace> faces = detector.detect(frame.image);
    if (faces.empty()) continue;
    ++found;
    const FaceRecord r = FaceDetector::toRecord(faces[0]);
    SCOPED_TRACE("frame " + std::to_string(frame.index));
    // A webcam face at arm's length; the subject's left eye on the picture's right, both eyes
    // above the mouth, inside the face rectangle.
    EXPECT_TRUE(r.width >= 70 && r.width <= 200 && r.score > 50 && r.score <= 100) << r.width << " " << r.score;
    EXPECT_GT(r.leftEyeX, r.rightEyeX + r.width / 5);
    EXPECT_LT(std::max(r.leftEyeY, r.rightEyeY), r.mouthY - r.height / 6);
    for (int x : {r.leftEyeX, r.rightEyeX, r.mouthX}) EXPECT_TRUE(x > r.left && x < r.left + r.width) << x;
    for (float ear : {r.leftEar, r.rightEar}) EXPECT_TRUE(ear > 0.1f && ear < 0.5f) << ear;
  }
  EXPECT_EQ(sampled, 21);
  EXPECT_GE(found, sampled * 9 / 10) << found << " of " << sampled << " sampled frames have a face";
  // A picture without a face gives none; an empty picture is no error.
  kovane_replay::Nv21Image grey;
  grey.allocate(320, 240);
  std::fill(grey.data.begin(), grey.data.end(), 128);
  EXPECT_TRUE(detector.detect(grey).empty());
  EXPECT_TRUE(detector.detect(kovane_replay::Nv21Image()).empty());
}

TEST(ClipFaceAnalysis, WholeClipIsCachedByContentSizeAndVersionAndReadsHandLabelledBlinks) {
  const std::string clipB = kovane_test::testDataPath(kClipB);
  ASSERT_FALSE(clipB.empty());
  kovane_replay_test::TempDir cache;
  const std::string clip = cache.file("b-start.mp4");
  ASSERT_TRUE(copyClipStart(clipB, clip, 130));
  ClipFaceAnalysis::Options opt = preview();
  opt.cacheDir = cache.file("faces-cache");  // made on first use

  ClipFaces first;
  std::string error;
  bool fromCache = true;
  ASSERT_TRUE(ClipFaceAnalysis::analyse(clip, opt, first, &error, &fromCache)) << error;
  EXPECT_FALSE(fromCache);
  ASSERT_EQ(first.size(), 130u);
  // One tracked face throughout (95 % one id); the labelled blink reads closed and is one
  // event, the labelled open frames read open and lie outside every event.
  std::map<int, int> ids;
  int most = 0;
  for (const auto& frame : first) {
    const FaceRecord* m = ClipFaceAnalysis::mainFace(frame);
    ASSERT_NE(m, nullptr);
    most = std::max(most, ++ids[m->id]);
  }
  EXPECT_GE(most, 0.95 * 130);
  const int closed = ClipFaceAnalysis::kClosedDegree;
  for (int f : {98, 99, 100, 101}) EXPECT_GE(ClipFaceAnalysis::mainFace(first[f])->blinkDegree(), closed) << f;
  for (int f : {90, 92}) EXPECT_LT(ClipFaceAnalysis::mainFace(first[f])->blinkDegree(), closed) << f;
  bool covered = false;
  for (const BlinkEvent& e : ClipFaceAnalysis::findBlinks(first)) {
    covered = covered || (e.firstFrame <= 98 && e.lastFrame >= 101 && e.peakDegree >= closed);
    EXPECT_FALSE((e.firstFrame <= 90 && 90 <= e.lastFrame) || (e.firstFrame <= 92 && 92 <= e.lastFrame));
  }
  EXPECT_TRUE(covered) << "no blink event covers frames 98..101";

  // The cache file is named after the clip's content, size, fit and detector version, and
  // says so inside.
  const std::string sha = ClipFaceAnalysis::sha256File(clip, &error);
  ASSERT_EQ(sha.size(), 64u) << error;
  const std::string name = ClipFaceAnalysis::cacheFileName(sha, 400, 300, ClipDecoder::FIT_CROP);
  const std::string cached = (std::filesystem::path(opt.cacheDir) / name).string();
  ASSERT_TRUE(std::filesystem::exists(cached)) << cached;
  ClipFaces fromFile;
  FaceTrackFile::Meta meta;
  ASSERT_TRUE(FaceTrackFile::read(cached, fromFile, &error, &meta)) << error;
  EXPECT_EQ(FaceTrackFile::metaValue(meta, "clip-sha256"), sha);
  EXPECT_EQ(FaceTrackFile::metaValue(meta, "size"), "400x300");
  EXPECT_EQ(FaceTrackFile::metaValue(meta, "fit"), "crop");
  EXPECT_EQ(FaceTrackFile::format(fromFile), FaceTrackFile::format(first));
  EXPECT_NE(ClipFaceAnalysis::cacheFileName(sha, 640, 480, ClipDecoder::FIT_CROP), name);
  EXPECT_NE(ClipFaceAnalysis::cacheFileName(sha, 400, 300, ClipDecoder::FIT_LETTERBOX), name);
  EXPECT_NE(ClipFaceAnalysis::cacheFileName(std::string(64, '0'), 400, 300, ClipDecoder::FIT_CROP), name);
  EXPECT_NE(name.find("-v" + std::to_string(ClipFaceAnalysis::kDetectorVersion)), std::string::npos);

  // The second call reads the cache: the same records, and no detection (it works even
  // without the landmark model).
  {
    ScopedEnv noModel("KOVANE_DLIB_PREDICTOR", "/nonexistent/shape_predictor.dat");
    ClipFaces second;
    ASSERT_TRUE(ClipFaceAnalysis::analyse(clip, opt, second, &error, &fromCache)) << error;
    EXPECT_TRUE(fromCache);
    EXPECT_EQ(FaceTrackFile::format(second), FaceTrackFile::format(first));

    // Another size is another key: not in the cache, so it needs the model, and says which
    // package provides it.
    ClipFaceAnalysis::Options other = opt;
    other.width = 200;
    other.height = 150;
    ClipFaces third;
    EXPECT_FALSE(ClipFaceAnalysis::analyse(clip, other, third, &error, &fromCache));
    EXPECT_FALSE(fromCache);
    EXPECT_NE(error.find("/nonexistent/shape_predictor.dat"), std::string::npos) << error;
    EXPECT_NE(error.find("libdlib-data"), std::string::npos) << error;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }

  // A cache file of another clip or detector version under this name is not used.
  std::ofstream(cached) << FaceTrackFile::format(first, {{"clip-sha256", std::string(64, '0')},
                                                       {"size", "400x300"}, {"fit", "crop"}, {"detector", "old"}});
  {
    ScopedEnv noModel("KOVANE_DLIB_PREDICTOR", "/nonexistent/shape_predictor.dat");
    ClipFaces again;
    EXPECT_FALSE(ClipFaceAnalysis::analyse(clip, opt, again, &error, &fromCache));
    EXPECT_FALSE(fromCache);
  }
}

TEST(ClipFaceAnalysis, ClearErrorsForBadInputAndSha256OfKnownBytes) {
  kovane_replay_test::TempDir dir;
  const std::string notAClip = dir.file("notes.mp4");
  std::ofstream(notAClip) << "abc";
  ClipFaces faces;
  std::string error;
  EXPECT_FALSE(ClipFaceAnalysis::analyse(notAClip, preview(), faces, &error));
  EXPECT_NE(error.find(notAClip), std::string::npos) << error;
  EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  EXPECT_FALSE(ClipFaceAnalysis::analyse(dir.file("missing.mp4"), preview(), faces, &error));
  EXPECT_NE(error.find("missing.mp4"), std::string::npos) << error;

  const std::string clip = kovane_test::testDataPath(kClipB);
  ASSERT_FALSE(clip.empty());
  EXPECT_FALSE(ClipFaceAnalysis::analyse(clip, preview(0, 300), faces, &error));
  EXPECT_NE(error.find("0x300"), std::string::npos) << error;
  EXPECT_FALSE(ClipFaceAnalysis::analyseRange(clip, preview(), 10, 5, faces, &error));
  EXPECT_NE(error.find("10..5"), std::string::npos) << error;

  // SHA-256 of "abc" (FIPS 180-2 example).
  EXPECT_EQ(ClipFaceAnalysis::sha256File(notAClip, &error),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(ClipFaceAnalysis::sha256File(dir.file("missing.mp4"), &error), "");
  EXPECT_NE(error.find("missing.mp4"), std::string::npos);

  // A landmark model that is not one.
  ScopedEnv badModel("KOVANE_DLIB_PREDICTOR", notAClip.c_str());
  EXPECT_FALSE(ClipFaceAnalysis::analyseRange(clip, preview(), 0, 0, faces, &error));
  EXPECT_NE(error.find("cannot read face landmark model"), std::string::npos) << error;
  EXPECT_EQ(error.find('\n'), std::string::npos) << error;
}
