// Key tables, format strings and header lines of the statistics record.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "DexKoVersion.h"
#include "KoStatsData.h"
#include "KoStatsReader.h"
#include "StderrCapture.h"

using android::KoHeaderPair_t;
using android::KoStatsData;
using android::KoStatsReader;

namespace {

int countOf(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++n;
  return n;
}

std::string header(KoStatsData& stats, const KoHeaderPair_t* table, int count, int* length) {
  std::vector<char> dst(4096, 'x');
  std::vector<char> tmp(KoStatsData::LINE_BUFFER_SIZE);
  *length = stats.genHeader(dst.data(), tmp.data(), table, count, 4096);
  return std::string(dst.data());
}

}  // namespace

TEST(KoStatsFormat, DerivedFormatStrings) {
  KoStatsData stats;
  ASSERT_NE(stats.mSessionDataHeaderFormat, nullptr);
  EXPECT_STREQ(stats.mSessionDataHeaderFormat, "%d, %s, %s, %d, %d, %d, %d, %d");
  EXPECT_STREQ(stats.mHistogramDataHeaderFormat, "%d, %d, %d, ");
  EXPECT_STREQ(stats.mRawYUVDataHeaderFormat,
               "%d, %d, %d, %d, %d, %d, %d, %d, %lld, %d, %d, ");
  EXPECT_STREQ(stats.mFaceDataHeaderFormat, "%d, %d, %lld, %d, %d, %d, %d");
  std::string repeat = "%d";
  for (int i = 1; i < 24; ++i) repeat += ", %d";
  EXPECT_EQ(std::string(stats.mFaceDataHeaderRepeatFormat), repeat);
  ASSERT_NE(stats.mFrameDataHeaderFormat, nullptr);
  EXPECT_EQ(strlen(stats.mFrameDataHeaderFormat) + 1, 219u);
  EXPECT_EQ(countOf(stats.mFrameDataHeaderFormat, "%"), 43);
  EXPECT_EQ(countOf(stats.mSequenceDataHeaderFormat, "%"), 34);
  EXPECT_EQ(std::string(stats.mSequenceDataHeaderFormat).substr(0, 14), "%d, %d, %lld, ");
}

TEST(KoStatsFormat, BuildFormatStringLengths) {
  KoStatsData stats;
  char buf[KoStatsData::FORMAT_BUFFER_SIZE];
  EXPECT_EQ(stats.buildFormatString(KoStatsData::sSessionDataHeader, 8, buf, false), 31);
  EXPECT_EQ(stats.buildFormatString(KoStatsData::sHistogramDataHeader, 3, buf, true), 13);
  EXPECT_EQ(stats.buildFormatString(KoStatsData::sFrameDataHeader, 43, buf, false), 219);
  // The same table with and without the trailing separator differs by exactly ", ".
  EXPECT_EQ(stats.buildFormatString(KoStatsData::sSessionDataHeader, 8, buf, true), 33);
  EXPECT_STREQ(buf, "%d, %s, %s, %d, %d, %d, %d, %d, ");
  // An empty table gives the empty text.
  memset(buf, 'x', sizeof(buf));
  EXPECT_EQ(stats.buildFormatString(KoStatsData::sSessionDataHeader, 0, buf, true), 1);
  EXPECT_STREQ(buf, "");
}

TEST(KoStatsFormat, BuildFormatStringFailures) {
  KoStatsData stats;
  {
    kovane_test::StderrCapture cap;
    EXPECT_EQ(stats.buildFormatString(KoStatsData::sSessionDataHeader, 8, nullptr, false), 0);
    EXPECT_NE(cap.finish().find("buildFormatString: buf NULL"), std::string::npos);
  }
  // 43 pieces of "%lld, " need 259 bytes: the buffer stays empty.
  std::vector<KoHeaderPair_t> longTable(60, KoHeaderPair_t{"k", "%lld"});
  char buf[KoStatsData::FORMAT_BUFFER_SIZE];
  memset(buf, 'x', sizeof(buf));
  kovane_test::StderrCapture cap;
  EXPECT_EQ(stats.buildFormatString(longTable.data(), 60, buf, false), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_NE(cap.finish().find("buildFormatString maxSize reached = 259, maxSize=256"),
            std::string::npos);
  // 42 of them fit (253 bytes with NUL, no trailing separator: 251 + 1).
  EXPECT_EQ(stats.buildFormatString(longTable.data(), 42, buf, false), 42 * 6 - 2 + 1);
}

TEST(KoStatsFormat, HeaderLineLengths) {
  KoStatsData stats;
  struct Case {
    const KoHeaderPair_t* table;
    int count;
    int length;
  } cases[] = {
      {KoStatsData::sSessionDataHeader, KoStatsData::SESSION_ROWS, 134},
      {KoStatsData::sFrameDataHeader, KoStatsData::FRAME_ROWS, 657},
      {KoStatsData::sFaceDataHeader, KoStatsData::FACE_ROWS, 447},
      {KoStatsData::sSequenceDataHeader, KoStatsData::SEQUENCE_ROWS, 845},
      {KoStatsData::sHistogramDataHeader, KoStatsData::HISTOGRAM_ROWS, 39},
      {KoStatsData::sRawYUVDataHeader, KoStatsData::RAW_ROWS, 138},
  };
  for (const Case& c : cases) {
    int length = 0;
    const std::string line = header(stats, c.table, c.count, &length);
    EXPECT_EQ(length, c.length) << line;
    EXPECT_EQ(line.size() + 1, static_cast<size_t>(c.length));
    EXPECT_EQ(line.rfind("numElements %d, ", 0), 0u) << line;
    // Never a trailing separator, even where the format string has one.
    EXPECT_NE(line.substr(line.size() - 2), ", ");
    EXPECT_EQ(countOf(line, ", ") + 1, c.count);
  }
  int length = 0;
  EXPECT_EQ(header(stats, KoStatsData::sHistogramDataHeader, 3, &length),
            "numElements %d, frameId %d, numBins %d");
  EXPECT_EQ(header(stats, KoStatsData::sSessionDataHeader, 8, &length),
            "numElements %d, exifFormatVersion %s, libKoCoreVersion %s, bestShot.enabled %d, "
            "video.enabled %d, jobId %d, hdrMode %d, isLateMode %d");
  const std::string face = header(stats, KoStatsData::sFaceDataHeader, 31, &length);
  EXPECT_NE(face.find("face.num_blinked_predicted %d, face.id %d, face.score %d"),
            std::string::npos);
  const std::string faceEnd = ", dir.lr %d, dir.ud %d, dir.roll %d";
  ASSERT_GT(face.size(), faceEnd.size());
  EXPECT_EQ(face.substr(face.size() - faceEnd.size()), faceEnd);
  const std::string frame = header(stats, KoStatsData::sFrameDataHeader, 43, &length);
  EXPECT_NE(frame.find(", ts %lld, "), std::string::npos);
  EXPECT_NE(frame.find(", zsl_bs_capture %s, zsl %d, "), std::string::npos);
}

TEST(KoStatsFormat, HeaderLinesSplitBackIntoTheTables) {
  KoStatsData stats;
  const std::vector<std::pair<const KoHeaderPair_t*, int>> tables = {
      {KoStatsData::sSessionDataHeader, 8},   {KoStatsData::sFrameDataHeader, 43},
      {KoStatsData::sFaceDataHeader, 31},     {KoStatsData::sSequenceDataHeader, 34},
      {KoStatsData::sHistogramDataHeader, 3}, {KoStatsData::sRawYUVDataHeader, 11}};
  for (const auto& t : tables) {
    int length = 0;
    std::vector<KoStatsReader::Column> columns;
    ASSERT_TRUE(KoStatsReader::splitHeader(header(stats, t.first, t.second, &length), columns));
    ASSERT_EQ(columns.size(), static_cast<size_t>(t.second));
    for (int i = 0; i < t.second; ++i) {
      EXPECT_EQ(columns[i].key, t.first[i].key);
      EXPECT_EQ(columns[i].format, t.first[i].format);
    }
  }
  // The per-face rows follow the group rows.
  EXPECT_EQ(KoStatsData::sFaceDataHeaderRepeat, KoStatsData::sFaceDataHeader + 7);
  EXPECT_STREQ(KoStatsData::sFaceDataHeaderRepeat[0].key, "face.id");
  EXPECT_STREQ(KoStatsData::sFaceDataHeader[6].key, "face.num_blinked_predicted");
}

TEST(KoStatsFormat, GenHeaderLimitAndNullInputs) {
  KoStatsData stats;
  std::vector<char> tmp(KoStatsData::LINE_BUFFER_SIZE);
  // dst sits in a larger block: nothing past maxSize may be touched.
  std::vector<char> block(200, '#');
  {
    kovane_test::StderrCapture cap;
    EXPECT_EQ(stats.genHeader(block.data(), tmp.data(), KoStatsData::sSessionDataHeader, 8, 133),
              0);
    EXPECT_NE(cap.finish().find("genHeader maxSize reached = 134, maxSize=133"),
              std::string::npos);
  }
  EXPECT_EQ(block[0], '\0');
  for (size_t i = 133; i < block.size(); ++i) ASSERT_EQ(block[i], '#') << i;
  // Exactly enough room.
  EXPECT_EQ(stats.genHeader(block.data(), tmp.data(), KoStatsData::sSessionDataHeader, 8, 134),
            134);
  EXPECT_EQ(block[133], '\0');
  for (size_t i = 134; i < block.size(); ++i) ASSERT_EQ(block[i], '#') << i;

  kovane_test::StderrCapture cap;
  EXPECT_EQ(stats.genHeader(nullptr, tmp.data(), KoStatsData::sSessionDataHeader, 8, 500), 0);
  EXPECT_NE(cap.finish().find("genHeader, Error: input buffer null"), std::string::npos);
  block[0] = 'x';
  EXPECT_EQ(stats.genHeader(block.data(), tmp.data(), KoStatsData::sSessionDataHeader, 0, 500), 1);
  EXPECT_EQ(block[0], '\0');
}

TEST(KoStatsFormat, CoreVersionComesFromTheAnalysisLibrary) {
  android::DexKoVersion version;
  const char* text = nullptr;
  ASSERT_EQ(version.getVersion(&text), 0);
  KoStatsData stats;
  EXPECT_STREQ(stats.mCoreVersion, text);
  EXPECT_STREQ(KoStatsData::kExifFormatVersion, "00.00.002");
}
