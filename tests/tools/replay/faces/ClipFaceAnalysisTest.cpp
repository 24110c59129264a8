// The face module on the real webcam clips (400x300, 25 fps, one person talking and blinking).
//
// Hand labels. Frames were numbered by FFmpeg's decode order `n` (the order ClipDecoder hands
// them out) and looked at by eye, enlarged around the eyes, e.g.
//   ffmpeg -i webcam_face_a_400x300_25fps.mp4 -vf "select=between(n\,630\,653),crop=160:80:130:110,
//          scale=320:-1,tile=4x6" -vsync 0 sheet.png
// for the whole of both clips. "Closed" means no iris visible in either eye; "open" means both
// irises clearly visible. Frames where the lids were half way (closing, opening, looking down)
// were left out on purpose.
//   clip a: blinks on 640..643 and 774..775 (the only two in the clip); open 636, 638, 650, 771, 772.
//   clip b: blinks on 98..101 and 426..429; open 90, 92, 422, 423, 433. (b also has two slow
//           lowerings of the lids, 55..64 and 102..118, with a slit of the eye still visible.)
//
// Detection costs about 15 ms a frame (and some fifty times that under the thread sanitizer),
// so the tests run it on the stretches around the labels only, and the whole-clip analysis with
// its cache on the first 130 frames of clip b, copied into a clip of their own.
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

struct HandLabels {
  std::vector<std::vector<int>> blinks;  // closed frames of each blink
  std::vector<int> open;
};

const HandLabels kLabelsA = {{{640, 641, 642, 643}, {774, 775}}, {636, 638, 650, 771, 772}};
const HandLabels kLabelsBStart = {{{98, 99, 100, 101}}, {90, 92}};
const HandLabels kLabelsBLater = {{{426, 427, 428, 429}}, {422, 423, 433}};

ClipFaceAnalysis::Options preview(int width = 400, int height = 300) {
  ClipFaceAnalysis::Options opt;
  opt.width = width;
  opt.height = height;
  return opt;
}

// The main face reads the hand-labelled closed frames as closed and the open ones as open,
// and findBlinks has an event covering each labelled blink.
void expectLabels(const ClipFaces& faces, const HandLabels& labels) {
  const std::vector<BlinkEvent> events = ClipFaceAnalysis::findBlinks(faces);
  for (const std::vector<int>& blink : labels.blinks) {
    for (int f : blink) {
      ASSERT_LT(static_cast<size_t>(f), faces.size());
      const FaceRecord* m = ClipFaceAnalysis::mainFace(faces[f]);
      ASSERT_NE(m, nullptr) << "frame " << f;
      EXPECT_GE(m->blinkDegree(), ClipFaceAnalysis::kClosedDegree)
          << "closed frame " << f << ": EAR " << m->leftEar << "/" << m->rightEar;
    }
    bool covered = false;
    for (const BlinkEvent& e : events) {
      covered = covered || (e.firstFrame <= blink.front() && e.lastFrame >= blink.back() &&
                            e.peakFrame >= e.firstFrame && e.peakFrame <= e.lastFrame &&
                            e.peakDegree >= ClipFaceAnalysis::kClosedDegree);
    }
    EXPECT_TRUE(covered) << "no blink event covers frames " << blink.front() << ".." << blink.back();
  }
  for (int f : labels.open) {
    ASSERT_LT(static_cast<size_t>(f), faces.size());
    const FaceRecord* m = ClipFaceAnalysis::mainFace(faces[f]);
    ASSERT_NE(m, nullptr) << "frame " << f;
    EXPECT_LT(m->blinkDegree(), ClipFaceAnalysis::kClosedDegree)
        << "open frame " << f << ": EAR " << m->leftEar << "/" << m->rightEar;
    for (const BlinkEvent& e : events) {
      EXPECT_FALSE(e.firstFrame <= f && f <= e.lastFrame) << "open frame " << f << " inside a blink event";
    }
  }
}

// Every frame of [first, last] has a main face, and at least 95 % of them the same id.
void expectOneTrackedFace(const ClipFaces& faces, int first, int last) {
  std::map<int, int> ids;
  int withFace = 0, most = 0;
  for (int f = first; f <= last; ++f) {
    if (const FaceRecord* m = ClipFaceAnalysis::mainFace(faces[f])) {
      ++withFace;
      most = std::max(most, ++ids[m->id]);
    }
  }
  EXPECT_EQ(withFace, last - first + 1);
  EXPECT_GE(most, 0.95 * withFace);
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

// Detects and tracks the stretches first..last of a clip, each on its own (so its degrees rest
// on the baseline of that stretch alone), checks that each has the face on every frame with
// one id, and returns them together, indexed by frame.
ClipFaces analyseStretches(const std::string& clip, const std::vector<std::pair<int, int>>& stretches) {
  ClipFaces whole;
  for (const auto& s : stretches) {
    SCOPED_TRACE("frames " + std::to_string(s.first) + ".." + std::to_string(s.second));
    ClipFaces faces;
    std::string error;
    EXPECT_TRUE(ClipFaceAnalysis::analyseRange(clip, preview(), s.first, s.second, faces, &error)) << error;
    if (faces.size() != static_cast<size_t>(s.second + 1)) {
      ADD_FAILURE() << faces.size() << " frames";
      return {};
    }
    for (int f = 0; f < s.first; ++f) EXPECT_TRUE(faces[f].empty());
    expectOneTrackedFace(faces, s.first, s.second);
    whole.resize(std::max(whole.size(), faces.size()));
    for (int f = s.first; f <= s.second; ++f) whole[f] = faces[f];
  }
  return whole;
}

}  // namespace

TEST(ClipFaceAnalysis, DetectorFindsTheFaceOnSampledFramesOfClipAWithPlausibleGeometry) {
  const std::string clip = kovane_test::testDataPath(kClipA);
  ASSERT_FALSE(clip.empty());
  FaceDetector detector;
  std::string error;
  ASSERT_TRUE(detector.load(FaceDetector::predictorPath(), &error)) << error;
  ClipDecoder decoder;
  ASSERT_TRUE(decoder.open(clip)) << decoder.error();
  ASSERT_TRUE(decoder.setOutput(400, 300, ClipDecoder::FIT_CROP)) << decoder.error();

  // Every 20th frame up to 1239 (the end of the clip has a hand in front of the face).
  int sampled = 0, found = 0;
  ClipFrame frame;
  while (decoder.next(frame) && frame.index < 1240) {
    if (frame.index % 20) continue;
    ++sampled;
    const std::vector<DetectedFace> faces = detector.detect(frame.image);
    if (faces.empty()) continue;
    ++found;
    const FaceRecord r = FaceDetector::toRecord(faces[0]);
    SCOPED_TRACE("frame " + std::to_string(frame.index));
    // A face of a webcam at arm's length: 70..200 pixels, inside the picture.
    EXPECT_TRUE(r.width >= 70 && r.width <= 200) << r.width;
    EXPECT_TRUE(r.score > 50 && r.score <= 100) << r.score;
    // The subject's left eye is on the picture's right; both eyes above the mouth, all inside
    // the face rectangle.
    EXPECT_GT(r.leftEyeX, r.rightEyeX + r.width / 5);
    EXPECT_LT(std::max(r.leftEyeY, r.rightEyeY), r.mouthY - r.height / 6);
    for (int x : {r.leftEyeX, r.rightEyeX, r.mouthX}) EXPECT_TRUE(x > r.left && x < r.left + r.width) << x;
    for (int y : {r.leftEyeY, r.rightEyeY, r.mouthY}) {
      EXPECT_TRUE(y > r.top && y < r.top + r.height + r.height / 5) << y;
    }
    for (float ear : {r.leftEar, r.rightEar}) EXPECT_TRUE(ear > 0.1f && ear < 0.5f) << ear;
    EXPECT_TRUE(r.mouthRatio > 0.5f && r.mouthRatio < 1.2f) << r.mouthRatio;
  }
  EXPECT_EQ(sampled, 62);
  EXPECT_GE(found, sampled * 9 / 10) << found << " of " << sampled << " sampled frames have a face";

  // A picture without a face gives none; an empty picture is no error.
  kovane_replay::Nv21Image grey;
  grey.allocate(320, 240);
  std::fill(grey.data.begin(), grey.data.end(), 128);
  EXPECT_TRUE(detector.detect(grey).empty());
  EXPECT_TRUE(detector.detect(kovane_replay::Nv21Image()).empty());
}

// Each clip on stretches around its hand-labelled blinks (600..680 and 720..820 hold both blinks
// of clip a): the labels read as labelled, and nothing else in the stretches reads as a blink.
TEST(ClipFaceAnalysis, ClipsReadHandLabelledBlinksWithOneStableId) {
  const struct {
    const char* clip;
    std::vector<std::pair<int, int>> stretches;
    HandLabels labels;
  } cases[] = {{kClipA, {{600, 680}, {720, 820}}, kLabelsA}, {kClipB, {{380, 470}}, kLabelsBLater}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.clip);
    const std::string clip = kovane_test::testDataPath(c.clip);
    ASSERT_FALSE(clip.empty());
    const ClipFaces faces = analyseStretches(clip, c.stretches);
    ASSERT_FALSE(HasFailure());
    expectLabels(faces, c.labels);
    EXPECT_EQ(ClipFaceAnalysis::findBlinks(faces).size(), c.labels.blinks.size());
  }
}

// The replay feeds the 400x300 clips at 640x480: the faces found there are the clip's own,
// scaled to preview pixels, with the same degrees, so the hand labels hold at that size too.
TEST(ClipFaceAnalysis, APreviewLargerThanTheClipGetsTheClipsFacesScaledUp) {
  const std::string clip = kovane_test::testDataPath(kClipA);
  ASSERT_FALSE(clip.empty());
  ClipFaces own, large;
  std::string error;
  ASSERT_TRUE(ClipFaceAnalysis::analyseRange(clip, preview(), 760, 790, own, &error)) << error;
  ASSERT_TRUE(ClipFaceAnalysis::analyseRange(clip, preview(640, 480), 760, 790, large, &error)) << error;
  ASSERT_EQ(own.size(), large.size());
  for (size_t i = 760; i < own.size(); ++i) {
    ASSERT_EQ(own[i].size(), large[i].size()) << i;
    for (size_t k = 0; k < own[i].size(); ++k) {
      EXPECT_EQ(own[i][k].leftBlink, large[i][k].leftBlink) << i;
      EXPECT_EQ(own[i][k].rightBlink, large[i][k].rightBlink) << i;
      EXPECT_NEAR(large[i][k].width, own[i][k].width * 1.6, 1.0) << i;
      EXPECT_NEAR(large[i][k].leftEyeX, own[i][k].leftEyeX * 1.6, 1.0) << i;
    }
  }
  EXPECT_GE(large[774].front().blinkDegree(), ClipFaceAnalysis::kClosedDegree);
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
  expectOneTrackedFace(first, 0, 129);
  expectLabels(first, kLabelsBStart);

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
  std::string text = FaceTrackFile::format(first, {{"clip-sha256", std::string(64, '0')},
                                                   {"size", "400x300"}, {"fit", "crop"},
                                                   {"detector", "old"}});
  {
    std::ofstream(cached) << text;
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
