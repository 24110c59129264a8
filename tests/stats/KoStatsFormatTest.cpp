// Format strings, header lines and section texts of the statistics record, byte for byte.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "DexKoVersion.h"
#include "KoStatsData.h"
#include "StatsTestFrames.h"
#include "StderrCapture.h"

using android::KoFrameData;
using android::KoHeaderPair_t;
using android::KoStatsData;
using android::sp;
using kovane_test::countOf;
using kovane_test::FrameOptions;
using kovane_test::History;
using kovane_test::makeFrame;
using kovane_test::makeSummary;

namespace {

class KoStatsFormat : public ::testing::Test {
 protected:
  KoStatsFormat() : dst(8192, '#'), tmp(KoStatsData::LINE_BUFFER_SIZE) {}
  std::string text() const { return std::string(dst.data()); }
  std::string header(const KoHeaderPair_t* table, int count, int* length) {
    *length = stats.genHeader(dst.data(), tmp.data(), table, count, 8192);
    return text();
  }

  KoStatsData stats;
  std::vector<char> dst;
  std::vector<char> tmp;
};

const char kFrame0Line[] =
    "43, 100, 1234567890123, 3.500, 10.250, 40.750, 120.125, 0.000, 0.000, 0, 0.000, -9.810, "
    "0.333, -0.000, 0.010, 0.333, 359.900, -45.500, 12.000, -1, -200, 0, 100, 200, 65535, 40, 0, "
    "1, NoZSL, 0, 1000, 0.500, -2.750, 1.125, 0.000, -7.500, 99.999, 0, 300, 0, 2, 250.250, "
    "0.033";

}  // namespace

// The format strings of the session, frame, face, sequence and histogram lines are pinned by
// the lines printed with them (here and in the reader's round trip); the raw image line's
// trailing separator is not.
TEST_F(KoStatsFormat, FormatStringsHeaderLinesAndVersions) {
  EXPECT_STREQ(stats.mRawYUVDataHeaderFormat, "%d, %d, %d, %d, %d, %d, %d, %d, %lld, %d, %d, ");
  char buf[KoStatsData::FORMAT_BUFFER_SIZE];
  EXPECT_EQ(stats.buildFormatString(KoStatsData::sSessionDataHeader, 8, buf, false), 31);
  EXPECT_EQ(stats.buildFormatString(KoStatsData::sHistogramDataHeader, 3, buf, true), 13);

  android::DexKoVersion version;
  const char* coreVersion = nullptr;
  ASSERT_EQ(version.getVersion(&coreVersion), 0);
  EXPECT_STREQ(stats.mCoreVersion, coreVersion);

  // Header lines: their lengths with the NUL, and never a trailing separator.
  struct Case { const KoHeaderPair_t* table; int count; int length; } cases[] = {
      {KoStatsData::sSessionDataHeader, KoStatsData::SESSION_ROWS, 134},
      {KoStatsData::sFrameDataHeader, KoStatsData::FRAME_ROWS, 657},
      {KoStatsData::sFaceDataHeader, KoStatsData::FACE_ROWS, 447},
      {KoStatsData::sSequenceDataHeader, KoStatsData::SEQUENCE_ROWS, 845},
      {KoStatsData::sHistogramDataHeader, KoStatsData::HISTOGRAM_ROWS, 39},
      {KoStatsData::sRawYUVDataHeader, KoStatsData::RAW_ROWS, 138},
  };
  for (const Case& c : cases) {
    int length = 0;
    const std::string line = header(c.table, c.count, &length);
    EXPECT_EQ(length, c.length) << line;
    EXPECT_EQ(line.size() + 1, static_cast<size_t>(c.length));
    EXPECT_EQ(line.rfind("numElements %d, ", 0), 0u) << line;
    EXPECT_NE(line.substr(line.size() - 2), ", ");
    EXPECT_EQ(countOf(line, ", ") + 1, c.count);
  }
  int length = 0;
  EXPECT_EQ(header(KoStatsData::sHistogramDataHeader, 3, &length),
            "numElements %d, frameId %d, numBins %d");
  EXPECT_EQ(header(KoStatsData::sSessionDataHeader, 8, &length),
            "numElements %d, exifFormatVersion %s, libKoCoreVersion %s, bestShot.enabled %d, "
            "video.enabled %d, jobId %d, hdrMode %d, isLateMode %d");
}

TEST_F(KoStatsFormat, SessionLineOfTheExample) {
  strcpy(stats.mCoreVersion, "v1");
  android::KoGenFrameData_t summary = makeSummary();
  EXPECT_EQ(stats.genSessionData(dst.data(), tmp.data(), &summary, 8192), 33);
  EXPECT_EQ(text(), "8, 00.00.002, v1, 1, 0, 12, 0, 0");
}

TEST_F(KoStatsFormat, FrameLinesJoinedAndTextsDroppedBeyondMaxSize) {
  History one({makeFrame(0, FrameOptions())});
  android::KoGenFrameData_t summary = makeSummary();
  EXPECT_EQ(stats.genFrameData(dst.data(), tmp.data(), &summary, one.snapshot, 8192),
            static_cast<int>(strlen(kFrame0Line)) + 1);
  EXPECT_EQ(text(), kFrame0Line);

  // Frames are joined by ", " with no trailing separator.
  History three({makeFrame(0, FrameOptions()), makeFrame(0, FrameOptions()),
                 makeFrame(0, FrameOptions())});
  const std::string all = std::string(kFrame0Line) + ", " + kFrame0Line + ", " + kFrame0Line;
  const int full = static_cast<int>(all.size()) + 1;
  EXPECT_EQ(stats.genFrameData(dst.data(), tmp.data(), &summary, three.snapshot, full), full);
  EXPECT_EQ(text(), all);

  // One byte short: the text is dropped, logged, and nothing at or past maxSize is touched.
  // The same holds for a header line.
  std::fill(dst.begin(), dst.end(), '#');
  kovane_test::StderrCapture cap;
  EXPECT_EQ(stats.genFrameData(dst.data(), tmp.data(), &summary, three.snapshot, full - 1), 0);
  EXPECT_EQ(dst[0], '\0');
  for (int i = full - 1; i < static_cast<int>(dst.size()); ++i) ASSERT_EQ(dst[i], '#') << i;
  std::fill(dst.begin(), dst.end(), '#');
  EXPECT_EQ(stats.genHeader(dst.data(), tmp.data(), KoStatsData::sSessionDataHeader, 8, 133), 0);
  EXPECT_EQ(dst[0], '\0');
  for (int i = 133; i < static_cast<int>(dst.size()); ++i) ASSERT_EQ(dst[i], '#') << i;
  const std::string log = cap.finish();
  EXPECT_NE(log.find("genFrameData maxSize reached = " + std::to_string(full) +
                     ", maxSize=" + std::to_string(full - 1)),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("genHeader maxSize reached = 134, maxSize=133"), std::string::npos) << log;
}

TEST_F(KoStatsFormat, HistogramGroups) {
  FrameOptions noHist;
  noHist.histogram = false;
  std::vector<sp<KoFrameData>> frames = {makeFrame(0, FrameOptions()), makeFrame(1, noHist),
                                         makeFrame(2, FrameOptions()), makeFrame(3, noHist)};
  for (sp<KoFrameData>& f : frames) {
    if (f->mHistogram == nullptr) continue;
    f->mHistogramBins = 4;
    for (int b = 0; b < 4; ++b) f->mHistogram[b] = f->mFrameId * 10 + b;
  }
  const std::string expected =
      "7, 100, 4, 1000, 1001, 1002, 1003, 7, 102, 4, 1020, 1021, 1022, 1023";
  {
    History h({frames[0], frames[1], frames[2]});
    EXPECT_EQ(stats.genHistogramData(dst.data(), tmp.data(), h.snapshot, 8192),
              static_cast<int>(expected.size()) + 1);
    EXPECT_EQ(text(), expected);
  }
  // An item that is not the last ends with ", " even when only items without histograms follow.
  History h(frames);
  stats.genHistogramData(dst.data(), tmp.data(), h.snapshot, 8192);
  EXPECT_EQ(text(), expected + ", ");
}
