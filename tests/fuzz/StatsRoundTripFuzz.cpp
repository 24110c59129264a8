// The statistics record written from frames, faces, a capture and a decision whose values all
// come from the input: the writer always produces a record (sections that do not fit are
// dropped whole), and the reader parses every record the writer produces, with one frame line
// per frame whenever the frame section is there.
#include <cstdlib>
#include <vector>

#include "FuzzTargets.h"
#include "KoStatsData.h"
#include "KoStatsReader.h"
#include "StatsTestFrames.h"

namespace kovane_fuzz {

namespace {

using android::KoFrameData;
using android::sp;

void fillStats(Bytes& in, android::KO_dataStats_t& s) {
  s = {in.f32(), in.f32(), in.f32(), in.f32(), in.f32()};
}

sp<KoFrameData> frameOf(Bytes& in, int i) {
  kovane_test::FrameOptions opt;
  opt.faces = static_cast<int>(in.below(android::KO_MAX_FACES + 1));
  opt.histogram = in.flag();
  opt.zsl = in.flag();
  sp<KoFrameData> f = kovane_test::makeFrame(i, opt);
  f->mFrameId = in.u32();
  f->mTimestamp = static_cast<int64_t>(in.u32()) << in.below(32);
  fillStats(in, f->mSobelStats);
  fillStats(in, f->mLumaStats);
  fillStats(in, f->mDiffStats);
  f->mZoom = in.u32();
  f->mAccelSample = {in.i32(), in.f32(), in.f32(), in.f32()};
  f->mGyroSample = {in.i32(), in.f32(), in.f32(), in.f32()};
  f->mCafState = static_cast<int16_t>(in.u32());
  f->mLensPos = static_cast<int16_t>(in.u32());
  f->mFeScore = in.i32();
  f->mFacesScore = in.f32();
  f->mBsScore = in.f32();
  for (uint32_t& w : f->mMotionResult) w = in.u32();
  f->mLuxLevel = in.i32();
  f->mLuxIdx = in.f32();
  f->mExpTime = in.f32();
  f->mFaceData.numBlinkedPredicted = in.i32();
  for (int k = 0; k < opt.faces; ++k) {
    android::KO_cam_face_t& c = f->mFaceData.record.faces[k];
    c.id = in.i32();
    c.score = static_cast<int8_t>(in.u8());
    c.left = in.i32();
    c.top = in.i32();
    c.width = in.i32();
    c.height = in.i32();
    c.smileDegree = in.u8();
    c.leftBlink = in.u8();
    c.rightBlink = in.u8();
  }
  if (opt.histogram) {
    for (int b = 0; b < 32; ++b) f->mHistogram[b] = in.u32();
  }
  return f;
}

}  // namespace

int statsRoundTrip(const uint8_t* data, size_t size) {
  Bytes in(data, size);
  std::vector<sp<KoFrameData>> frames;
  const int count = static_cast<int>(in.below(31));
  for (int i = 0; i < count; ++i) frames.push_back(frameOf(in, i));
  kovane_test::History history(frames);

  android::KoGenFrameData_t summary = kovane_test::makeSummary();
  summary.jobId = in.i32();
  summary.bestShotEnabled = in.u8();
  summary.videoEnabled = in.u8();
  summary.bestShotGenerated = in.u8();
  summary.hdrMode = in.u8();
  summary.isLateMode = in.u8();
  summary.capturedFrameId = in.i32();
  summary.capturedFrameIndex = static_cast<int32_t>(in.below(count + 2)) - 1;
  summary.bestShotFrameIndex = static_cast<int32_t>(in.below(count + 2)) - 1;
  summary.referenceFrameId = in.i32();
  summary.jpegReplace = in.i32();
  summary.camPosition = in.i32();

  android::KoSequenceData seq;
  android::bestShotInfo_t best;
  const bool withSequence = in.flag();
  if (withSequence) {
    kovane_test::fillSequence(seq, best);
    seq.mJobId = summary.jobId;
    seq.mVideoMotionScore = in.i32();
    seq.mCapturedFrameIndex = summary.capturedFrameIndex;
    fillStats(in, seq.mFrameSobelStats);
    best.generated = in.u8();
    best.frameIndex = summary.bestShotFrameIndex;
    best.similarityCoeff = in.f32();
    best.expSimilarity = in.f32();
    best.blurDetectCoeff = in.f32();
    best.algBitField = in.u32();
  }

  android::KoStatsData stats;
  std::vector<char> out(android::KoStatsData::EXIF_BUFFER_SIZE);
  const int n = stats.genExifHistory(out.data(), static_cast<int>(out.size()), &summary, history.snapshot,
                                     withSequence ? &seq : nullptr, withSequence ? &best : nullptr, -1, 0);
  if (n <= 0 || n >= static_cast<int>(out.size())) abort();  // the record always fits
  android::KoStatsReader reader;
  if (!reader.parse(out.data(), static_cast<size_t>(n))) {
    fprintf(stderr, "written record does not read back: %s\n", reader.error().c_str());
    abort();
  }
  if (!reader.frames().empty() && reader.frames().size() != frames.size()) abort();
  return 0;
}

}  // namespace kovane_fuzz

KOVANE_FUZZ_ENTRY(statsRoundTrip)
