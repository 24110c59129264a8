// Records written by KoStatsData read back through KoStatsReader, value for value.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "KoStatsData.h"
#include "KoStatsReader.h"
#include "StatsTestFrames.h"

using android::KoFrameData;
using android::KoStatsData;
using android::KoStatsReader;
using android::sp;
using kovane_test::FrameOptions;
using kovane_test::History;
using kovane_test::makeFrame;
using kovane_test::makeSummary;

namespace {

// One expected value: an integer, a float (compared to the printed three decimals) or a text.
struct Expect {
  Expect(const char* k, int64_t v) : key(k), type(KoStatsReader::VALUE_INT), i(v) {}
  Expect(const char* k, int v) : key(k), type(KoStatsReader::VALUE_INT), i(v) {}
  Expect(const char* k, uint32_t v) : key(k), type(KoStatsReader::VALUE_INT), i(v) {}
  Expect(const char* k, float v) : key(k), type(KoStatsReader::VALUE_FLOAT), f(v) {}
  Expect(const char* k, const char* v) : key(k), type(KoStatsReader::VALUE_TEXT), text(v) {}
  std::string key;
  KoStatsReader::ValueType type;
  int64_t i = 0;
  double f = 0.0;
  std::string text;
};

void expectRow(const KoStatsReader::Row& row, const std::vector<Expect>& expected,
               const std::string& what) {
  ASSERT_EQ(row.fields.size(), expected.size()) << what;
  for (size_t k = 0; k < expected.size(); ++k) {
    const Expect& e = expected[k];
    const auto& field = row.fields[k];
    EXPECT_EQ(field.first, e.key) << what;
    ASSERT_EQ(field.second.type, e.type) << what << " " << e.key;
    switch (e.type) {
      case KoStatsReader::VALUE_INT:
        EXPECT_EQ(field.second.i, e.i) << what << " " << e.key;
        break;
      case KoStatsReader::VALUE_FLOAT:
        EXPECT_NEAR(field.second.f, e.f, 0.0005 + 1e-7 * std::fabs(e.f)) << what << " " << e.key;
        break;
      case KoStatsReader::VALUE_TEXT:
        EXPECT_EQ(field.second.text, e.text) << what << " " << e.key;
        break;
    }
  }
}

float word(uint32_t w) {
  float f;
  memcpy(&f, &w, sizeof(f));
  return f;
}

// The capture label rule, restated.
std::string expectedLabel(const KoFrameData& f, int i, const android::KoGenFrameData_t& s) {
  if (f.zslBuffer() == nullptr) return i == s.capturedFrameIndex ? "CapturedNoZSL" : "NoZSL";
  if (s.bestShotGenerated && i == s.bestShotFrameIndex) return "BestShot";
  std::string label = i == s.capturedFrameIndex ? "CapturedZSL" : "ZSL";
  if (s.bestShotGenerated && s.referenceFrameId != s.capturedFrameId &&
      static_cast<uint32_t>(s.referenceFrameId) == f.mFrameId) {
    label = "PseudoCaptured";
  }
  return label;
}

std::vector<Expect> expectedFrame(const KoFrameData& f, const std::string& label,
                                  const android::KoGenFrameData_t& s) {
  return {
      {"numElements", 43},
      {"frame_id", f.mFrameId},
      {"ts", f.mTimestamp},
      {"sob.var", f.mSobelStats.stddevCopy},
      {"sob.mean", f.mSobelStats.mean},
      {"fr.var", f.mLumaStats.stddevCopy},
      {"fr.mean", f.mLumaStats.mean},
      {"diff.var", f.mDiffStats.stddevCopy},
      {"diff.mean", f.mDiffStats.mean},
      {"zoom", f.mZoom},
      {"accel.x", f.mAccelSample.mX},
      {"accel.y", f.mAccelSample.mY},
      {"accel.z", f.mAccelSample.mZ},
      {"gyro.x", f.mGyroSample.mX},
      {"gyro.y", f.mGyroSample.mY},
      {"gyro.z", f.mGyroSample.mZ},
      {"orient.x", f.mOrientSample.mX},
      {"orient.y", f.mOrientSample.mY},
      {"orient.z", f.mOrientSample.mZ},
      {"caf_state", static_cast<int>(f.mCafState)},
      {"lens_pos", static_cast<int>(f.mLensPos)},
      {"af_num_roi", static_cast<int>(f.mAfNumRoi)},
      {"af_win_x", static_cast<int>(f.mAfWindow[0])},
      {"af_win_y", static_cast<int>(f.mAfWindow[1])},
      {"af_win_dx", static_cast<int>(f.mAfWindow[2])},
      {"af_win_dy", static_cast<int>(f.mAfWindow[3])},
      {"af_roi_type", static_cast<int>(f.mAfRoiType)},
      {"cam_position", s.camPosition},
      {"zsl_bs_capture", label.c_str()},
      {"zsl", static_cast<int>(f.mHasZsl)},
      {"fe_score", f.mFeScore},
      {"faces_score", f.mFacesScore},
      {"bs_score", f.mBsScore},
      {"motionVecStats.mean", word(f.mMotionResult[3])},
      {"motionVecStats.stddev", word(f.mMotionResult[4])},
      {"frmMotionScoreNorm", word(f.mMotionResult[8])},
      {"ctrFrmMotionScoreNorm", word(f.mMotionResult[9])},
      {"camMotionMode", f.mCamMotion[3]},
      {"lux_level", f.mLuxLevel},
      {"aec_state", f.mAecState},
      {"awb_state", f.mAwbState},
      {"lux_idx", f.mLuxIdx},
      {"exp_time", f.mExpTime},
  };
}

std::vector<Expect> expectedFace(const android::KO_cam_face_t& c) {
  return {
      {"face.id", c.id},
      {"face.score", static_cast<int>(c.score)},
      {"face.recog", static_cast<int>(c.recognised)},
      {"face.left", c.left},
      {"face.top", c.top},
      {"face.width", c.width},
      {"face.height", c.height},
      {"l_eye.x", c.leftEyeX},
      {"l_eye.y", c.leftEyeY},
      {"r_eye.x", c.rightEyeX},
      {"r_eye.y", c.rightEyeY},
      {"mouth.x", c.mouthX},
      {"mouth.y", c.mouthY},
      {"blink.l", static_cast<int>(c.leftBlink)},
      {"blink.r", static_cast<int>(c.rightBlink)},
      {"blink.det", static_cast<int>(c.blinkDetected)},
      {"gaze.angle", static_cast<int>(c.gazeAngle)},
      {"gaze.lr", static_cast<int>(c.leftRightGaze)},
      {"gaze.tb", static_cast<int>(c.topBottomGaze)},
      {"smile.degree", static_cast<int>(c.smileDegree)},
      {"smile.conf", static_cast<int>(c.smileConfidence)},
      {"dir.lr", static_cast<int>(c.leftRightDir)},
      {"dir.ud", static_cast<int>(c.upDownDir)},
      {"dir.roll", static_cast<int>(c.rollDir)},
  };
}

// 30 frames: 0 to 5 faces (frame 7 claims 9 with 5 entries), histograms on all but every
// tenth, ZSL buffers on two of three.
std::vector<sp<KoFrameData>> thirtyFrames() {
  std::vector<sp<KoFrameData>> out;
  for (int i = 0; i < 30; ++i) {
    FrameOptions opt;
    opt.faces = i % 6;
    if (i == 7) {
      opt.faces = 5;
      opt.claimed = 9;
    }
    opt.zsl = i % 3 != 0;
    opt.histogram = i % 10 != 9;
    out.push_back(makeFrame(i, opt));
  }
  return out;
}

void checkRecord(const KoStatsReader& reader, const std::vector<sp<KoFrameData>>& fs,
                 const android::KoGenFrameData_t& s, const KoStatsData& stats,
                 const android::KoSequenceData& seq, const android::bestShotInfo_t& bs,
                 std::vector<std::string>& labelsSeen) {
  ASSERT_TRUE(reader.hasSession());
  expectRow(reader.session(),
            {{"numElements", 8},
             {"exifFormatVersion", "00.00.002"},
             {"libKoCoreVersion", stats.mCoreVersion},
             {"bestShot.enabled", static_cast<int>(s.bestShotEnabled)},
             {"video.enabled", static_cast<int>(s.videoEnabled)},
             {"jobId", s.jobId},
             {"hdrMode", static_cast<int>(s.hdrMode)},
             {"isLateMode", static_cast<int>(s.isLateMode)}},
            "session");

  ASSERT_TRUE(reader.hasSequence());
  expectRow(reader.sequence(),
            {{"numElements", 34},
             {"jobId", seq.mJobId},
             {"capturedTsUs", seq.mCapturedTsUs},
             {"capturedFrameId", seq.mCapturedFrameId},
             {"capturedFrameVecIndex", seq.mCapturedFrameIndex},
             {"orientation", seq.mOrientation},
             {"bestshot.generated", static_cast<int>(bs.generated)},
             {"bestshot.frameId", bs.frameId},
             {"bestshot.frameIndex", bs.frameIndex},
             {"reference.frameId", bs.referenceFrameId},
             {"video.generated", static_cast<int>(seq.mVideoGenerated)},
             {"video.set", static_cast<int>(seq.mVideoSet)},
             {"video.cancelled", static_cast<int>(seq.mVideoCancelled)},
             {"video.motionScore", seq.mVideoMotionScore},
             {"video.startFrameId", seq.mVideoStartFrameId},
             {"video.stopFrameId", seq.mVideoStopFrameId},
             {"temporalStats.frameLuma.mean", seq.mFrameLumaStats.mean},
             {"temporalStats.frameLuma.stddev", seq.mFrameLumaStats.stddevCopy},
             {"temporalStats.frameDiff.mean", seq.mFrameDiffStats.mean},
             {"temporalStats.frameDiff.stddev", seq.mFrameDiffStats.stddevCopy},
             {"temporalStats.frameSobel.mean", seq.mFrameSobelStats.mean},
             {"temporalStats.frameSobel.stddev", seq.mFrameSobelStats.stddevCopy},
             {"bestshot.similarityCoeff", bs.similarityCoeff},
             {"bestshot.expOffset", bs.expOffset},
             {"bestshot.expSimilarity", bs.expSimilarity},
             {"jpeg.replace", static_cast<int>(bs.replace)},
             {"jpeg.replaceOverride", bs.replaceOverride},
             {"isFaceScene", static_cast<int>(bs.isFaceScene)},
             {"shiftDetected", static_cast<int>(bs.shiftDetected)},
             {"bestshot.blurDetected", static_cast<int>(bs.blurDetected)},
             {"bestshot.blurDetectCoeff", bs.blurDetectCoeff},
             {"bestshot.blurDetectSubCoeff", bs.blurDetectSubCoeff},
             {"bestshot.algBitField", bs.algBitField},
             {"bestshot.cancelled.algBitField", bs.cancelledAlgBitField}},
            "sequence");

  ASSERT_EQ(reader.frames().size(), fs.size());
  ASSERT_EQ(reader.faceGroups().size(), fs.size());
  size_t histogramIndex = 0;
  for (size_t i = 0; i < fs.size(); ++i) {
    const KoFrameData& f = *fs[i];
    const std::string what = "frame " + std::to_string(i);
    const std::string label = expectedLabel(f, static_cast<int>(i), s);
    labelsSeen.push_back(label);
    expectRow(reader.frames()[i], expectedFrame(f, label, s), what);

    const KoStatsReader::FaceGroup& g = reader.faceGroups()[i];
    const int printed = static_cast<int>(f.faceCount());
    expectRow(g.group,
              {{"numElements", 7 + 24 * printed},
               {"frame_id", f.mFrameId},
               {"ts", f.mTimestamp},
               {"faces_ref_width", f.mFaceRefWidth},
               {"faces_ref_height", f.mFaceRefHeight},
               {"face.num_detected", f.mFaceData.record.numFaces},
               {"face.num_blinked_predicted", f.mFaceData.numBlinkedPredicted}},
              what + " faces");
    ASSERT_EQ(g.faces.size(), static_cast<size_t>(printed)) << what;
    for (int k = 0; k < printed; ++k) {
      expectRow(g.faces[k], expectedFace(f.mFaceData.record.faces[k]),
                what + " face " + std::to_string(k));
    }

    if (f.mHistogram == nullptr) continue;
    ASSERT_LT(histogramIndex, reader.histograms().size());
    const KoStatsReader::Histogram& h = reader.histograms()[histogramIndex++];
    expectRow(h.header, {{"numElements", 35}, {"frameId", f.mFrameId}, {"numBins", 32}},
              what + " histogram");
    ASSERT_EQ(h.bins.size(), 32u);
    for (int b = 0; b < 32; ++b) EXPECT_EQ(h.bins[b], f.mHistogram[b]) << what << " bin " << b;
  }
  EXPECT_EQ(histogramIndex, reader.histograms().size());
}

}  // namespace

TEST(KoStatsRoundTrip, ThirtyFramesReadBackEqual) {
  KoStatsData stats;
  const std::vector<sp<KoFrameData>> fs = thirtyFrames();
  History h(fs);
  ASSERT_EQ(h.snapshot->size(), 30u);
  std::unique_ptr<android::KoSequenceData> seq(new android::KoSequenceData());
  android::bestShotInfo_t bs;
  kovane_test::fillSequence(*seq, bs);

  android::KoGenFrameData_t capturedWithZsl = makeSummary();
  capturedWithZsl.videoEnabled = 1;
  capturedWithZsl.hdrMode = 1;
  capturedWithZsl.bestShotGenerated = 1;
  capturedWithZsl.bestShotFrameIndex = 20;
  capturedWithZsl.capturedFrameIndex = 22;
  capturedWithZsl.capturedFrameId = 122;
  capturedWithZsl.referenceFrameId = 119;
  capturedWithZsl.camPosition = 0;
  android::KoGenFrameData_t capturedWithoutZsl = makeSummary();
  capturedWithoutZsl.isLateMode = 1;
  capturedWithoutZsl.capturedFrameIndex = 21;
  capturedWithoutZsl.capturedFrameId = 121;

  std::vector<std::string> labelsSeen;
  for (android::KoGenFrameData_t* s : {&capturedWithZsl, &capturedWithoutZsl}) {
    std::vector<char> out(KoStatsData::EXIF_BUFFER_SIZE + 4);
    // As the engine hands it on: 16-bit 3, 16-bit 0, then the record.
    out[0] = 3;
    const int n = stats.genExifHistory(out.data() + 4, KoStatsData::EXIF_BUFFER_SIZE, s,
                                       h.snapshot, seq.get(), &bs, -1, 0);
    ASSERT_GT(n, 20000);  // a full record, every section present

    KoStatsReader block;
    ASSERT_TRUE(block.parse(out.data(), n + 4)) << block.error();
    EXPECT_TRUE(block.hadExifPrefix());
    ASSERT_EQ(block.segments().size(), 10u);
    checkRecord(block, fs, *s, stats, *seq, bs, labelsSeen);

    // The bare record and the whole zero-filled block read the same.
    KoStatsReader bare;
    ASSERT_TRUE(bare.parse(out.data() + 4, n)) << bare.error();
    EXPECT_FALSE(bare.hadExifPrefix());
    KoStatsReader whole;
    ASSERT_TRUE(whole.parse(out.data(), out.size())) << whole.error();
    EXPECT_EQ(bare.toJson().substr(18), block.toJson().substr(17));
    EXPECT_EQ(whole.toJson(), block.toJson());
  }
  for (const char* label :
       {"BestShot", "CapturedZSL", "PseudoCaptured", "CapturedNoZSL", "NoZSL", "ZSL"}) {
    EXPECT_NE(std::find(labelsSeen.begin(), labelsSeen.end(), label), labelsSeen.end()) << label;
  }
}

TEST(KoStatsRoundTrip, JsonCarriesTheValues) {
  KoStatsData stats;
  FrameOptions opt;
  opt.faces = 1;
  opt.zsl = true;
  History h({makeFrame(0, opt), makeFrame(1, FrameOptions())});
  android::KoGenFrameData_t s = makeSummary();
  s.bestShotGenerated = 1;
  s.bestShotFrameIndex = 0;
  s.capturedFrameIndex = 1;
  std::vector<char> out(KoStatsData::EXIF_BUFFER_SIZE);
  const int n = stats.genExifHistory(out.data(), KoStatsData::EXIF_BUFFER_SIZE, &s, h.snapshot,
                                     nullptr, nullptr, -1, 0);
  KoStatsReader reader;
  ASSERT_TRUE(reader.parse(out.data(), n)) << reader.error();
  const std::string json = reader.toJson();
  EXPECT_EQ(json.rfind("{\"exifBlock\":false,\"segments\":[{\"offset\":0,\"type\":\"sshd\",\"size\":146,\"version\":1},", 0), 0u) << json;
  EXPECT_NE(json.find(std::string("\"session\":{\"numElements\":8,\"exifFormatVersion\":\"00.00.002\","
                                  "\"libKoCoreVersion\":\"") + stats.mCoreVersion + "\",\"bestShot.enabled\":1,"),
            std::string::npos) << json;
  EXPECT_NE(json.find("\"sequence\":null"), std::string::npos);
  EXPECT_NE(json.find("{\"numElements\":43,\"frame_id\":100,\"ts\":1234567890123,\"sob.var\":3.500,"), std::string::npos) << json;
  EXPECT_NE(json.find("\"zsl_bs_capture\":\"BestShot\""), std::string::npos);
  EXPECT_NE(json.find("\"zsl_bs_capture\":\"CapturedNoZSL\""), std::string::npos);
  EXPECT_NE(json.find("\"gyro.x\":-0.000,"), std::string::npos);
  EXPECT_NE(json.find("\"face.num_blinked_predicted\":0,\"faces\":[{\"face.id\":1000,"), std::string::npos) << json;
  EXPECT_NE(json.find("\"numBins\":32,\"bins\":[0,7,14,"), std::string::npos) << json;
  EXPECT_NE(json.find("\"raw\":[]}"), std::string::npos) << json;
  EXPECT_EQ(json.find("\"error\""), std::string::npos);
}
