// The record reader: records written by KoStatsData read back value for value, and malformed
// records are rejected.
#include <gtest/gtest.h>

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
void segment(Bytes& b, uint32_t type, const std::string& text) {
  put32(b, static_cast<uint32_t>(12 + text.size() + 1));
  put32(b, type);
  put32(b, 1);
  b.insert(b.end(), text.begin(), text.end());
  b.push_back(0);
}

// A segment with nothing after its segment header, as when its writer failed.
void emptySegment(Bytes& b, uint32_t type) {
  for (uint32_t word : {12u, type, 1u}) put32(b, word);
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

// The values of a row whose every column is an integer.
std::vector<int64_t> ints(const KoStatsReader::Row& row) {
  std::vector<int64_t> out;
  for (const auto& field : row.fields) {
    EXPECT_EQ(KoStatsReader::VALUE_INT, field.second.type) << field.first;
    out.push_back(field.second.i);
  }
  return out;
}

// The keys of a row, and those of rows [first, last) of a writer's table.
std::vector<std::string> keys(const KoStatsReader::Row& row) {
  std::vector<std::string> out;
  for (const auto& field : row.fields) out.push_back(field.first);
  return out;
}
std::vector<std::string> keys(const android::KoHeaderPair_t* table, int first, int last) {
  std::vector<std::string> out;
  for (int k = first; k < last; ++k) out.push_back(table[k].key);
  return out;
}

// The printed values of a face in column order; int8 fields negative, uint8 fields above 127.
std::vector<int64_t> faceValues(const android::KO_cam_face_t& c) {
  return {c.id, c.score, c.recognised, c.left, c.top, c.width, c.height, c.leftEyeX,
          c.leftEyeY, c.rightEyeX, c.rightEyeY, c.mouthX, c.mouthY, c.leftBlink, c.rightBlink,
          c.blinkDetected, c.gazeAngle, c.leftRightGaze, c.topBottomGaze, c.smileDegree,
          c.smileConfidence, c.leftRightDir, c.upDownDir, c.rollDir};
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
  struct Case { android::KoGenFrameData_t s; std::vector<std::pair<int, const char*>> labels; };
  std::vector<Case> cases(3, Case{makeSummary(), {}});
  // Best shot, captured frame with ZSL, and a reference frame standing in for it.
  android::KoGenFrameData_t& s0 = cases[0].s;
  s0.videoEnabled = 1, s0.hdrMode = 1, s0.camPosition = 0, s0.bestShotGenerated = 1, s0.bestShotFrameIndex = 20;
  s0.capturedFrameIndex = 22, s0.capturedFrameId = 122, s0.referenceFrameId = 119;
  cases[0].labels = {{20, "BestShot"}, {22, "CapturedZSL"}, {19, "PseudoCaptured"}};
  // The same without a generated best shot, and the captured frame without ZSL.
  cases[1].s = s0;
  cases[1].s.isLateMode = 1, cases[1].s.bestShotGenerated = 0;
  cases[1].s.capturedFrameIndex = 21, cases[1].s.capturedFrameId = 121;
  cases[1].labels = {{21, "CapturedNoZSL"}};
  // The best shot is the captured frame: the best-shot label wins.
  cases[2].s = s0;
  cases[2].s.capturedFrameIndex = 20, cases[2].s.capturedFrameId = 120, cases[2].s.referenceFrameId = 120;
  cases[2].labels = {{20, "BestShot"}};

  for (const Case& c : cases) {
    std::vector<std::string> labels(30);
    for (int i = 0; i < 30; ++i) labels[i] = i % 3 ? "ZSL" : "NoZSL";
    for (const auto& l : c.labels) labels[l.first] = l.second;
    android::KoGenFrameData_t s = c.s;

    std::vector<char> out(KoStatsData::EXIF_BUFFER_SIZE + 4);
    out[0] = 3;  // as the engine hands it on: 16-bit 3, 16-bit 0, then the record
    const int n = stats.genExifHistory(out.data() + 4, KoStatsData::EXIF_BUFFER_SIZE, &s, h.snapshot, seq.get(), &bs,
                                       -1, 0);
    ASSERT_GT(n, 20000);  // a full record, every section present
    KoStatsReader reader;
    ASSERT_TRUE(reader.parse(out.data(), n + 4)) << reader.error();
    EXPECT_TRUE(reader.hadExifPrefix());
    ASSERT_EQ(reader.segments().size(), 10u);

    std::string session = "8, 00.00.002, " + std::string(stats.mCoreVersion);
    for (int v : {int(s.bestShotEnabled), int(s.videoEnabled), s.jobId, int(s.hdrMode), int(s.isLateMode)}) {
      session += ", " + std::to_string(v);
    }
    EXPECT_EQ(reprinted(reader.session()), session);
    EXPECT_EQ(keys(reader.session()), keys(KoStatsData::sSessionDataHeader, 0, 8));
    ASSERT_TRUE(reader.hasSequence());
    // The sequence line is checked byte for byte against its inputs by the layout test.
    EXPECT_EQ(reprinted(reader.sequence()), kovane_test::kSequenceLine);

    // Every frame reads back to the text the writer printed for it (whose values the format
    // test checks against their frame), with the label of its role.
    ASSERT_EQ(reader.frames().size(), 30u);
    std::vector<char> frameText(KoStatsData::EXIF_BUFFER_SIZE), tmp(KoStatsData::LINE_BUFFER_SIZE);
    ASSERT_GT(stats.genFrameData(frameText.data(), tmp.data(), &s, h.snapshot, KoStatsData::EXIF_BUFFER_SIZE), 0);
    std::string frames;
    for (int i = 0; i < 30; ++i) {
      const KoStatsReader::Row& row = reader.frames()[i];
      frames += (i ? ", " : "") + reprinted(row);
      EXPECT_EQ(labels[i], row.getText("zsl_bs_capture")) << i;
      EXPECT_EQ(keys(row), keys(KoStatsData::sFrameDataHeader, 0, KoStatsData::FRAME_ROWS));
    }
    EXPECT_EQ(std::string(frameText.data()), frames);

    ASSERT_EQ(reader.faceGroups().size(), 30u);
    size_t histogramIndex = 0;
    for (int i = 0; i < 30; ++i) {
      const KoFrameData& f = *fs[i];
      SCOPED_TRACE("frame " + std::to_string(i));
      const KoStatsReader::FaceGroup& g = reader.faceGroups()[i];
      const int printed = i == 7 ? 5 : i % 6;
      EXPECT_EQ(ints(g.group), (std::vector<int64_t>{7 + 24 * printed, f.mFrameId, f.mTimestamp, f.mFaceRefWidth,
                                                     f.mFaceRefHeight, f.mFaceData.record.numFaces,
                                                     f.mFaceData.numBlinkedPredicted}));
      EXPECT_EQ(keys(g.group), keys(KoStatsData::sFaceDataHeader, 0, 7));
      ASSERT_EQ(g.faces.size(), static_cast<size_t>(printed));
      for (int k = 0; k < printed; ++k) {
        EXPECT_EQ(ints(g.faces[k]), faceValues(f.mFaceData.record.faces[k])) << k;
        EXPECT_EQ(keys(g.faces[k]), keys(KoStatsData::sFaceDataHeader, 7, KoStatsData::FACE_ROWS));
      }

      if (f.mHistogram == nullptr) continue;
      ASSERT_LT(histogramIndex, reader.histograms().size());
      const KoStatsReader::Histogram& hg = reader.histograms()[histogramIndex++];
      EXPECT_EQ(ints(hg.header), (std::vector<int64_t>{35, f.mFrameId, 32}));
      EXPECT_EQ(hg.bins, std::vector<int64_t>(f.mHistogram, f.mHistogram + 32));
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

  // Faults of the segment container, each made in a good record.
  const struct {
    void (*spoil)(Bytes& b, size_t second);
    const char* error;
  } spoiled[] = {
      {[](Bytes& b, size_t at) { set32(b, at, 5); }, "below 12"},
      {[](Bytes& b, size_t at) { set32(b, at + 8, 2); }, "unsupported segment version 2 of ssdt"},
      {[](Bytes& b, size_t at) { set32(b, at + 4, 0x41424344); }, "unknown segment type 0x41424344"},
      // The session header loses its NUL.
      {[](Bytes& b, size_t at) { b[at - 1] = 'x'; }, "not one NUL-terminated text"},
      {[](Bytes& b, size_t) { b.resize(b.size() - 3); }, "beyond the record end"},
      {[](Bytes& b, size_t) { b.push_back(1); }, "truncated segment header"},
      {[](Bytes& b, size_t) { b.insert(b.end(), 20, 0), b.back() = 9; }, "data after zero fill"},
  };
  Bytes b;
  for (const auto& c : spoiled) {
    b = good;
    c.spoil(b, second);
    EXPECT_TRUE(failsWith(b, c.error));
  }
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
