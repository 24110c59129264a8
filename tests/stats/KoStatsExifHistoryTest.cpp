// Segment container of the statistics record: order, wire bytes, the EXIF budget, overflow and
// the raw image sections.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
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
using kovane_test::le32;
using kovane_test::makeFrame;
using kovane_test::makeSummary;
using kovane_test::segmentTypes;

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
    for (int i = 0; i < kGuard; ++i) {
      if (mBytes[mSize + i] != kGuardByte) return false;
    }
    return true;
  }
  int mSize;
  std::vector<unsigned char> mBytes;
};

// A temporary file for the descriptor output.
struct TempFile {
  TempFile() : file(tmpfile()) {}
  ~TempFile() {
    if (file) fclose(file);
  }
  int fd() const { return fileno(file); }
  std::vector<uint8_t> content() const {
    std::vector<uint8_t> out;
    lseek(fd(), 0, SEEK_SET);
    uint8_t chunk[65536];
    ssize_t n;
    while ((n = read(fd(), chunk, sizeof(chunk))) > 0) out.insert(out.end(), chunk, chunk + n);
    return out;
  }
  FILE* file;
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

int countOf(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++n;
  return n;
}

}  // namespace

TEST(KoStatsExifHistory, EightSegmentsWithoutSequence) {
  KoStatsData stats;
  History h(frames(3, 1));
  android::KoGenFrameData_t summary = makeSummary();
  GuardedBuffer out(kExif);
  const int n = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, nullptr, nullptr, -1, 0);
  ASSERT_GT(n, 0);
  EXPECT_EQ(segmentTypes(out.data(), n),
            (std::vector<std::string>{"sshd", "ssdt", "frhd", "frdt", "fahd", "fadt", "hghd", "hgdt"}));
  // First segment: length 134 + 12, then the type as "dhss", then version 1.
  const unsigned char first[12] = {146, 0, 0, 0, 'd', 'h', 's', 's', 1, 0, 0, 0};
  EXPECT_EQ(memcmp(out.data(), first, 12), 0);
  EXPECT_EQ(std::string(out.data() + 12),
            "numElements %d, exifFormatVersion %s, libKoCoreVersion %s, bestShot.enabled %d, "
            "video.enabled %d, jobId %d, hdrMode %d, isLateMode %d");
  // Segments follow each other without gaps and add up to the result.
  int pos = 0;
  for (int k = 0; k < 8; ++k) {
    const uint32_t size = le32(out.data() + pos);
    EXPECT_EQ(le32(out.data() + pos + 8), 1u);
    ASSERT_GE(size, 12u);
    // Each payload is its text with the NUL.
    EXPECT_EQ(strlen(out.data() + pos + 12) + 13, size);
    pos += size;
  }
  EXPECT_EQ(pos, n);
  EXPECT_TRUE(out.guardIntact());
}

TEST(KoStatsExifHistory, TenSegmentsWithSequence) {
  KoStatsData stats;
  History h(frames(3, 1));
  android::KoGenFrameData_t summary = makeSummary();
  std::unique_ptr<android::KoSequenceData> seq(new android::KoSequenceData());
  android::bestShotInfo_t bs;
  kovane_test::fillSequence(*seq, bs);
  GuardedBuffer out(kExif);
  const int n = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, seq.get(), &bs, -1, 0);
  ASSERT_GT(n, 0);
  EXPECT_EQ(segmentTypes(out.data(), n),
            (std::vector<std::string>{"sshd", "ssdt", "sqhd", "sqdt", "frhd", "frdt", "fahd",
                                      "fadt", "hghd", "hgdt"}));
  const int sqhd = static_cast<int>(le32(out.data()) + le32(out.data() + le32(out.data())));
  EXPECT_EQ(le32(out.data() + sqhd), 845u + 12u);
  const int sqdt = sqhd + 857;
  EXPECT_EQ(std::string(out.data() + sqdt + 12), kovane_test::kSequenceLine);

  // A sequence without its decision record keeps the segment, empty.
  kovane_test::StderrCapture cap;
  const int m = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, seq.get(), nullptr, -1, 0);
  EXPECT_NE(cap.finish().find("genSeqData: best shot structure NULL"), std::string::npos);
  EXPECT_EQ(m, n - static_cast<int>(strlen(kovane_test::kSequenceLine)) - 1);
  EXPECT_EQ(le32(out.data() + sqdt), 12u);
}

TEST(KoStatsExifHistory, DisabledSectionLeavesAnEmptySegment) {
  KoStatsData stats;
  free(stats.mFaceDataHeaderFormat);
  stats.mFaceDataHeaderFormat = nullptr;
  History h(frames(4, 2));
  android::KoGenFrameData_t summary = makeSummary();
  GuardedBuffer out(kExif);
  const int n = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, nullptr, nullptr, -1, 0);
  ASSERT_GT(n, 0);
  KoStatsReader reader;
  ASSERT_TRUE(reader.parse(out.data(), n)) << reader.error();
  ASSERT_EQ(reader.segments().size(), 8u);
  EXPECT_EQ(reader.segments()[5].size, 12u);  // 'fadt'
  EXPECT_TRUE(reader.faceGroups().empty());
  EXPECT_EQ(reader.frames().size(), 4u);
  EXPECT_EQ(reader.histograms().size(), 4u);
}

TEST(KoStatsExifHistory, OutputSmallerThanTheRecordOverflows) {
  KoStatsData stats;
  History h(frames(5, 2));
  android::KoGenFrameData_t summary = makeSummary();
  GuardedBuffer big(kExif);
  const int n = stats.genExifHistory(big.data(), kExif, &summary, h.snapshot, nullptr, nullptr, -1, 0);
  ASSERT_GT(n, 0);

  // One byte more than the record is enough.
  GuardedBuffer fits(n + 1);
  EXPECT_EQ(stats.genExifHistory(fits.data(), n + 1, &summary, h.snapshot, nullptr, nullptr, -1, 0), n);
  EXPECT_TRUE(fits.guardIntact());

  // A record that reaches the capacity exactly counts as an overflow, as does a smaller one.
  for (int size : {n, n - 1, n - 500, 200}) {
    GuardedBuffer out(size);
    TempFile file;
    kovane_test::StderrCapture cap;
    EXPECT_EQ(stats.genExifHistory(out.data(), size, &summary, h.snapshot, nullptr, nullptr,
                                   file.fd(), 0),
              0)
        << size;
    const std::string log = cap.finish();
    EXPECT_EQ(countOf(log, "writeExifDataSeg: buffer overflow  size="), 1) << log;
    EXPECT_NE(log.find("exifBufSize = " + std::to_string(size)), std::string::npos) << log;
    EXPECT_TRUE(out.guardIntact()) << size;
    // The descriptor still receives the whole record.
    const std::vector<uint8_t> written = file.content();
    ASSERT_EQ(static_cast<int>(written.size()), n);
    EXPECT_EQ(memcmp(written.data(), big.data(), n), 0);
  }
}

namespace {

// Sets the eleven 32-bit face values of every face to `digits`-digit numbers, then widens them
// one by one until the face text has grown by `extra` characters.
void widenFaces(std::vector<sp<KoFrameData>>& fs, int extra) {
  for (sp<KoFrameData>& f : fs) {
    for (int k = 0; k < 5; ++k) {
      android::KO_cam_face_t& face = f->mFaceData.record.faces[k];
      int32_t* values[] = {&face.id, &face.left, &face.top, &face.width, &face.height,
                           &face.leftEyeX, &face.leftEyeY, &face.rightEyeX, &face.rightEyeY,
                           &face.mouthX, &face.mouthY};
      for (int32_t* v : values) {
        const int add = extra > 9 ? 9 : extra;
        int32_t value = 1;
        for (int d = 0; d < add; ++d) value *= 10;
        *v = value;
        extra -= add;
      }
    }
  }
  ASSERT_EQ(extra, 0) << "not enough face values to widen";
}

int sectionLength(const std::function<int(char*, char*)>& gen) {
  std::vector<char> dst(1 << 20), tmp(KoStatsData::LINE_BUFFER_SIZE);
  return gen(dst.data(), tmp.data());
}

}  // namespace

TEST(KoStatsExifHistory, RecordLargerThanTheBudgetOverflows) {
  // 30 frames with 5 faces each whose face text leaves 10 bytes of the 36864-byte budget: the
  // histogram header and data no longer fit, their empty segments push the laid total past
  // the buffer, and the whole record is given up.
  KoStatsData stats;
  android::KoGenFrameData_t summary = makeSummary();
  std::vector<sp<KoFrameData>> fs = frames(30, 5);
  widenFaces(fs, 0);  // one digit each
  int faceText;
  int fixed;
  {
    History h(fs);
    // sshd, ssdt, frhd, frdt and fahd with their segment headers.
    fixed = 134 + 657 + 447 + 5 * 12 +
            sectionLength([&](char* d, char* t) { return stats.genSessionData(d, t, &summary, 1 << 20); }) +
            sectionLength([&](char* d, char* t) {
              return stats.genFrameData(d, t, &summary, h.snapshot, 1 << 20);
            });
    faceText = sectionLength([&](char* d, char* t) { return stats.genFaceData(d, t, h.snapshot, 1 << 20); });
  }
  const int target = kExif - fixed - 12 - 10;
  ASSERT_GT(target, faceText);
  widenFaces(fs, target - faceText);
  History h(fs);
  ASSERT_EQ(sectionLength([&](char* d, char* t) { return stats.genFaceData(d, t, h.snapshot, 1 << 20); }),
            target);

  GuardedBuffer out(kExif);
  kovane_test::StderrCapture cap;
  EXPECT_EQ(stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, nullptr, nullptr, -1, 0), 0);
  const std::string log = cap.finish();
  EXPECT_NE(log.find("genHeader maxSize reached = 17, maxSize=10"), std::string::npos) << log;
  EXPECT_NE(log.find("genHistogramData maxSize reached = "), std::string::npos) << log;
  EXPECT_NE(log.find("genHistogramData maxSize reached = 14, maxSize=-2"), std::string::npos) << log;
  EXPECT_NE(log.find("writeExifDataSeg: buffer overflow  size=36866 exifBufSize = 36864"),
            std::string::npos)
      << log;
  EXPECT_TRUE(out.guardIntact());
  // What was laid before the overflow stays: the first six segments.
  EXPECT_EQ(segmentTypes(out.data(), kExif - 10).size(), 6u);
}

TEST(KoStatsExifHistory, FaceTextLargerThanTheBudgetIsLeftEmpty) {
  KoStatsData stats;
  android::KoGenFrameData_t summary = makeSummary();
  std::vector<sp<KoFrameData>> fs = frames(30, 5);
  widenFaces(fs, 30 * 5 * 11 * 9);  // every 32-bit face value has 10 digits
  History h(fs);
  GuardedBuffer out(kExif);
  kovane_test::StderrCapture cap;
  const int n = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, nullptr, nullptr, -1, 0);
  const std::string log = cap.finish();
  EXPECT_NE(log.find("genFaceData maxSize reached = "), std::string::npos) << log;
  EXPECT_EQ(log.find("buffer overflow"), std::string::npos) << log;
  ASSERT_GT(n, 0);
  ASSERT_LT(n, kExif);
  EXPECT_TRUE(out.guardIntact());
  KoStatsReader reader;
  ASSERT_TRUE(reader.parse(out.data(), n)) << reader.error();
  EXPECT_EQ(reader.frames().size(), 30u);
  EXPECT_TRUE(reader.faceGroups().empty());
  EXPECT_EQ(reader.histograms().size(), 30u);
}

TEST(KoStatsExifHistory, DescriptorReceivesTheRecordAndZeroIsNoFile) {
  KoStatsData stats;
  History h(frames(4, 1));
  android::KoGenFrameData_t summary = makeSummary();
  GuardedBuffer out(kExif);
  TempFile file;
  const int n = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, nullptr, nullptr,
                                     file.fd(), 0);
  ASSERT_GT(n, 0);
  std::vector<uint8_t> written = file.content();
  ASSERT_EQ(static_cast<int>(written.size()), n);
  EXPECT_EQ(memcmp(written.data(), out.data(), n), 0);

  // Without an output buffer everything still goes to the file and 0 is returned.
  TempFile only;
  EXPECT_EQ(stats.genExifHistory(nullptr, 0, &summary, h.snapshot, nullptr, nullptr, only.fd(), 0), 0);
  written = only.content();
  ASSERT_EQ(static_cast<int>(written.size()), n);
  EXPECT_EQ(memcmp(written.data(), out.data(), n), 0);

  // Descriptor 0 is not written to.
  TempFile stdinFile;
  const int saved = dup(0);
  ASSERT_GE(saved, 0);
  ASSERT_EQ(dup2(stdinFile.fd(), 0), 0);
  const int m = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, nullptr, nullptr, 0, 0);
  dup2(saved, 0);
  close(saved);
  EXPECT_EQ(m, n);
  EXPECT_TRUE(stdinFile.content().empty());
}

TEST(KoStatsExifHistory, EncapsulateAndLaySegments) {
  KoStatsData stats;
  char payloadA[] = "abc";
  char payloadB[] = "";
  android::Vector<android::KoDataSegments_t> segs;
  android::KoDataSegments_t seg;
  stats.encapsulateData(&seg, android::KO_EXIF_FRAME_DATA, 4, 1, payloadA);
  EXPECT_EQ(seg.size, 16u);
  EXPECT_EQ(seg.type, 0x66726474u);
  EXPECT_EQ(seg.version, 1u);
  EXPECT_EQ(seg.data, payloadA);
  segs.push_back(seg);
  stats.encapsulateData(&seg, android::KO_EXIF_HISTOGRAM_HEADER, 0, 1, payloadB);
  segs.push_back(seg);
  GuardedBuffer out(64);
  EXPECT_EQ(stats.writeExifDataSeg(out.data(), 64, segs, -1), 28);
  const unsigned char expected[28] = {16, 0, 0, 0, 't', 'd', 'r', 'f', 1, 0, 0, 0, 'a', 'b', 'c', 0,
                                      12, 0, 0, 0, 'd', 'h', 'g', 'h', 1, 0, 0, 0};
  EXPECT_EQ(memcmp(out.data(), expected, 28), 0);
  EXPECT_EQ(out.mBytes[28], 0);
  // 28 bytes into 28: the second segment reaches the end and is not laid.
  GuardedBuffer tight(28);
  EXPECT_EQ(stats.writeExifDataSeg(tight.data(), 28, segs, -1), 0);
  EXPECT_TRUE(tight.guardIntact());
  EXPECT_EQ(tight.mBytes[16], 0);
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
    hist.reset(new History(fs));
    summary = makeSummary();
    summary.capturedFrameIndex = 0;
    summary.capturedFrameId = 100;
    summary.bestShotGenerated = 1;
    summary.bestShotFrameIndex = 1;
  }
  int base(KoStatsData& stats) {
    std::vector<char> out(kExif);
    return stats.genExifHistory(out.data(), kExif, &summary, hist->snapshot, nullptr, nullptr, -1, 0);
  }
  std::unique_ptr<History> hist;
  android::KoGenFrameData_t summary;
};

// The pixel bytes a raw section of a frame of width x height carries (image pattern).
std::vector<uint8_t> expectedPixels(uint32_t width, uint32_t height) {
  std::vector<uint8_t> out;
  auto take = [&](size_t offset, size_t length) {
    for (size_t n = 0; n < length; ++n) out.push_back(kovane_test::imagePattern(offset + n));
  };
  if (static_cast<double>(width) / height < 1.4) {
    const size_t skip = ((height - 360) / 4 * width) / 2;
    take(static_cast<size_t>(width) * ((height - 360) / 2), 640 * 360);
    take(static_cast<size_t>(width) * height + skip, 640 * 360 / 4);
    take(static_cast<size_t>(width) * height * 5 / 4 + skip, 640 * 360 / 4);
  } else {
    take(0, 640 * 360 * 3 / 2);
  }
  return out;
}

void expectRawImages(const KoStatsReader& reader) {
  ASSERT_EQ(reader.rawImages().size(), 2u);
  const std::vector<uint8_t> band = expectedPixels(640, 480);
  const std::vector<uint8_t> whole = expectedPixels(640, 360);
  const KoStatsReader::RawImage& a = reader.rawImages()[0];
  const KoStatsReader::RawImage& b = reader.rawImages()[1];
  ASSERT_EQ(a.pixelSize, 345600u);
  ASSERT_EQ(b.pixelSize, 345600u);
  EXPECT_EQ(memcmp(reader.data() + a.pixelOffset, band.data(), band.size()), 0);
  EXPECT_EQ(memcmp(reader.data() + b.pixelOffset, whole.data(), whole.size()), 0);
  EXPECT_EQ(a.header.getInt("numElements"), 11);
  EXPECT_EQ(a.header.getInt("numFrames"), 2);
  EXPECT_EQ(a.header.getInt("width"), 640);
  EXPECT_EQ(a.header.getInt("height"), 360);
  EXPECT_EQ(a.header.getInt("size"), 345600);
  EXPECT_EQ(a.header.getInt("colorFormat"), 1);
  EXPECT_EQ(a.header.getInt("orientation"), 270);
  EXPECT_EQ(a.header.getInt("frame_id"), 100);
  EXPECT_EQ(a.header.getInt("ts"), 1234567890123LL);
  EXPECT_EQ(a.header.getInt("queue.index"), 0);
  EXPECT_EQ(a.header.getInt("type"), 1);  // the captured frame
  EXPECT_EQ(b.header.getInt("queue.index"), 1);
  EXPECT_EQ(b.header.getInt("type"), 3);  // the best shot
}

}  // namespace

TEST(KoStatsExifHistory, RawModeAllArithmeticAndPixels) {
  KoStatsData stats;
  RawSetup setup;
  const int base = setup.base(stats);
  ASSERT_GT(base, 0);
  const int capacity = 1 << 20;
  GuardedBuffer out(capacity);
  TempFile file;
  const int n = stats.genExifHistory(out.data(), capacity, &setup.summary, setup.hist->snapshot,
                                     nullptr, nullptr, file.fd(), 1);
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
  expectRawImages(fromBuffer);

  // The file has every segment one after the other, 'rwhd' included.
  const std::vector<uint8_t> written = file.content();
  ASSERT_EQ(written.size(), static_cast<size_t>(n));
  KoStatsReader fromFile;
  ASSERT_TRUE(fromFile.parse(written.data(), written.size())) << fromFile.error();
  ASSERT_EQ(fromFile.segments().size(), 11u);
  EXPECT_EQ(KoStatsReader::typeName(fromFile.segments()[8].type), "rwhd");
  EXPECT_EQ(fromFile.segments()[8].size, 150u);
  EXPECT_EQ(fromFile.columns(android::KO_EXIF_RAW_HEADER).size(), 11u);
  expectRawImages(fromFile);
}

TEST(KoStatsExifHistory, RawModeWithoutRoomGoesToTheFileOnly) {
  KoStatsData stats;
  RawSetup setup;
  const int base = setup.base(stats);
  const int capacity = base + 1000;
  GuardedBuffer out(capacity);
  TempFile file;
  kovane_test::StderrCapture cap;
  const int n = stats.genExifHistory(out.data(), capacity, &setup.summary, setup.hist->snapshot,
                                     nullptr, nullptr, file.fd(), 1);
  const std::string log = cap.finish();
  EXPECT_EQ(n, base + 150);
  EXPECT_EQ(countOf(log, "genRawYUVFrameData maxSize reached = "), 2) << log;
  EXPECT_NE(log.find(", maxSize=1000"), std::string::npos) << log;
  EXPECT_TRUE(out.guardIntact());
  const std::vector<uint8_t> written = file.content();
  KoStatsReader reader;
  ASSERT_TRUE(reader.parse(written.data(), written.size())) << reader.error();
  expectRawImages(reader);
}

TEST(KoStatsExifHistory, RawModeMinimalEmitsCapturedThenBestShot) {
  KoStatsData stats;
  RawSetup setup;
  // The best shot is the captured frame: it is emitted twice.
  setup.summary.bestShotFrameIndex = 0;
  const int base = setup.base(stats);
  const int capacity = 1 << 20;
  GuardedBuffer out(capacity);
  const int n = stats.genExifHistory(out.data(), capacity, &setup.summary, setup.hist->snapshot,
                                     nullptr, nullptr, -1, 2);
  const uint32_t seg = le32(out.data() + base);
  EXPECT_EQ(le32(out.data() + base + seg), seg);
  EXPECT_EQ(n, base + 150 + 2 * static_cast<int>(seg));
  KoStatsReader reader;
  ASSERT_TRUE(reader.parse(out.data(), n)) << reader.error();
  ASSERT_EQ(reader.rawImages().size(), 2u);
  EXPECT_EQ(reader.rawImages()[0].header.getInt("queue.index"), 0);
  EXPECT_EQ(reader.rawImages()[1].header.getInt("queue.index"), 0);
  EXPECT_EQ(reader.rawImages()[1].header.getInt("type"), 3);

  // Indices outside the snapshot: no raw data, no log.
  setup.summary.bestShotFrameIndex = 2;
  const int other = setup.base(stats);
  kovane_test::StderrCapture cap;
  EXPECT_EQ(stats.genExifHistory(out.data(), capacity, &setup.summary, setup.hist->snapshot,
                                 nullptr, nullptr, -1, 2),
            other + 150);
  EXPECT_EQ(cap.finish().find("genMinimalYUVData"), std::string::npos);
}

TEST(KoStatsExifHistory, UnknownRawModeAddsOnlyTheRawHeader) {
  KoStatsData stats;
  RawSetup setup;
  const int base = setup.base(stats);
  GuardedBuffer out(kExif);
  kovane_test::StderrCapture cap;
  EXPECT_EQ(stats.genExifHistory(out.data(), kExif, &setup.summary, setup.hist->snapshot, nullptr,
                                 nullptr, -1, 3),
            base + 150);
  EXPECT_NE(cap.finish().find("genExifHistory, Error: Need to pass in correct yuv encode mode (3)"),
            std::string::npos);
  EXPECT_EQ(le32(out.data() + base + 4), 0x72776864u);
  EXPECT_TRUE(out.guardIntact());
}

TEST(KoStatsExifHistory, RawWritersRejectMissingInputs) {
  KoStatsData stats;
  RawSetup setup;
  std::vector<char> tmp(KoStatsData::LINE_BUFFER_SIZE);
  History empty{std::vector<sp<KoFrameData>>{}};
  TempFile file;
  kovane_test::StderrCapture cap;
  EXPECT_EQ(stats.genRawYUVData(nullptr, tmp.data(), &setup.summary, empty.snapshot, -1, 1, 0, true), 0);
  EXPECT_EQ(stats.genMinimalYUVData(nullptr, nullptr, &setup.summary, setup.hist->snapshot, -1, 1, 0, true), 0);
  EXPECT_EQ(stats.genRawYUVFrameData(nullptr, tmp.data(), &setup.summary, nullptr, 1, 0, -1, 1, 0, true), 0);
  // File only: everything goes to the descriptor, nothing is counted.
  EXPECT_EQ(stats.genRawYUVData(nullptr, tmp.data(), &setup.summary, setup.hist->snapshot,
                                file.fd(), 1, 0, true),
            0);
  const std::string log = cap.finish();
  EXPECT_NE(log.find("genRawYUVData: Error: history invalid"), std::string::npos);
  EXPECT_NE(log.find("genMinimalYUVData: Error: buffers NULL"), std::string::npos);
  EXPECT_NE(log.find("genRawYUVFrameData: Error: frameData invalid"), std::string::npos);
  KoStatsReader reader;
  const std::vector<uint8_t> written = file.content();
  ASSERT_TRUE(reader.parse(written.data(), written.size())) << reader.error();
  expectRawImages(reader);
  // Colour format 2 carries the luma only.
  TempFile luma;
  stats.genRawYUVFrameData(nullptr, tmp.data(), &setup.summary,
                           setup.hist->snapshot->mHistory[1]->mFrameData, 2, 1, luma.fd(), 2, 0, true);
  const std::vector<uint8_t> lumaBytes = luma.content();
  ASSERT_TRUE(reader.parse(lumaBytes.data(), lumaBytes.size())) << reader.error();
  ASSERT_EQ(reader.rawImages().size(), 1u);
  EXPECT_EQ(reader.rawImages()[0].pixelSize, 640u * 360u);
  EXPECT_EQ(reader.rawImages()[0].header.getInt("colorFormat"), 2);
}

TEST(KoStatsExifHistory, ConcurrentAssembliesAgree) {
  // The writer keeps no state between calls: assemblies on several threads give one record.
  KoStatsData stats;
  History h(frames(30, 3));
  android::KoGenFrameData_t summary = makeSummary();
  std::vector<char> reference(kExif);
  const int n = stats.genExifHistory(reference.data(), kExif, &summary, h.snapshot, nullptr,
                                     nullptr, -1, 0);
  ASSERT_GT(n, 0);
  std::vector<int> mismatches(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::vector<char> out(kExif);
      for (int run = 0; run < 10; ++run) {
        const int m = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, nullptr,
                                           nullptr, -1, 0);
        if (m != n || memcmp(out.data(), reference.data(), n) != 0) ++mismatches[t];
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}
