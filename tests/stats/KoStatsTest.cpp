// The statistics record: the writer's texts, segment container, byte budget, descriptor output
// and raw image sections; the reader's round trip of written records and its rejection of
// malformed ones.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "KoStatsData.h"
#include "KoStatsReader.h"
#include "StatsTestFrames.h"
#include "StderrCapture.h"
#include "TempFile.h"

using android::KoFrameData;
using android::KoStatsData;
using android::KoStatsReader;
using android::sp;
using namespace kovane_test;

namespace {

const int kExif = KoStatsData::EXIF_BUFFER_SIZE;
typedef std::vector<uint8_t> Bytes;

// An output buffer of `size` bytes followed by a guard region.
struct GuardedBuffer {
  explicit GuardedBuffer(int size) : mSize(size), mBytes(size + 4096, 0) { memset(&mBytes[size], 0xA5, 4096); }
  char* data() { return reinterpret_cast<char*>(mBytes.data()); }
  bool guardIntact() const {
    return std::all_of(mBytes.begin() + mSize, mBytes.end(), [](unsigned char b) { return b == 0xA5; });
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

uint32_t le32(const void* p) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  return b[0] | (b[1] << 8) | (b[2] << 16) | (static_cast<uint32_t>(b[3]) << 24);
}

int countOf(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) ++n;
  return n;
}

// Segment types of a record, in order, as the reader (which checks each segment) finds them.
std::vector<std::string> segmentTypes(const char* out, int length) {
  KoStatsReader reader;
  EXPECT_TRUE(reader.parse(out, length)) << reader.error();
  std::vector<std::string> types;
  for (const auto& seg : reader.segments()) types.push_back(KoStatsReader::typeName(seg.type));
  return types;
}

void put32(Bytes& b, uint32_t v) {
  for (int k = 0; k < 4; ++k) b.push_back(static_cast<uint8_t>(v >> (8 * k)));
}

void set32(Bytes& b, size_t at, uint32_t v) {
  for (int k = 0; k < 4; ++k) b[at + k] = static_cast<uint8_t>(v >> (8 * k));
}

// One segment holding text and its NUL; without text, nothing after the segment header (as
// when its writer failed).
void segment(Bytes& b, uint32_t type, const char* text = nullptr) {
  const size_t length = text ? strlen(text) + 1 : 0;
  for (uint32_t word : {static_cast<uint32_t>(12 + length), type, 1u}) put32(b, word);
  if (text) b.insert(b.end(), text, text + length);
}

const char kSession[] = "8, 00.00.002, v1, 1, 0, 12, 0, 0";

Bytes sessionOnly(const std::string& line) {
  Bytes b;
  segment(b, android::KO_EXIF_SESSION_HEADER,
          "numElements %d, exifFormatVersion %s, libKoCoreVersion %s, bestShot.enabled %d, "
          "video.enabled %d, jobId %d, hdrMode %d, isLateMode %d");
  segment(b, android::KO_EXIF_SESSION_DATA, line.c_str());
  return b;
}

std::vector<int64_t> ints(const KoStatsReader::Row& row) {
  std::vector<int64_t> out;
  for (const auto& field : row.fields) out.push_back(field.second.i);
  return out;
}

// A row printed back: integers, floats to three decimals and texts joined by ", ".
std::string reprinted(const KoStatsReader::Row& row) {
  std::string out;
  for (const auto& field : row.fields) {
    const KoStatsReader::Value& v = field.second;
    char number[64];
    snprintf(number, sizeof(number), "%.3f", v.f);
    out += (out.empty() ? "" : ", ") + (v.type == KoStatsReader::VALUE_INT     ? std::to_string(v.i)
                                        : v.type == KoStatsReader::VALUE_FLOAT ? std::string(number)
                                                                               : v.text);
  }
  return out;
}

const char kFrame0Line[] =
    "43, 100, 1234567890123, 3.500, 10.250, 40.750, 120.125, 0.000, 0.000, 0, 0.000, -9.810, "
    "0.333, -0.000, 0.010, 0.333, 359.900, -45.500, 12.000, -1, -200, 0, 100, 200, 65535, 40, 0, "
    "1, NoZSL, 0, 1000, 0.500, -2.750, 1.125, 0.000, -7.500, 99.999, 0, 300, 0, 2, 250.250, "
    "0.033";

}  // namespace

TEST(KoStatsExifHistory, SegmentsInOrderToTheBufferAndTheDescriptorEvenOnOverflow) {
  KoStatsData stats;
  History h(frames(3, 1));
  android::KoGenFrameData_t summary = makeSummary();
  std::unique_ptr<android::KoSequenceData> seq(new android::KoSequenceData());
  android::bestShotInfo_t bs;
  fillSequence(*seq, bs);
  GuardedBuffer out(kExif);
  TempFile file;
  const int n = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, seq.get(), &bs, file.fd, 0);
  EXPECT_EQ(segmentTypes(out.data(), n), (std::vector<std::string>{"sshd", "ssdt", "sqhd", "sqdt", "frhd", "frdt",
                                                                    "fahd", "fadt", "hghd", "hgdt"}));
  // First segment: length 134 + 12, then the type as "dhss", then version 1.
  const unsigned char first[12] = {146, 0, 0, 0, 'd', 'h', 's', 's', 1, 0, 0, 0};
  EXPECT_EQ(memcmp(out.data(), first, 12), 0);
  EXPECT_EQ(file.bytes(), Bytes(out.mBytes.begin(), out.mBytes.begin() + n));
  // A record that reaches the capacity exactly counts as an overflow, as does a smaller one: 0 is
  // returned, logged once, nothing is written past the buffer, and the descriptor gets it all.
  GuardedBuffer fits(n + 1);  // one byte more than the record is enough
  EXPECT_EQ(stats.genExifHistory(fits.data(), n + 1, &summary, h.snapshot, seq.get(), &bs, -1, 0), n);
  for (int size : {n, 200}) {
    GuardedBuffer small(size);
    TempFile overflowFile;
    StderrCapture cap;
    EXPECT_EQ(stats.genExifHistory(small.data(), size, &summary, h.snapshot, seq.get(), &bs, overflowFile.fd, 0), 0);
    EXPECT_EQ(countOf(cap.finish(), "writeExifDataSeg: buffer overflow  size="), 1) << size;
    EXPECT_TRUE(small.guardIntact()) << size;
    EXPECT_EQ(overflowFile.bytes(), file.bytes()) << size;
  }
  // A sequence without its decision record keeps the segment, empty.
  StderrCapture cap;
  EXPECT_EQ(stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, seq.get(), nullptr, -1, 0),
            n - static_cast<int>(strlen(kSequenceLine)) - 1);
  EXPECT_NE(cap.finish().find("genSeqData: best shot structure NULL"), std::string::npos);
  EXPECT_TRUE(out.guardIntact());
}

// Found fault: a record near the budget overflowed the buffer and came out empty. The face text
// grows a digit at a time so that the record's total passes through the budget's last bytes:
// every record must fit and read back, dropping whole sections (histograms first, then faces).
// With every printed face value at 10 digits the faces go and the histograms stay.
TEST(KoStatsExifHistory, RecordsAtTheBudgetAreWholeAndDropWholeSections) {
  KoStatsData stats;
  android::KoGenFrameData_t summary = makeSummary();
  std::vector<sp<KoFrameData>> fs = frames(30, 5);
  auto widen = [&fs](int extra) {  // the eleven printed coordinates of every face, a digit at a time
    for (sp<KoFrameData>& f : fs) {
      for (uint32_t k = 0; k < f->mFaceData.record.numFaces; ++k) {
        android::KO_cam_face_t& c = f->mFaceData.record.faces[k];
        for (int32_t* v : {&c.id, &c.left, &c.top, &c.width, &c.height, &c.leftEyeX, &c.leftEyeY, &c.rightEyeX,
                           &c.rightEyeY, &c.mouthX, &c.mouthY}) {
          const int digits = std::min(9, extra);
          extra -= digits;
          *v = 1;
          for (int d = 0; d < digits; ++d) *v *= 10;
        }
      }
    }
  };
  std::vector<int> sweep;
  for (int extra = 5500; extra <= 5600; ++extra) sweep.push_back(extra);    // histograms stop fitting
  for (int extra = 12250; extra <= 12350; ++extra) sweep.push_back(extra);  // faces stop fitting
  const int kAllWide = 30 * 5 * 11 * 9;
  sweep.push_back(kAllWide);
  int whole = 0, withoutHistograms = 0, withoutFaces = 0;
  for (int extra : sweep) {
    SCOPED_TRACE(extra);
    widen(extra);
    History h(fs);
    GuardedBuffer out(kExif);
    StderrCapture cap;
    const int n = stats.genExifHistory(out.data(), kExif, &summary, h.snapshot, nullptr, nullptr, -1, 0);
    const std::string log = cap.finish();
    EXPECT_EQ(log.find("buffer overflow"), std::string::npos) << log;
    ASSERT_GT(n, 0);
    EXPECT_TRUE(out.guardIntact());
    KoStatsReader reader;
    ASSERT_TRUE(reader.parse(out.data(), n)) << reader.error();
    ASSERT_EQ(reader.segments().size(), 8u);
    EXPECT_EQ(reader.frames().size(), 30u);
    const size_t faces = reader.faceGroups().size(), histograms = reader.histograms().size();
    EXPECT_TRUE(faces == 0 || faces == 30) << faces;
    EXPECT_TRUE(histograms == 0 || histograms == 30) << histograms;
    withoutHistograms += histograms == 0, withoutFaces += faces == 0, whole += faces == 30 && histograms == 30;
    if (histograms == 0) { EXPECT_NE(log.find("genHistogramData maxSize reached"), std::string::npos); }
    if (faces == 0) { EXPECT_NE(log.find("genFaceData maxSize reached"), std::string::npos); }
    if (extra == kAllWide) { EXPECT_EQ(0u, faces); EXPECT_EQ(30u, histograms); }
  }
  EXPECT_GT(whole, 0);  // the sweep crossed both limits
  EXPECT_GT(withoutHistograms, 0);
  EXPECT_GT(withoutFaces, 0);
}

namespace {

// Frame 0 (captured, 4:3 640x480 image with orientation 270) gives the 640x360 band of its
// image; frame 1 (best shot, 640x360) its whole image. Byte n of an image holds (n * 7 + n / 251).
struct RawSetup {
  RawSetup() {
    std::vector<sp<KoFrameData>> fs = frames(2, 1);
    for (int i = 0; i < 2; ++i) {
      const uint32_t height = i == 0 ? 480 : 360;
      const size_t bytes = 640u * height * 3 / 2;
      uint8_t* px = static_cast<uint8_t*>(fcvMemAlloc(static_cast<unsigned>(bytes), 16));
      for (size_t n = 0; n < bytes; ++n) px[n] = static_cast<uint8_t>((n * 7 + n / 251) & 0xff);
      fs[i]->mHeight = height;
      fs[i]->mDownscaledImage = new android::ABuffer(px, bytes);
      fs[i]->mAnalysisImage = px + 640 * ((height - 360) / 2);
      image[i] = px;
    }
    fs[0]->mOrientation = 270;
    hist.reset(new History(fs));
    summary = makeSummary();
    summary.capturedFrameIndex = 0, summary.capturedFrameId = 100;
    summary.bestShotGenerated = 1, summary.bestShotFrameIndex = 1;
  }
  std::unique_ptr<History> hist;
  android::KoGenFrameData_t summary;
  const uint8_t* image[2];
};

// Frame 0's band: the luma rows from 60 and the chroma rows from 30 of each plane.
void expectRawImages(const KoStatsReader& reader, const RawSetup& setup) {
  ASSERT_EQ(reader.rawImages().size(), 2u);
  const KoStatsReader::RawImage& a = reader.rawImages()[0];
  const KoStatsReader::RawImage& b = reader.rawImages()[1];
  EXPECT_EQ(ints(a.header), (std::vector<int64_t>{11, 2, 640, 360, 345600, 1, 270, 100, 1234567890123, 0, 1}));
  EXPECT_EQ(ints(b.header), (std::vector<int64_t>{11, 2, 640, 360, 345600, 1, 0, 101, 1234567923456, 1, 3}));
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
  KoStatsData stats;
  RawSetup setup;
  auto record = [&](char* out, int size, int fd, int mode) {
    return stats.genExifHistory(out, size, &setup.summary, setup.hist->snapshot, nullptr, nullptr, fd, mode);
  };
  std::vector<char> scratch(kExif);  // the record without raw images
  int base = record(scratch.data(), kExif, -1, 0);
  ASSERT_GT(base, 0);
  // Mode 1, every frame. The raw data is laid over the 'rwhd' segment, but the result counts both.
  const int capacity = 1 << 20;
  GuardedBuffer out(capacity);
  TempFile file;
  const int n = record(out.data(), capacity, file.fd, 1);
  EXPECT_TRUE(out.guardIntact());
  const uint32_t seg0 = le32(out.data() + base);
  EXPECT_EQ(le32(out.data() + base + 4), 0x72776474u);
  EXPECT_EQ(seg0, 12u + strlen(out.data() + base + 12) + 1 + 345600u);
  EXPECT_EQ(n, base + 150 + static_cast<int>(seg0 + le32(out.data() + base + seg0)));
  KoStatsReader fromBuffer;
  ASSERT_TRUE(fromBuffer.parse(out.data(), n)) << fromBuffer.error();
  EXPECT_EQ(fromBuffer.segments().size(), 10u);
  expectRawImages(fromBuffer, setup);
  // The file has every segment one after the other, 'rwhd' included.
  EXPECT_EQ(file.bytes().size(), static_cast<size_t>(n));

  // Without room for the pixels in the buffer they go to the file only.
  GuardedBuffer small(base + 1000);
  TempFile smallFile;
  StderrCapture cap;
  EXPECT_EQ(record(small.data(), base + 1000, smallFile.fd, 1), base + 150);
  EXPECT_EQ(countOf(cap.finish(), "genRawYUVFrameData maxSize reached = "), 2);
  EXPECT_TRUE(small.guardIntact());
  const Bytes smallWritten = smallFile.bytes();
  KoStatsReader fromFile;
  ASSERT_TRUE(fromFile.parse(smallWritten.data(), smallWritten.size())) << fromFile.error();
  ASSERT_EQ(fromFile.segments().size(), 11u);
  expectRawImages(fromFile, setup);

  // Mode 2 with the best shot being the captured frame: it is emitted twice, with the frame's type.
  setup.summary.bestShotFrameIndex = 0;
  base = record(scratch.data(), kExif, -1, 0);
  std::fill(out.mBytes.begin(), out.mBytes.begin() + capacity, 0);
  const int minimal = record(out.data(), capacity, -1, 2);
  const uint32_t seg = le32(out.data() + base);
  EXPECT_EQ(minimal, base + 150 + 2 * static_cast<int>(seg));
  KoStatsReader reader;
  ASSERT_TRUE(reader.parse(out.data(), minimal)) << reader.error();
  ASSERT_EQ(reader.rawImages().size(), 2u);
  for (const KoStatsReader::RawImage& image : reader.rawImages()) EXPECT_EQ(ints(image.header).back(), 3);

  // Mode 3 is unknown: only the raw header is added, and the error is logged.
  std::fill(out.mBytes.begin(), out.mBytes.begin() + capacity, 0);
  StderrCapture unknownCap;
  EXPECT_EQ(record(out.data(), kExif, -1, 3), base + 150);
  EXPECT_NE(unknownCap.finish().find("Need to pass in correct yuv encode mode (3)"), std::string::npos);
  EXPECT_EQ(le32(out.data() + base + 4), 0x72776864u);
}

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
  fillSequence(*seq, bs);
  // Best shot, captured and reference frame indices, and the labels they give; frames not named
  // are "ZSL" or "NoZSL". When the best shot is the captured frame, the best-shot label wins.
  const struct {
    int best, captured, reference;
    bool generated;
    std::vector<std::pair<int, const char*>> labels;
  } cases[] = {
      {20, 22, 19, true, {{20, "BestShot"}, {22, "CapturedZSL"}, {19, "PseudoCaptured"}}},
      {20, 21, 19, false, {{21, "CapturedNoZSL"}}},
      {20, 20, 20, true, {{20, "BestShot"}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.captured);
    android::KoGenFrameData_t s = makeSummary();
    s.videoEnabled = 1, s.hdrMode = 1, s.isLateMode = c.generated ? 0 : 1;
    s.bestShotGenerated = c.generated, s.bestShotFrameIndex = c.best;
    s.capturedFrameIndex = c.captured, s.capturedFrameId = 100 + c.captured, s.referenceFrameId = 100 + c.reference;
    std::vector<char> out(kExif + 4);
    out[0] = 3;  // as the engine hands it on: 16-bit 3, 16-bit 0, then the record
    const int n = stats.genExifHistory(out.data() + 4, kExif, &s, h.snapshot, seq.get(), &bs, -1, 0);
    ASSERT_GT(n, 20000);  // a full record, every section present
    KoStatsReader reader;
    ASSERT_TRUE(reader.parse(out.data(), n + 4)) << reader.error();
    EXPECT_TRUE(reader.hadExifPrefix());
    ASSERT_EQ(reader.segments().size(), 10u);
    EXPECT_EQ(reprinted(reader.session()),
              "8, 00.00.002, " + std::string(stats.mCoreVersion) + ", 1, 1, 12, 1, " + (c.generated ? "0" : "1"));
    ASSERT_TRUE(reader.hasSequence());
    EXPECT_EQ(reprinted(reader.sequence()), kSequenceLine);

    // Every frame reads back to the text the writer printed for it, with the label of its role.
    ASSERT_EQ(reader.frames().size(), 30u);
    std::vector<char> frameText(kExif), tmp(KoStatsData::LINE_BUFFER_SIZE);
    ASSERT_GT(stats.genFrameData(frameText.data(), tmp.data(), &s, h.snapshot, kExif), 0);
    std::string frames;
    for (int i = 0; i < 30; ++i) {
      frames += (i ? ", " : "") + reprinted(reader.frames()[i]);
      std::string label = i % 3 ? "ZSL" : "NoZSL";
      for (const auto& l : c.labels) label = l.first == i ? l.second : label;
      EXPECT_EQ(label, reader.frames()[i].getText("zsl_bs_capture")) << i;
    }
    EXPECT_EQ(std::string(frameText.data()), frames);
    EXPECT_EQ(reprinted(reader.frames()[0]), kFrame0Line);  // the frame line pinned value for value

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
      ASSERT_EQ(g.faces.size(), static_cast<size_t>(printed));
      for (int k = 0; k < printed; ++k) {  // in column order; int8 fields negative, uint8 above 127
        const android::KO_cam_face_t& c = f.mFaceData.record.faces[k];
        EXPECT_EQ(ints(g.faces[k]),
                  (std::vector<int64_t>{c.id, c.score, c.recognised, c.left, c.top, c.width, c.height, c.leftEyeX,
                                        c.leftEyeY, c.rightEyeX, c.rightEyeY, c.mouthX, c.mouthY, c.leftBlink,
                                        c.rightBlink, c.blinkDetected, c.gazeAngle, c.leftRightGaze, c.topBottomGaze,
                                        c.smileDegree, c.smileConfidence, c.leftRightDir, c.upDownDir, c.rollDir}));
      }
      if (f.mHistogram == nullptr) continue;
      ASSERT_LT(histogramIndex, reader.histograms().size());
      const KoStatsReader::Histogram& hg = reader.histograms()[histogramIndex++];
      EXPECT_EQ(ints(hg.header), (std::vector<int64_t>{35, f.mFrameId, 32}));
      EXPECT_EQ(hg.bins, std::vector<int64_t>(f.mHistogram, f.mHistogram + 32));
    }
    EXPECT_EQ(histogramIndex, reader.histograms().size());
    // The last frame has no histogram: the one before it still ends with its separator.
    const int histogramLength = stats.genHistogramData(frameText.data(), tmp.data(), h.snapshot, kExif);
    EXPECT_EQ(std::string(frameText.data() + histogramLength - 3), ", ");
    // The whole zero-filled block reads the same.
    KoStatsReader whole;
    ASSERT_TRUE(whole.parse(out.data(), out.size())) << whole.error();
    EXPECT_EQ(whole.toJson(), reader.toJson());
  }
}

// Found fault: an empty raw image segment ending a record was read one byte past its end.
TEST(KoStatsReader, RejectsMalformedRecords) {
  using namespace android;
  const Bytes good = sessionOnly(kSession);
  const size_t at = good[0] | (good[1] << 8);  // offset of 'ssdt'
  std::vector<std::pair<Bytes, std::string>> cases;
  auto add = [&cases](const Bytes& b, const char* error) { cases.emplace_back(b, error); };
  Bytes b = good;
  set32(b, at, 5), add(b, "below 12");
  b = good, set32(b, at + 8, 2), add(b, "unsupported segment version 2 of ssdt");
  b = good, set32(b, at + 4, 0x41424344), add(b, "unknown segment type 0x41424344");
  b = good, b[at - 1] = 'x', add(b, "not one NUL-terminated text");  // the session header's NUL
  b = good, b.resize(b.size() - 3), add(b, "beyond the record end");
  b = good, b.push_back(1), add(b, "truncated segment header");
  b = good, b.insert(b.end(), 20, 0), b.back() = 9, add(b, "data after zero fill");
  add(Bytes(), "empty record");
  b.clear(), segment(b, KO_EXIF_SESSION_DATA, kSession), add(b, "data without its header segment");
  b = good, b.insert(b.end(), good.begin(), good.begin() + at), add(b, "second header segment sshd");
  add(sessionOnly("3, 00.00.002, v1"), "numElements 3");
  add(sessionOnly("8, 00.00.003, v1, 1, 0, 12, 0, 0"), "unsupported exifFormatVersion");
  add(sessionOnly("8, 00.00.002, v1, 1, 0, 2147483648, 0, 0"), "bad value \"2147483648\" for jobId %d");
  add(sessionOnly("8, 00.00.002, v1, 1, 0, 12, 0"), "truncated session line");
  add(sessionOnly(std::string(kSession) + ", " + kSession), "more than one session line");
  // Face groups and a histogram whose header segments are empty (their writer failed): the
  // writer's tables are used.
  std::string group = std::to_string(7 + 24 * 6) + ", 1, 2, 3, 4, 6, 0";
  for (int k = 0; k < 6 * 24; ++k) group += ", 1";
  b.clear(), segment(b, KO_EXIF_FACE_HEADER), segment(b, KO_EXIF_FACE_DATA, group.c_str());
  add(b, "face group with 6 printed faces");
  b.clear(), segment(b, KO_EXIF_FACE_HEADER), segment(b, KO_EXIF_FACE_DATA, "8, 1, 2, 3, 4, 0, 0, 5");
  add(b, "is not 7 + 24 per face");
  b.clear(), segment(b, KO_EXIF_HISTOGRAM_HEADER), segment(b, KO_EXIF_HISTOGRAM_DATA, "5, 100, 3, 1, 2");
  add(b, "numBins 3 but 2 bin values");
  // A raw image segment with nothing after its segment header, alone or ending a record.
  b.clear(), segment(b, KO_EXIF_RAW_DATA), add(b, "raw image segment without a header line in rwdt at");
  b = good, segment(b, KO_EXIF_RAW_DATA), add(b, "raw image segment without a header line");
  for (const auto& c : cases) {
    KoStatsReader reader;
    EXPECT_FALSE(reader.parse(c.first.data(), c.first.size())) << c.second;
    EXPECT_NE(reader.error().find(c.second), std::string::npos) << reader.error();
  }
  // Every other kind of segment may be empty (its writer failed) at the end of a record.
  b = good;
  for (uint32_t type : {KO_EXIF_SEQUENCE_HEADER, KO_EXIF_SEQUENCE_DATA, KO_EXIF_FRAME_HEADER, KO_EXIF_FRAME_DATA,
                        KO_EXIF_FACE_HEADER, KO_EXIF_FACE_DATA, KO_EXIF_HISTOGRAM_HEADER, KO_EXIF_HISTOGRAM_DATA,
                        KO_EXIF_RAW_HEADER}) {
    segment(b, type);
  }
  KoStatsReader reader;
  EXPECT_TRUE(reader.parse(b.data(), b.size())) << reader.error();
}
