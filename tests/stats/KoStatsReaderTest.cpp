// The record reader's checks: sizes, types, versions, pairing, values and counts.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "KoStatsData.h"
#include "KoStatsReader.h"
#include "StatsTestFrames.h"

using android::KoStatsData;
using android::KoStatsReader;
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

const char kSessionHeader[] =
    "numElements %d, exifFormatVersion %s, libKoCoreVersion %s, bestShot.enabled %d, "
    "video.enabled %d, jobId %d, hdrMode %d, isLateMode %d";

Bytes sessionOnly(const std::string& line) {
  Bytes b;
  segment(b, android::KO_EXIF_SESSION_HEADER, kSessionHeader);
  segment(b, android::KO_EXIF_SESSION_DATA, line);
  return b;
}

// A record written by the writer: three frames, one face each.
Bytes written() {
  KoStatsData stats;
  FrameOptions opt;
  opt.faces = 1;
  History h({makeFrame(0, opt), makeFrame(1, opt), makeFrame(2, opt)});
  android::KoGenFrameData_t s = makeSummary();
  std::vector<char> out(KoStatsData::EXIF_BUFFER_SIZE);
  const int n = stats.genExifHistory(out.data(), KoStatsData::EXIF_BUFFER_SIZE, &s, h.snapshot,
                                     nullptr, nullptr, -1, 0);
  EXPECT_GT(n, 0);
  return Bytes(out.begin(), out.begin() + n);
}

::testing::AssertionResult failsWith(const Bytes& b, const std::string& text) {
  KoStatsReader reader;
  if (reader.parse(b.data(), b.size())) return ::testing::AssertionFailure() << "accepted";
  if (reader.error().find(text) == std::string::npos) {
    return ::testing::AssertionFailure() << "error \"" << reader.error() << "\"";
  }
  return ::testing::AssertionSuccess();
}

}  // namespace

TEST(KoStatsReader, SplitsAndConvertsValues) {
  EXPECT_EQ(KoStatsReader::splitValues("a, b, c"), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(KoStatsReader::splitValues("7, 1, "), (std::vector<std::string>{"7", "1"}));
  EXPECT_TRUE(KoStatsReader::splitValues("").empty());

  std::vector<KoStatsReader::Column> c;
  ASSERT_TRUE(KoStatsReader::splitHeader("ts %lld, lux_idx %.3f, zsl_bs_capture %s, zoom %d", c));
  ASSERT_EQ(c.size(), 4u);
  EXPECT_EQ(c[0].type, KoStatsReader::VALUE_INT);
  EXPECT_EQ(c[1].type, KoStatsReader::VALUE_FLOAT);
  EXPECT_EQ(c[1].precision, 3);
  EXPECT_EQ(c[2].type, KoStatsReader::VALUE_TEXT);
  EXPECT_FALSE(KoStatsReader::splitHeader("ts%lld", c));
  EXPECT_FALSE(KoStatsReader::splitHeader("ts %lld,zoom %d", c));
  EXPECT_FALSE(KoStatsReader::splitHeader("ts lld", c));

  ASSERT_TRUE(KoStatsReader::splitHeader("zoom %d, ts %lld, x %.3f", c));
  KoStatsReader::Value v;
  EXPECT_TRUE(KoStatsReader::parseValue("-2147483648", c[0], v));
  EXPECT_EQ(v.i, INT32_MIN);
  EXPECT_FALSE(KoStatsReader::parseValue("2147483648", c[0], v));
  EXPECT_TRUE(KoStatsReader::parseValue("2147483648", c[1], v));
  EXPECT_EQ(v.i, 2147483648LL);
  EXPECT_FALSE(KoStatsReader::parseValue("12a", c[0], v));
  EXPECT_FALSE(KoStatsReader::parseValue("", c[0], v));
  EXPECT_TRUE(KoStatsReader::parseValue("-0.000", c[2], v));
  EXPECT_EQ(v.f, 0.0);
  EXPECT_TRUE(std::signbit(v.f));
  EXPECT_TRUE(KoStatsReader::parseValue("nan", c[2], v));
  EXPECT_FALSE(KoStatsReader::parseValue("1.5x", c[2], v));

  EXPECT_EQ(KoStatsReader::typeName(0x73736864), "sshd");
  EXPECT_EQ(KoStatsReader::typeName(0x72776474), "rwdt");
  EXPECT_EQ(KoStatsReader::typeName(0x12345678), "????");
}

TEST(KoStatsReader, AcceptsWrittenRecordsAndZeroFill) {
  Bytes b = written();
  KoStatsReader reader;
  ASSERT_TRUE(reader.parse(b.data(), b.size())) << reader.error();
  EXPECT_EQ(reader.frames().size(), 3u);
  b.resize(b.size() + 100, 0);
  ASSERT_TRUE(reader.parse(b.data(), b.size())) << reader.error();
  EXPECT_EQ(reader.segments().size(), 8u);
  // A session line alone is a record too.
  const Bytes s = sessionOnly("8, 00.00.002, v1, 1, 0, 12, 0, 0");
  ASSERT_TRUE(reader.parse(s.data(), s.size())) << reader.error();
  EXPECT_EQ(reader.session().getText("libKoCoreVersion"), "v1");
  EXPECT_EQ(reader.session().getInt("jobId"), 12);
  EXPECT_FALSE(reader.hasSequence());
}

TEST(KoStatsReader, RejectsBadSegments) {
  const Bytes good = written();
  const size_t second = good[0] | (good[1] << 8);  // offset of 'ssdt'

  Bytes b = good;
  set32(b, second, 5);
  EXPECT_TRUE(failsWith(b, "below 12"));
  b = good;
  set32(b, second, 1 << 20);
  EXPECT_TRUE(failsWith(b, "beyond the record end"));
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
  b.resize(b.size() - 3);
  EXPECT_TRUE(failsWith(b, "beyond the record end"));
  b = good;
  b.push_back(1);
  EXPECT_TRUE(failsWith(b, "truncated segment header"));
  b = good;
  b.insert(b.end(), 20, 0);
  b.back() = 9;
  EXPECT_TRUE(failsWith(b, "data after zero fill"));
  EXPECT_TRUE(failsWith(Bytes(), "empty record"));
}

TEST(KoStatsReader, RejectsBadPairingAndValues) {
  Bytes b;
  segment(b, android::KO_EXIF_SESSION_DATA, "8, 00.00.002, v1, 1, 0, 12, 0, 0");
  EXPECT_TRUE(failsWith(b, "data without its header segment"));

  b = sessionOnly("8, 00.00.002, v1, 1, 0, 12, 0, 0");
  segment(b, android::KO_EXIF_SESSION_HEADER, kSessionHeader);
  EXPECT_TRUE(failsWith(b, "second header segment sshd"));

  EXPECT_TRUE(failsWith(sessionOnly("3, 00.00.002, v1"), "numElements 3"));
  EXPECT_TRUE(failsWith(sessionOnly("8, 00.00.003, v1, 1, 0, 12, 0, 0"),
                        "unsupported exifFormatVersion"));
  EXPECT_TRUE(failsWith(sessionOnly("8, 00.00.002, v1, 1, x, 12, 0, 0"),
                        "bad value \"x\" for video.enabled %d"));
  EXPECT_TRUE(failsWith(sessionOnly("8, 00.00.002, v1, 1, 0, 12, 0"), "truncated session line"));
  EXPECT_TRUE(failsWith(sessionOnly("8, 00.00.002, v1, 1, 0, 12, 0, 0, 8, 00.00.002, v1, 1, 0, 12, 0, 0"),
                        "more than one session line"));

  // A face group claiming six printed faces, and a histogram with a wrong bin count.
  std::string faceHeader;
  for (int i = 0; i < KoStatsData::FACE_ROWS; ++i) {
    if (i) faceHeader += ", ";
    faceHeader += std::string(KoStatsData::sFaceDataHeader[i].key) + " %d";
  }
  std::string group = std::to_string(7 + 24 * 6) + ", 1, 2, 3, 4, 6, 0";
  for (int k = 0; k < 6 * 24; ++k) group += ", 1";
  b.clear();
  segment(b, android::KO_EXIF_FACE_HEADER, faceHeader);
  segment(b, android::KO_EXIF_FACE_DATA, group);
  EXPECT_TRUE(failsWith(b, "face group with 6 printed faces"));
  b.clear();
  segment(b, android::KO_EXIF_FACE_HEADER, faceHeader);
  segment(b, android::KO_EXIF_FACE_DATA, "8, 1, 2, 3, 4, 0, 0, 5");
  EXPECT_TRUE(failsWith(b, "is not 7 + 24 per face"));
  b.clear();
  segment(b, android::KO_EXIF_HISTOGRAM_HEADER, "numElements %d, frameId %d, numBins %d");
  segment(b, android::KO_EXIF_HISTOGRAM_DATA, "5, 100, 3, 1, 2");
  EXPECT_TRUE(failsWith(b, "numBins 3 but 2 bin values"));
}

TEST(KoStatsReader, EmptySegmentsAndMissingHeadersUseTheWriterTables) {
  // An empty header segment (its writer failed): the data is read with the writer's table.
  Bytes b;
  put32(b, 12);
  put32(b, android::KO_EXIF_HISTOGRAM_HEADER);
  put32(b, 1);
  segment(b, android::KO_EXIF_HISTOGRAM_DATA, "5, 100, 2, 9, 8, 5, 101, 2, 7, 6");
  KoStatsReader reader;
  ASSERT_TRUE(reader.parse(b.data(), b.size())) << reader.error();
  ASSERT_EQ(reader.histograms().size(), 2u);
  EXPECT_EQ(reader.histograms()[1].header.getInt("frameId"), 101);
  EXPECT_EQ(reader.histograms()[1].bins, (std::vector<int64_t>{7, 6}));
  // An empty data segment leaves the section empty.
  b.clear();
  segment(b, android::KO_EXIF_FRAME_HEADER, "numElements %d");
  put32(b, 12);
  put32(b, android::KO_EXIF_FRAME_DATA);
  put32(b, 1);
  ASSERT_TRUE(reader.parse(b.data(), b.size())) << reader.error();
  EXPECT_TRUE(reader.frames().empty());
}

TEST(KoStatsReader, ReadsAFile) {
  const Bytes good = written();
  char name[] = "/tmp/kostats_reader_XXXXXX";
  const int fd = mkstemp(name);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, good.data(), good.size()), static_cast<ssize_t>(good.size()));
  close(fd);
  KoStatsReader reader;
  EXPECT_TRUE(reader.parseFile(name)) << reader.error();
  EXPECT_EQ(reader.frames().size(), 3u);
  unlink(name);
  EXPECT_FALSE(reader.parseFile(name));
  EXPECT_NE(reader.error().find("cannot open"), std::string::npos);
}
