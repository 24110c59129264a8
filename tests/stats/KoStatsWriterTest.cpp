// The statistics record writer: format strings, header lines and section texts byte for byte,
// and the segment container (order, wire bytes, the EXIF budget, overflow, raw image sections).
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "DexKoVersion.h"
#include "KoStatsData.h"
#include "KoStatsReader.h"
#include "StatsTestFrames.h"
#include "StderrCapture.h"
#include "TempFile.h"

using android::KoFrameData;
using android::KoHeaderPair_t;
using android::KoStatsData;
using android::KoStatsReader;
using android::sp;
using kovane_test::countOf;
using kovane_test::FrameOptions;
using kovane_test::History;
using kovane_test::le32;
using kovane_test::makeFrame;
using kovane_test::makeSummary;
using kovane_test::TempFile;

namespace {

const int kExif = KoStatsData::EXIF_BUFFER_SIZE;
const int kGuard = 4096;
const unsigned char kGuardByte = 0xA5;

// An output buffer of `size` bytes followed by a guard region.
struct GuardedBuffer {
  explicit GuardedBuffer(int size) : mSize(size), mBytes(size + kGuard, 0) {
    memset(mBytes.data() + size, kGuardByte, kGuard);
  }
  char* data() { return reinterpret_cast<char*>(mBytes.data()); }
  bool guardIntact() const {
    return std::all_of(mBytes.begin() + mSize, mBytes.end(), [](unsigned char b) { return b == kGuardByte; });
  }
  int mSize;
  std::vector<unsigned char> mBytes;
};

std::vector<sp<KoFrameData>> frames(int count, int faces) {
  std::vector<sp<KoFrameData>> out;
  for (int i = 0; i < count; ++i) {
    FrameOptions opt;
    opt.faces = faces;
    opt.zsl = i % 3 != 0;
    out.push_back(makeFrame(i, opt));
  }
  return out;
}

// Segment types of a record, in order, as the reader (which checks each segment) finds them.
std::vector<std::string> segmentTypes(const char* out, int length) {
  KoStatsReader reader;
  EXPECT_TRUE(reader.parse(out, length)) << reader.error();
  std::vector<std::string> types;
  for (const auto& seg : reader.segments()) types.push_back(KoStatsReader::typeName(seg.type));
  return types;
}

class KoStatsFormat : public ::testing::Test {
 protected:
  KoStatsFormat() : dst(8192, '#'), tmp(KoStatsData::LINE_BUFFER_SIZE) {}
  std::string text() const { return std::string(dst.data()); }
  std::string header(const KoHeaderPair_t* table, int count, int* length) {
    *length = stats.genHeader(dst.data(), tmp.data(), table, count, 8192);
    return text();
  }

  KoStatsData stats;
  std::vector<char> dst, tmp;
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

TEST(KoStatsExifHistory, SegmentsInOrderWithAndWithoutSequence) {
  KoStatsData stats;
  History h(frames(3, 1));
  android::KoGenFrameData_t summary = makeSummary();
  GuardedBuffer out(kExif);
  const int n = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, nullptr, nullptr, -1, 0);
  ASSERT_GT(n, 0);
  EXPECT_EQ(segmentTypes(out.data(), n), (std::vector<std::string>{"sshd", "ssdt", "frhd", "frdt",
                                                                    "fahd", "fadt", "hghd", "hgdt"}));
  // First segment: length 134 + 12, then the type as "dhss", then version 1.
  const unsigned char first[12] = {146, 0, 0, 0, 'd', 'h', 's', 's', 1, 0, 0, 0};
  EXPECT_EQ(memcmp(out.data(), first, 12), 0);
  EXPECT_TRUE(out.guardIntact());

  std::unique_ptr<android::KoSequenceData> seq(new android::KoSequenceData());
  android::bestShotInfo_t bs;
  kovane_test::fillSequence(*seq, bs);
  const int m = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, seq.get(), &bs, -1, 0);
  ASSERT_GT(m, 0);
  EXPECT_EQ(segmentTypes(out.data(), m),
            (std::vector<std::string>{"sshd", "ssdt", "sqhd", "sqdt", "frhd", "frdt", "fahd",
                                      "fadt", "hghd", "hgdt"}));
  const int sqhd = static_cast<int>(le32(out.data()) + le32(out.data() + le32(out.data())));
  EXPECT_EQ(le32(out.data() + sqhd), 845u + 12u);
  const int sqdt = sqhd + 857;
  EXPECT_EQ(std::string(out.data() + sqdt + 12), kovane_test::kSequenceLine);
  EXPECT_EQ(m, n + 857 + 12 + static_cast<int>(strlen(kovane_test::kSequenceLine)) + 1);

  // A sequence without its decision record keeps the segment, empty.
  kovane_test::StderrCapture cap;
  EXPECT_EQ(
      stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, seq.get(), nullptr, -1, 0),
      n + 857 + 12);
  EXPECT_NE(cap.finish().find("genSeqData: best shot structure NULL"), std::string::npos);
  EXPECT_EQ(le32(out.data() + sqdt), 12u);
}

TEST(KoStatsExifHistory, DescriptorOutputAndOverflow) {
  KoStatsData stats;
  History h(frames(5, 2));
  android::KoGenFrameData_t summary = makeSummary();
  GuardedBuffer big(kExif);
  TempFile file;
  const int n = stats.genExifHistory(big.data(), kExif, &summary, h.snapshot, nullptr, nullptr, file.fd, 0);
  ASSERT_GT(n, 0);
  std::vector<uint8_t> written = file.bytes();
  ASSERT_EQ(static_cast<int>(written.size()), n);
  EXPECT_EQ(memcmp(written.data(), big.data(), n), 0);

  // Descriptor 0 is no file: nothing is written to it.
  TempFile stdinFile;
  const int saved = dup(0);
  ASSERT_GE(saved, 0);
  ASSERT_EQ(dup2(stdinFile.fd, 0), 0);
  GuardedBuffer fits(n + 1);  // one byte more than the record is enough
  const int m = stats.genExifHistory(fits.data(), n + 1, &summary, h.snapshot, nullptr, nullptr, 0, 0);
  dup2(saved, 0);
  close(saved);
  EXPECT_EQ(m, n);
  EXPECT_TRUE(stdinFile.bytes().empty());
  EXPECT_TRUE(fits.guardIntact());

  // A record that reaches the capacity exactly counts as an overflow, as does a smaller one:
  // 0 is returned, logged once, nothing is written past the buffer, and the descriptor still
  // receives the whole record.
  for (int size : {n, n - 1, 200}) {
    GuardedBuffer out(size);
    TempFile overflowFile;
    kovane_test::StderrCapture cap;
    EXPECT_EQ(stats.genExifHistory(out.data(), size, &summary, h.snapshot, nullptr, nullptr, overflowFile.fd, 0), 0)
        << size;
    const std::string log = cap.finish();
    EXPECT_EQ(countOf(log, "writeExifDataSeg: buffer overflow  size="), 1) << log;
    EXPECT_NE(log.find("exifBufSize = " + std::to_string(size)), std::string::npos) << log;
    EXPECT_TRUE(out.guardIntact()) << size;
    written = overflowFile.bytes();
    ASSERT_EQ(static_cast<int>(written.size()), n);
    EXPECT_EQ(memcmp(written.data(), big.data(), n), 0);
  }
}

// Records near the budget: the face text grows a digit at a time, so that the record's total
// passes through the budget's last bytes. Every record fits and reads back; what does not fit is
// dropped a section at a time (the histograms first, then the faces), and the writer says so.
// With every printed face value at 10 digits the face text alone outgrows what the frame text
// leaves: the faces go and the histograms stay.
TEST(KoStatsExifHistory, RecordsAtTheBudgetAreWholeAndDropWholeSections) {
  KoStatsData stats;
  android::KoGenFrameData_t summary = makeSummary();
  std::vector<sp<KoFrameData>> fs = frames(30, 5);
  // The eleven printed coordinates of every face, widened to 10 digits one digit at a time.
  auto widen = [&fs](int extra) {
    for (sp<KoFrameData>& f : fs) {
      for (uint32_t k = 0; k < f->mFaceData.record.numFaces; ++k) {
        android::KO_cam_face_t& c = f->mFaceData.record.faces[k];
        for (int32_t* v : {&c.id, &c.left, &c.top, &c.width, &c.height, &c.leftEyeX, &c.leftEyeY,
                           &c.rightEyeX, &c.rightEyeY, &c.mouthX, &c.mouthY}) {
          const int digits = std::min(9, extra);
          extra -= digits;
          *v = 1;
          for (int d = 0; d < digits; ++d) *v *= 10;
        }
      }
    }
  };
  // Digits added where the histograms stop fitting, and where the faces do.
  std::vector<int> sweep;
  for (int extra = 5500; extra <= 5600; ++extra) sweep.push_back(extra);
  for (int extra = 12250; extra <= 12350; ++extra) sweep.push_back(extra);
  const int kAllWide = 30 * 5 * 11 * 9;
  sweep.push_back(kAllWide);
  int whole = 0, withoutHistograms = 0, withoutFaces = 0;
  for (int extra : sweep) {
    SCOPED_TRACE(extra);
    widen(extra);
    History h(fs);
    GuardedBuffer out(kExif);
    kovane_test::StderrCapture cap;
    const int n = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, nullptr, nullptr, -1, 0);
    const std::string log = cap.finish();
    EXPECT_EQ(log.find("buffer overflow"), std::string::npos) << log;
    ASSERT_GT(n, 0);
    ASSERT_LT(n, kExif);
    EXPECT_TRUE(out.guardIntact());
    KoStatsReader reader;
    ASSERT_TRUE(reader.parse(out.data(), n)) << reader.error();
    ASSERT_EQ(reader.segments().size(), 8u);
    EXPECT_EQ(reader.frames().size(), 30u);
    const size_t faces = reader.faceGroups().size(), histograms = reader.histograms().size();
    EXPECT_TRUE(faces == 0 || faces == 30) << faces;
    EXPECT_TRUE(histograms == 0 || histograms == 30) << histograms;
    if (histograms == 0) {
      ++withoutHistograms;
      EXPECT_NE(log.find("genHistogramData maxSize reached"), std::string::npos) << log;
    }
    if (faces == 0) {
      ++withoutFaces;
      EXPECT_NE(log.find("genFaceData maxSize reached"), std::string::npos) << log;
    }
    if (faces == 30 && histograms == 30) ++whole;
    if (extra == kAllWide) {
      EXPECT_EQ(0u, faces);
      EXPECT_EQ(30u, histograms);
    }
  }
  // The sweep crossed both limits.
  EXPECT_GT(whole, 0);
  EXPECT_GT(withoutHistograms, 0);
  EXPECT_GT(withoutFaces, 0);
}

// ---- Raw image sections

namespace {

struct RawSetup {
  RawSetup() {
    // Frame 0 is 4:3 (640x480, the band is cut out), frame 1 is 640x360 (taken whole).
    std::vector<sp<KoFrameData>> fs = frames(2, 1);
    kovane_test::attachImage(fs[0], 640, 480);
    kovane_test::attachImage(fs[1], 640, 360);
    fs[0]->mOrientation = 270;
    image[0] = fs[0]->mDownscaledImage->data();
    image[1] = fs[1]->mDownscaledImage->data();
    hist.reset(new History(fs));
    summary = makeSummary();
    summary.capturedFrameIndex = 0, summary.capturedFrameId = 100;
    summary.bestShotGenerated = 1, summary.bestShotFrameIndex = 1;
  }
  std::unique_ptr<History> hist;
  android::KoGenFrameData_t summary;
  const uint8_t* image[2];
};

// The values of a row, joined by ", ".
std::string values(const KoStatsReader::Row& row) {
  std::string out;
  for (const auto& field : row.fields) {
    out += (out.empty() ? "" : ", ") + std::to_string(field.second.i);
  }
  return out;
}

// Frame 0 (captured, type 1) gives the 640x360 band of its 640x480 image: the luma rows from 60
// and the chroma rows from 30 of each plane; frame 1 (best shot, type 3) its whole image.
void expectRawImages(const KoStatsReader& reader, const RawSetup& setup) {
  ASSERT_EQ(reader.rawImages().size(), 2u);
  const KoStatsReader::RawImage& a = reader.rawImages()[0];
  const KoStatsReader::RawImage& b = reader.rawImages()[1];
  EXPECT_EQ(values(a.header), "11, 2, 640, 360, 345600, 1, 270, 100, 1234567890123, 0, 1");
  EXPECT_EQ(values(b.header), "11, 2, 640, 360, 345600, 1, 0, 101, 1234567923456, 1, 3");
  ASSERT_EQ(a.pixelSize, 345600u);
  ASSERT_EQ(b.pixelSize, 345600u);
  const uint8_t* band = reader.data() + a.pixelOffset;
  EXPECT_EQ(memcmp(band, setup.image[0] + 640 * 60, 640 * 360), 0);
  EXPECT_EQ(memcmp(band + 230400, setup.image[0] + 307200 + 9600, 57600), 0);
  EXPECT_EQ(memcmp(band + 288000, setup.image[0] + 384000 + 9600, 57600), 0);
  EXPECT_EQ(memcmp(reader.data() + b.pixelOffset, setup.image[1], 345600), 0);
}

}  // namespace

TEST(KoStatsExifHistory, RawModes) {
  // Mode 1: every frame.
  KoStatsData stats;
  RawSetup setup;
  auto record = [&](char* out, int size, int fd, int mode) {
    return stats.genExifHistory(out, size, &setup.summary, setup.hist->snapshot, nullptr, nullptr, fd, mode);
  };
  std::vector<char> scratch(kExif);  // the record without raw images
  int base = record(scratch.data(), kExif, -1, 0);
  ASSERT_GT(base, 0);
  const int capacity = 1 << 20;
  GuardedBuffer out(capacity);
  TempFile file;
  const int n = record(out.data(), capacity, file.fd, 1);
  EXPECT_TRUE(out.guardIntact());
  // The raw data is laid over the 'rwhd' segment, but the result counts both.
  const uint32_t seg0 = le32(out.data() + base);
  const uint32_t seg1 = le32(out.data() + base + seg0);
  EXPECT_EQ(le32(out.data() + base + 4), 0x72776474u);
  const int line0 = static_cast<int>(strlen(out.data() + base + 12)) + 1;
  EXPECT_EQ(seg0, 12u + line0 + 345600u);
  EXPECT_EQ(n, base + 150 + static_cast<int>(seg0) + static_cast<int>(seg1));

  // The buffer (zero after the record) reads back without the overlaid 'rwhd'.
  KoStatsReader fromBuffer;
  ASSERT_TRUE(fromBuffer.parse(out.data(), n)) << fromBuffer.error();
  EXPECT_EQ(fromBuffer.segments().size(), 10u);
  expectRawImages(fromBuffer, setup);

  // The file has every segment one after the other, 'rwhd' included.
  const std::vector<uint8_t> written = file.bytes();
  ASSERT_EQ(written.size(), static_cast<size_t>(n));
  KoStatsReader fromFile;
  ASSERT_TRUE(fromFile.parse(written.data(), written.size())) << fromFile.error();
  ASSERT_EQ(fromFile.segments().size(), 11u);
  EXPECT_EQ(KoStatsReader::typeName(fromFile.segments()[8].type), "rwhd");
  EXPECT_EQ(fromFile.segments()[8].size, 150u);
  expectRawImages(fromFile, setup);

  // Without room for the pixels in the buffer they go to the file only.
  GuardedBuffer small(base + 1000);
  TempFile smallFile;
  kovane_test::StderrCapture cap;
  EXPECT_EQ(record(small.data(), base + 1000, smallFile.fd, 1), base + 150);
  const std::string log = cap.finish();
  EXPECT_EQ(countOf(log, "genRawYUVFrameData maxSize reached = "), 2) << log;
  EXPECT_NE(log.find(", maxSize=1000"), std::string::npos) << log;
  EXPECT_TRUE(small.guardIntact());
  const std::vector<uint8_t> smallWritten = smallFile.bytes();
  ASSERT_TRUE(fromFile.parse(smallWritten.data(), smallWritten.size())) << fromFile.error();
  expectRawImages(fromFile, setup);

  // Mode 2 with the best shot being the captured frame: it is emitted twice.
  setup.summary.bestShotFrameIndex = 0;
  base = record(scratch.data(), kExif, -1, 0);
  std::fill(out.mBytes.begin(), out.mBytes.begin() + capacity, 0);
  const int minimal = record(out.data(), capacity, -1, 2);
  const uint32_t seg = le32(out.data() + base);
  EXPECT_EQ(le32(out.data() + base + seg), seg);
  EXPECT_EQ(minimal, base + 150 + 2 * static_cast<int>(seg));
  EXPECT_TRUE(out.guardIntact());
  KoStatsReader reader;
  ASSERT_TRUE(reader.parse(out.data(), minimal)) << reader.error();
  ASSERT_EQ(reader.rawImages().size(), 2u);
  for (const KoStatsReader::RawImage& image : reader.rawImages()) {  // the type is the frame's
    EXPECT_EQ(values(image.header), "11, 2, 640, 360, 345600, 1, 270, 100, 1234567890123, 0, 3");
  }

  // Mode 3 is unknown: only the raw header is added, and the error is logged.
  std::fill(out.mBytes.begin(), out.mBytes.begin() + capacity, 0);
  kovane_test::StderrCapture unknownCap;
  EXPECT_EQ(record(out.data(), kExif, -1, 3), base + 150);
  EXPECT_NE(unknownCap.finish().find("genExifHistory, Error: Need to pass in correct yuv encode mode (3)"),
            std::string::npos);
  EXPECT_EQ(le32(out.data() + base + 4), 0x72776864u);
  EXPECT_EQ(le32(out.data() + base + 150), 0u);
}

TEST(KoStatsExifHistory, ConcurrentAssembliesAgree) {
  // The writer keeps no state between calls: assemblies on several threads give one record.
  KoStatsData stats;
  History h(frames(30, 3));
  android::KoGenFrameData_t summary = makeSummary();
  std::vector<char> reference(kExif);
  const int n = stats.genExifHistory(reference.data(), kExif, &summary, h.snapshot, nullptr, nullptr, -1, 0);
  ASSERT_GT(n, 0);
  std::atomic<int> mismatches(0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      std::vector<char> out(kExif);
      for (int run = 0; run < 10; ++run) {
        const int m = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, nullptr, nullptr, -1, 0);
        if (m != n || memcmp(out.data(), reference.data(), n) != 0) ++mismatches;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0);
}
