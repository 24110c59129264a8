// Session, sequence, frame, face and histogram texts of the statistics record.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "KoStatsData.h"
#include "KoStatsReader.h"
#include "StatsTestFrames.h"
#include "StderrCapture.h"

using android::KoFrameData;
using android::KoStatsData;
using android::KoStatsReader;
using android::sp;
using kovane_test::FrameOptions;
using kovane_test::History;
using kovane_test::makeFrame;
using kovane_test::makeSummary;

namespace {

class KoStatsSections : public ::testing::Test {
 protected:
  KoStatsSections() : dst(8192, '#'), tmp(KoStatsData::LINE_BUFFER_SIZE) {}
  std::string text() const { return std::string(dst.data()); }

  KoStatsData stats;
  std::vector<char> dst;
  std::vector<char> tmp;
};

const char kFrame0Line[] =
    "43, 100, 1234567890123, 3.500, 10.250, 40.750, 120.125, 0.000, 0.000, 0, 0.000, -9.810, "
    "0.333, -0.000, 0.010, 0.333, 359.900, -45.500, 12.000, -1, -200, 0, 100, 200, 65535, 40, 0, "
    "1, NoZSL, 0, 1000, 0.500, -2.750, 1.125, 0.000, -7.500, 99.999, 0, 300, 0, 2, 250.250, "
    "0.033";

// Frame labels of a text, in order.
std::vector<std::string> labels(const std::string& frameText) {
  std::vector<std::string> out;
  std::vector<KoStatsReader::Column> columns;
  KoStatsData stats;
  std::vector<char> dst(2048), tmp(KoStatsData::LINE_BUFFER_SIZE);
  const int n =
      stats.genHeader(dst.data(), tmp.data(), KoStatsData::sFrameDataHeader, 43, 2048);
  EXPECT_GT(n, 0);
  KoStatsReader::splitHeader(dst.data(), columns);
  const std::vector<std::string> tokens = KoStatsReader::splitValues(frameText);
  EXPECT_EQ(tokens.size() % 43, 0u);
  for (size_t row = 0; row + 43 <= tokens.size(); row += 43) out.push_back(tokens[row + 28]);
  return out;
}

}  // namespace

TEST_F(KoStatsSections, SessionLineOfTheExample) {
  strcpy(stats.mCoreVersion, "v1");
  android::KoGenFrameData_t summary = makeSummary();
  const int n = stats.genSessionData(dst.data(), tmp.data(), &summary, 8192);
  EXPECT_EQ(text(), "8, 00.00.002, v1, 1, 0, 12, 0, 0");
  EXPECT_EQ(n, 33);  // 32 characters and the NUL
  summary.videoEnabled = 1;
  summary.hdrMode = 1;
  summary.isLateMode = 1;
  summary.jobId = -99;
  stats.genSessionData(dst.data(), tmp.data(), &summary, 8192);
  EXPECT_EQ(text(), "8, 00.00.002, v1, 1, 1, -99, 1, 1");
}

TEST_F(KoStatsSections, SequenceLine) {
  std::unique_ptr<android::KoSequenceData> seq(new android::KoSequenceData());
  android::bestShotInfo_t bs;
  kovane_test::fillSequence(*seq, bs);
  const int n = stats.genSeqData(dst.data(), tmp.data(), seq.get(), &bs, 8192);
  EXPECT_EQ(text(), kovane_test::kSequenceLine);
  EXPECT_EQ(n, static_cast<int>(strlen(kovane_test::kSequenceLine)) + 1);

  kovane_test::StderrCapture cap;
  EXPECT_EQ(stats.genSeqData(dst.data(), tmp.data(), seq.get(), nullptr, 8192), 0);
  EXPECT_NE(cap.finish().find("genSeqData: best shot structure NULL"), std::string::npos);
}

TEST_F(KoStatsSections, FrameLineValuesInTableOrder) {
  History h({makeFrame(0, FrameOptions())});
  android::KoGenFrameData_t summary = makeSummary();
  const int n = stats.genFrameData(dst.data(), tmp.data(), &summary, h.snapshot, 8192);
  EXPECT_EQ(text(), kFrame0Line);
  EXPECT_EQ(n, static_cast<int>(strlen(kFrame0Line)) + 1);

  // Two frames are joined by ", " with no trailing separator.
  History two({makeFrame(0, FrameOptions()), makeFrame(0, FrameOptions())});
  stats.genFrameData(dst.data(), tmp.data(), &summary, two.snapshot, 8192);
  EXPECT_EQ(text(), std::string(kFrame0Line) + ", " + kFrame0Line);
}

TEST_F(KoStatsSections, CaptureLabels) {
  // Frames 0-3 carry a ZSL buffer, 4 and 5 do not.
  std::vector<sp<KoFrameData>> frames;
  for (int i = 0; i < 6; ++i) {
    FrameOptions opt;
    opt.zsl = i < 4;
    frames.push_back(makeFrame(i, opt));
  }
  History h(frames);
  android::KoGenFrameData_t s = makeSummary();
  s.bestShotGenerated = 1;
  s.bestShotFrameIndex = 1;
  s.capturedFrameIndex = 2;
  s.capturedFrameId = 102;
  s.referenceFrameId = 100;  // frame 0 stands in for the captured frame
  ASSERT_GT(stats.genFrameData(dst.data(), tmp.data(), &s, h.snapshot, 8192), 1);
  EXPECT_EQ(labels(text()), (std::vector<std::string>{"PseudoCaptured", "BestShot", "CapturedZSL",
                                                      "ZSL", "NoZSL", "NoZSL"}));
  // The pseudo-captured frame keeps its own id.
  EXPECT_EQ(KoStatsReader::splitValues(text())[1], "100");

  // Captured frame without ZSL; reference equal to the captured id: no pseudo capture.
  s.capturedFrameIndex = 4;
  s.capturedFrameId = 104;
  s.referenceFrameId = 104;
  stats.genFrameData(dst.data(), tmp.data(), &s, h.snapshot, 8192);
  EXPECT_EQ(labels(text()), (std::vector<std::string>{"ZSL", "BestShot", "ZSL", "ZSL",
                                                      "CapturedNoZSL", "NoZSL"}));

  // The best shot is labelled so even when it is the captured frame.
  s.capturedFrameIndex = 1;
  s.capturedFrameId = 101;
  stats.genFrameData(dst.data(), tmp.data(), &s, h.snapshot, 8192);
  EXPECT_EQ(labels(text())[1], "BestShot");

  // Without a generated best shot neither "BestShot" nor "PseudoCaptured" is given.
  s.bestShotGenerated = 0;
  s.capturedFrameIndex = 2;
  s.capturedFrameId = 102;
  s.referenceFrameId = 100;
  stats.genFrameData(dst.data(), tmp.data(), &s, h.snapshot, 8192);
  EXPECT_EQ(labels(text()), (std::vector<std::string>{"ZSL", "ZSL", "CapturedZSL", "ZSL",
                                                      "NoZSL", "NoZSL"}));
}

TEST_F(KoStatsSections, FaceGroupAndFaceLines) {
  FrameOptions opt;
  opt.faces = 2;
  History h({makeFrame(2, opt)});
  const int n = stats.genFaceData(dst.data(), tmp.data(), h.snapshot, 8192);
  const std::string expected =
      "55, 102, 1234567956789, 1920, 1080, 2, 0, "
      "1020, 20, 200, 200, -60, 70, 80, 21, 22, 23, 24, 25, 26, 100, 128, 0, -10, -30, 30, 20, "
      "250, 20, -20, -90, "
      "1021, -21, 201, 210, -63, 71, 81, 22, 23, 24, 25, 26, 27, 99, 129, 1, -11, -31, 31, 21, "
      "249, 21, -21, -89";
  EXPECT_EQ(text(), expected);
  EXPECT_EQ(n, static_cast<int>(expected.size()) + 1);

  // A last frame without faces ends the section with its group line.
  History h2({makeFrame(2, opt), makeFrame(3, FrameOptions())});
  stats.genFaceData(dst.data(), tmp.data(), h2.snapshot, 8192);
  EXPECT_EQ(text(), expected + ", 7, 103, 1234567990122, 1920, 1080, 0, 1");
}

TEST_F(KoStatsSections, FaceRecordClaimingSevenFacesIsClamped) {
  FrameOptions opt;
  opt.faces = 5;
  opt.claimed = 7;
  History h({makeFrame(4, opt)});
  ASSERT_GT(stats.genFaceData(dst.data(), tmp.data(), h.snapshot, 8192), 1);
  const std::vector<std::string> tokens = KoStatsReader::splitValues(text());
  ASSERT_EQ(tokens.size(), 7u + 5u * 24u);
  EXPECT_EQ(tokens[0], "127");
  EXPECT_EQ(tokens[5], "7");  // detected faces are reported unclamped
  // The last printed face is entry 4; the words after the entries are never printed.
  EXPECT_EQ(tokens[7 + 4 * 24], "1044");
  EXPECT_EQ(text().find("424242"), std::string::npos);
}

TEST_F(KoStatsSections, HistogramGroups) {
  std::vector<sp<KoFrameData>> frames;
  FrameOptions noHist;
  noHist.histogram = false;
  frames.push_back(makeFrame(0, FrameOptions()));
  frames.push_back(makeFrame(1, noHist));
  frames.push_back(makeFrame(2, FrameOptions()));
  for (sp<KoFrameData>& f : frames) {
    if (f->mHistogram == nullptr) continue;
    f->mHistogramBins = 4;
    for (int b = 0; b < 4; ++b) f->mHistogram[b] = f->mFrameId * 10 + b;
  }
  {
    History h(frames);
    const int n = stats.genHistogramData(dst.data(), tmp.data(), h.snapshot, 8192);
    const std::string expected = "7, 100, 4, 1000, 1001, 1002, 1003, 7, 102, 4, 1020, 1021, 1022, 1023";
    EXPECT_EQ(text(), expected);
    EXPECT_EQ(n, static_cast<int>(expected.size()) + 1);
  }
  // An item that is not the last ends with ", " even when only items without histograms follow.
  frames.push_back(makeFrame(3, noHist));
  History h(frames);
  stats.genHistogramData(dst.data(), tmp.data(), h.snapshot, 8192);
  EXPECT_EQ(text(), "7, 100, 4, 1000, 1001, 1002, 1003, 7, 102, 4, 1020, 1021, 1022, 1023, ");
}

TEST_F(KoStatsSections, EmptySnapshotGivesEmptyTexts) {
  History h{std::vector<sp<KoFrameData>>{}};
  android::KoGenFrameData_t summary = makeSummary();
  EXPECT_EQ(stats.genFrameData(dst.data(), tmp.data(), &summary, h.snapshot, 8192), 1);
  EXPECT_EQ(text(), "");
  dst[0] = '#';
  EXPECT_EQ(stats.genFaceData(dst.data(), tmp.data(), h.snapshot, 8192), 1);
  EXPECT_EQ(text(), "");
  dst[0] = '#';
  EXPECT_EQ(stats.genHistogramData(dst.data(), tmp.data(), h.snapshot, 8192), 1);
  EXPECT_EQ(text(), "");
}

TEST_F(KoStatsSections, TextLargerThanMaxSizeIsDropped) {
  std::vector<sp<KoFrameData>> frames;
  for (int i = 0; i < 3; ++i) frames.push_back(makeFrame(0, FrameOptions()));
  History h(frames);
  android::KoGenFrameData_t summary = makeSummary();
  const int full = static_cast<int>(3 * strlen(kFrame0Line) + 4 + 1);
  ASSERT_EQ(stats.genFrameData(dst.data(), tmp.data(), &summary, h.snapshot, 8192), full);
  ASSERT_EQ(stats.genFrameData(dst.data(), tmp.data(), &summary, h.snapshot, full), full);

  std::fill(dst.begin(), dst.end(), '#');
  kovane_test::StderrCapture cap;
  EXPECT_EQ(stats.genFrameData(dst.data(), tmp.data(), &summary, h.snapshot, full - 1), 0);
  const std::string log = cap.finish();
  EXPECT_NE(log.find("genFrameData maxSize reached = " + std::to_string(full) +
                     ", maxSize=" + std::to_string(full - 1)),
            std::string::npos)
      << log;
  EXPECT_EQ(dst[0], '\0');
  for (int i = full - 1; i < static_cast<int>(dst.size()); ++i) ASSERT_EQ(dst[i], '#') << i;
}

TEST_F(KoStatsSections, MissingBuffersAreLogged) {
  History h({makeFrame(0, FrameOptions())});
  android::KoGenFrameData_t summary = makeSummary();
  kovane_test::StderrCapture cap;
  EXPECT_EQ(stats.genSessionData(nullptr, tmp.data(), &summary, 100), 0);
  EXPECT_EQ(stats.genFrameData(dst.data(), nullptr, &summary, h.snapshot, 100), 0);
  EXPECT_EQ(stats.genHistogramData(nullptr, tmp.data(), h.snapshot, 100), 0);
  free(stats.mFaceDataHeaderRepeatFormat);
  stats.mFaceDataHeaderRepeatFormat = nullptr;
  EXPECT_EQ(stats.genFaceData(dst.data(), tmp.data(), h.snapshot, 8192), 0);
  const std::string log = cap.finish();
  EXPECT_NE(log.find("genSessionData: Error: buffers NULL"), std::string::npos);
  EXPECT_NE(log.find("genFrameData: Error: buffers NULL"), std::string::npos);
  EXPECT_NE(log.find("genHistogramData: Error: buffers NULL"), std::string::npos);
  EXPECT_NE(log.find("genFaceData: Error: buffers NULL"), std::string::npos);
}
