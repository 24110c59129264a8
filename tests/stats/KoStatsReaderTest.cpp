// The record reader: records written by KoStatsData read back value for value, and malformed
// records are rejected.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
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

typedef std::vector<uint8_t> Bytes;

void put32(Bytes& b, uint32_t v) {
  for (int k = 0; k < 4; ++k) b.push_back(static_cast<uint8_t>(v >> (8 * k)));
}

void set32(Bytes& b, size_t at, uint32_t v) {
  for (int k = 0; k < 4; ++k) b[at + k] = static_cast<uint8_t>(v >> (8 * k));
}

// One segment holding text and its NUL.
void segment(Bytes& b, uint32_t type, const std::string& text, uint32_t version = 1) {
  put32(b, static_cast<uint32_t>(12 + text.size() + 1));
  put32(b, type);
  put32(b, version);
  b.insert(b.end(), text.begin(), text.end());
  b.push_back(0);
}

void emptySegment(Bytes& b, uint32_t type) {
  put32(b, 12);
  put32(b, type);
  put32(b, 1);
}

const char kSessionHeader[] =
    "numElements %d, exifFormatVersion %s, libKoCoreVersion %s, bestShot.enabled %d, "
    "video.enabled %d, jobId %d, hdrMode %d, isLateMode %d";

Bytes sessionOnly(const std::string& line) {
  Bytes b;
  segment(b, android::KO_EXIF_SESSION_HEADER, kSessionHeader);
  segment(b, android::KO_EXIF_SESSION_DATA, line);
  return b;
}

::testing::AssertionResult failsWith(const Bytes& b, const std::string& text) {
  KoStatsReader reader;
  if (reader.parse(b.data(), b.size())) return ::testing::AssertionFailure() << "accepted";
  if (reader.error().find(text) == std::string::npos) {
    return ::testing::AssertionFailure() << "error \"" << reader.error() << "\"";
  }
  return ::testing::AssertionSuccess();
}

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

std::vector<Expect> expectedFrame(const KoFrameData& f, const std::string& label,
                                  const android::KoGenFrameData_t& s) {
  return {
      {"numElements", 43}, {"frame_id", f.mFrameId}, {"ts", f.mTimestamp},
      {"sob.var", f.mSobelStats.stddevCopy}, {"sob.mean", f.mSobelStats.mean},
      {"fr.var", f.mLumaStats.stddevCopy}, {"fr.mean", f.mLumaStats.mean},
      {"diff.var", f.mDiffStats.stddevCopy}, {"diff.mean", f.mDiffStats.mean},
      {"zoom", f.mZoom}, {"accel.x", f.mAccelSample.mX}, {"accel.y", f.mAccelSample.mY},
      {"accel.z", f.mAccelSample.mZ}, {"gyro.x", f.mGyroSample.mX}, {"gyro.y", f.mGyroSample.mY},
      {"gyro.z", f.mGyroSample.mZ}, {"orient.x", f.mOrientSample.mX},
      {"orient.y", f.mOrientSample.mY}, {"orient.z", f.mOrientSample.mZ},
      {"caf_state", static_cast<int>(f.mCafState)}, {"lens_pos", static_cast<int>(f.mLensPos)},
      {"af_num_roi", static_cast<int>(f.mAfNumRoi)},
      {"af_win_x", static_cast<int>(f.mAfWindow[0])},
      {"af_win_y", static_cast<int>(f.mAfWindow[1])},
      {"af_win_dx", static_cast<int>(f.mAfWindow[2])},
      {"af_win_dy", static_cast<int>(f.mAfWindow[3])},
      {"af_roi_type", static_cast<int>(f.mAfRoiType)}, {"cam_position", s.camPosition},
      {"zsl_bs_capture", label.c_str()}, {"zsl", static_cast<int>(f.mHasZsl)},
      {"fe_score", f.mFeScore}, {"faces_score", f.mFacesScore}, {"bs_score", f.mBsScore},
      {"motionVecStats.mean", word(f.mMotionResult[3])},
      {"motionVecStats.stddev", word(f.mMotionResult[4])},
      {"frmMotionScoreNorm", word(f.mMotionResult[8])},
      {"ctrFrmMotionScoreNorm", word(f.mMotionResult[9])}, {"camMotionMode", f.mCamMotion[3]},
      {"lux_level", f.mLuxLevel}, {"aec_state", f.mAecState}, {"awb_state", f.mAwbState},
      {"lux_idx", f.mLuxIdx}, {"exp_time", f.mExpTime},
  };
}

std::vector<Expect> expectedFace(const android::KO_cam_face_t& c) {
  return {
      {"face.id", c.id}, {"face.score", static_cast<int>(c.score)},
      {"face.recog", static_cast<int>(c.recognised)}, {"face.left", c.left}, {"face.top", c.top},
      {"face.width", c.width}, {"face.height", c.height}, {"l_eye.x", c.leftEyeX},
      {"l_eye.y", c.leftEyeY}, {"r_eye.x", c.rightEyeX}, {"r_eye.y", c.rightEyeY},
      {"mouth.x", c.mouthX}, {"mouth.y", c.mouthY}, {"blink.l", static_cast<int>(c.leftBlink)},
      {"blink.r", static_cast<int>(c.rightBlink)}, {"blink.det", static_cast<int>(c.blinkDetected)},
      {"gaze.angle", static_cast<int>(c.gazeAngle)}, {"gaze.lr", static_cast<int>(c.leftRightGaze)},
      {"gaze.tb", static_cast<int>(c.topBottomGaze)},
      {"smile.degree", static_cast<int>(c.smileDegree)},
      {"smile.conf", static_cast<int>(c.smileConfidence)},
      {"dir.lr", static_cast<int>(c.leftRightDir)}, {"dir.ud", static_cast<int>(c.upDownDir)},
      {"dir.roll", static_cast<int>(c.rollDir)},
  };
}

// A row printed back: integers, floats to three decimals and texts joined by ", ".
std::string reprinted(const KoStatsReader::Row& row) {
  std::string out;
  for (const auto& field : row.fields) {
    const KoStatsReader::Value& v = field.second;
    char number[64];
    snprintf(number, sizeof(number), "%.3f", v.f);
    if (!out.empty()) out += ", ";
    out += v.type == KoStatsReader::VALUE_INT     ? std::to_string(v.i)
           : v.type == KoStatsReader::VALUE_FLOAT ? std::string(number)
                                                  : v.text;
  }
  return out;
}

}  // namespace

TEST(KoStatsRoundTrip, ThirtyFramesReadBackEqual) {
  // 30 frames: i % 6 faces, except frame 7 which claims 9 with 5 entries (the writer prints 5;
  // the reader rejects more than 5), histograms on all but every tenth (the last has none), ZSL
  // buffers on two of three.
  std::vector<sp<KoFrameData>> fs;
  for (int i = 0; i < 30; ++i) {
    FrameOptions opt;
    opt.faces = i == 7 ? 5 : i % 6;
    opt.claimed = i == 7 ? 9 : 0;
    opt.zsl = i % 3 != 0;
    opt.histogram = i % 10 != 9;
    fs.push_back(makeFrame(i, opt));
  }
  History h(fs);
  KoStatsData stats;
  std::unique_ptr<android::KoSequenceData> seq(new android::KoSequenceData());
  android::bestShotInfo_t bs;
  kovane_test::fillSequence(*seq, bs);

  // Each summary with the labels it gives; frames it does not name are "ZSL" or "NoZSL".
  struct Case {
    android::KoGenFrameData_t s;
    std::vector<std::pair<int, const char*>> labels;
  };
  std::vector<Case> cases(3, Case{makeSummary(), {}});
  // Best shot, captured frame with ZSL, and a reference frame standing in for it.
  cases[0].s.videoEnabled = 1;
  cases[0].s.hdrMode = 1;
  cases[0].s.camPosition = 0;
  cases[0].s.bestShotGenerated = 1;
  cases[0].s.bestShotFrameIndex = 20;
  cases[0].s.capturedFrameIndex = 22;
  cases[0].s.capturedFrameId = 122;
  cases[0].s.referenceFrameId = 119;
  cases[0].labels = {{20, "BestShot"}, {22, "CapturedZSL"}, {19, "PseudoCaptured"}};
  // The same without a generated best shot, and the captured frame without ZSL.
  cases[1].s = cases[0].s;
  cases[1].s.isLateMode = 1;
  cases[1].s.bestShotGenerated = 0;
  cases[1].s.capturedFrameIndex = 21;
  cases[1].s.capturedFrameId = 121;
  cases[1].labels = {{21, "CapturedNoZSL"}};
  // The best shot is the captured frame: the best-shot label wins.
  cases[2].s = cases[0].s;
  cases[2].s.capturedFrameIndex = 20;
  cases[2].s.capturedFrameId = 120;
  cases[2].s.referenceFrameId = 120;
  cases[2].labels = {{20, "BestShot"}};

  for (const Case& c : cases) {
    std::vector<std::string> labels(30);
    for (int i = 0; i < 30; ++i) labels[i] = i % 3 ? "ZSL" : "NoZSL";
    for (const auto& l : c.labels) labels[l.first] = l.second;
    android::KoGenFrameData_t s = c.s;

    std::vector<char> out(KoStatsData::EXIF_BUFFER_SIZE + 4);
    // As the engine hands it on: 16-bit 3, 16-bit 0, then the record.
    out[0] = 3;
    const int n = stats.genExifHistory(out.data() + 4, KoStatsData::EXIF_BUFFER_SIZE, &s,
                                       h.snapshot, seq.get(), &bs, -1, 0);
    ASSERT_GT(n, 20000);  // a full record, every section present
    KoStatsReader reader;
    ASSERT_TRUE(reader.parse(out.data(), n + 4)) << reader.error();
    EXPECT_TRUE(reader.hadExifPrefix());
    ASSERT_EQ(reader.segments().size(), 10u);

    expectRow(reader.session(),
              {{"numElements", 8}, {"exifFormatVersion", "00.00.002"},
               {"libKoCoreVersion", stats.mCoreVersion},
               {"bestShot.enabled", static_cast<int>(s.bestShotEnabled)},
               {"video.enabled", static_cast<int>(s.videoEnabled)}, {"jobId", s.jobId},
               {"hdrMode", static_cast<int>(s.hdrMode)},
               {"isLateMode", static_cast<int>(s.isLateMode)}},
              "session");
    ASSERT_TRUE(reader.hasSequence());
    // The sequence line is checked byte for byte against its inputs by the layout test.
    EXPECT_EQ(reprinted(reader.sequence()), kovane_test::kSequenceLine);

    ASSERT_EQ(reader.frames().size(), 30u);
    ASSERT_EQ(reader.faceGroups().size(), 30u);
    size_t histogramIndex = 0;
    for (int i = 0; i < 30; ++i) {
      const KoFrameData& f = *fs[i];
      const std::string what = "frame " + std::to_string(i);
      expectRow(reader.frames()[i], expectedFrame(f, labels[i], s), what);

      const KoStatsReader::FaceGroup& g = reader.faceGroups()[i];
      const int printed = i == 7 ? 5 : i % 6;
      expectRow(g.group,
                {{"numElements", 7 + 24 * printed}, {"frame_id", f.mFrameId},
                 {"ts", f.mTimestamp}, {"faces_ref_width", f.mFaceRefWidth},
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
      const KoStatsReader::Histogram& hg = reader.histograms()[histogramIndex++];
      expectRow(hg.header, {{"numElements", 35}, {"frameId", f.mFrameId}, {"numBins", 32}},
                what + " histogram");
      ASSERT_EQ(hg.bins.size(), 32u);
      for (int b = 0; b < 32; ++b) EXPECT_EQ(hg.bins[b], f.mHistogram[b]) << what << " bin " << b;
    }
    EXPECT_EQ(histogramIndex, reader.histograms().size());

    // The whole zero-filled block reads the same.
    KoStatsReader whole;
    ASSERT_TRUE(whole.parse(out.data(), out.size())) << whole.error();
    EXPECT_EQ(whole.toJson(), reader.toJson());
  }
}

TEST(KoStatsReader, RejectsMalformedRecords) {
  const Bytes good = sessionOnly("8, 00.00.002, v1, 1, 0, 12, 0, 0");
  const size_t second = good[0] | (good[1] << 8);  // offset of 'ssdt'

  Bytes b = good;
  set32(b, second, 5);
  EXPECT_TRUE(failsWith(b, "below 12"));
  b = good;
  set32(b, second + 8, 2);
  EXPECT_TRUE(failsWith(b, "unsupported segment version 2 of ssdt"));
  b = good;
  set32(b, second + 4, 0x41424344);
  EXPECT_TRUE(failsWith(b, "unknown segment type 0x41424344"));
  b = good;
  b[second - 1] = 'x';  // the session header loses its NUL
  EXPECT_TRUE(failsWith(b, "not one NUL-terminated text"));
  b = good;
  b.resize(b.size() - 3);  // a cut record
  EXPECT_TRUE(failsWith(b, "beyond the record end"));
  b = good;
  b.push_back(1);
  EXPECT_TRUE(failsWith(b, "truncated segment header"));
  b = good;
  b.insert(b.end(), 20, 0);
  b.back() = 9;
  EXPECT_TRUE(failsWith(b, "data after zero fill"));
  EXPECT_TRUE(failsWith(Bytes(), "empty record"));

  b.clear();
  segment(b, android::KO_EXIF_SESSION_DATA, "8, 00.00.002, v1, 1, 0, 12, 0, 0");
  EXPECT_TRUE(failsWith(b, "data without its header segment"));

  b = sessionOnly("8, 00.00.002, v1, 1, 0, 12, 0, 0");
  segment(b, android::KO_EXIF_SESSION_HEADER, kSessionHeader);
  EXPECT_TRUE(failsWith(b, "second header segment sshd"));

  EXPECT_TRUE(failsWith(sessionOnly("3, 00.00.002, v1"), "numElements 3"));
  EXPECT_TRUE(failsWith(sessionOnly("8, 00.00.003, v1, 1, 0, 12, 0, 0"),
                        "unsupported exifFormatVersion"));
  EXPECT_TRUE(failsWith(sessionOnly("8, 00.00.002, v1, 1, 0, 2147483648, 0, 0"),
                        "bad value \"2147483648\" for jobId %d"));
  EXPECT_TRUE(failsWith(sessionOnly("8, 00.00.002, v1, 1, 0, 12, 0"), "truncated session line"));
  EXPECT_TRUE(failsWith(
      sessionOnly("8, 00.00.002, v1, 1, 0, 12, 0, 0, 8, 00.00.002, v1, 1, 0, 12, 0, 0"),
      "more than one session line"));

  // A face group claiming six printed faces, and a histogram with a wrong bin count. Their
  // header segments are empty (as when their writer failed): the writer's tables are used.
  std::string group = std::to_string(7 + 24 * 6) + ", 1, 2, 3, 4, 6, 0";
  for (int k = 0; k < 6 * 24; ++k) group += ", 1";
  b.clear();
  emptySegment(b, android::KO_EXIF_FACE_HEADER);
  segment(b, android::KO_EXIF_FACE_DATA, group);
  EXPECT_TRUE(failsWith(b, "face group with 6 printed faces"));
  b.clear();
  emptySegment(b, android::KO_EXIF_FACE_HEADER);
  segment(b, android::KO_EXIF_FACE_DATA, "8, 1, 2, 3, 4, 0, 0, 5");
  EXPECT_TRUE(failsWith(b, "is not 7 + 24 per face"));
  b.clear();
  emptySegment(b, android::KO_EXIF_HISTOGRAM_HEADER);
  segment(b, android::KO_EXIF_HISTOGRAM_DATA, "5, 100, 3, 1, 2");
  EXPECT_TRUE(failsWith(b, "numBins 3 but 2 bin values"));

  // A raw image segment with nothing after its segment header, alone or ending a record: its
  // header line is missing, and nothing may be read past the record's last byte.
  const Bytes emptyRaw = {0x0c, 0, 0, 0, 0x74, 0x64, 0x77, 0x72, 0x01, 0, 0, 0};
  EXPECT_TRUE(failsWith(emptyRaw, "raw image segment without a header line in rwdt at"));
  b = sessionOnly("8, 00.00.002, v1, 1, 0, 12, 0, 0");
  b.insert(b.end(), emptyRaw.begin(), emptyRaw.end());
  EXPECT_TRUE(failsWith(b, "raw image segment without a header line"));
  // Every other kind of segment may be empty (its writer failed) at the end of a record.
  const std::pair<uint32_t, uint32_t> sections[] = {
      {android::KO_EXIF_SEQUENCE_HEADER, android::KO_EXIF_SEQUENCE_DATA},
      {android::KO_EXIF_FRAME_HEADER, android::KO_EXIF_FRAME_DATA},
      {android::KO_EXIF_FACE_HEADER, android::KO_EXIF_FACE_DATA},
      {android::KO_EXIF_HISTOGRAM_HEADER, android::KO_EXIF_HISTOGRAM_DATA},
      {android::KO_EXIF_RAW_HEADER, 0u}};
  for (const std::pair<uint32_t, uint32_t>& pair : sections) {
    const uint32_t type = pair.second != 0 ? pair.second : pair.first;
    b = sessionOnly("8, 00.00.002, v1, 1, 0, 12, 0, 0");
    emptySegment(b, pair.first);
    if (pair.second != 0) emptySegment(b, pair.second);
    KoStatsReader reader;
    EXPECT_TRUE(reader.parse(b.data(), b.size())) << std::hex << type << ": " << reader.error();
  }
}
