#pragma once
// A live frame history with real ZSL bookkeeping and a top-score list on it, and builders for
// frames with real pictures (analysis view, small image, Sobel statistics, histogram computed
// by the library's own kernels, as the foreground statistics pass does).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include <utils/Vector.h>

#include "../framedata/FrameTestSupport.h"
#include "../kocore/KocoreTestImages.h"
#include "DexFrameMetaData.h"
#include "KoFrameHist.h"
#include "KoTopScore.h"
#include "fastcv.h"

namespace topscore_test {

using android::sp;

inline sp<android::ABuffer> allocImage(size_t bytes) {
  void* mem = fcvMemAlloc(static_cast<unsigned int>(bytes), 16);
  if (!mem) return nullptr;
  memset(mem, 0, bytes);
  return new android::ABuffer(mem, bytes);
}

// Hands a frame's image back to the aligned allocator, as the frame's destructor does.
inline void freeImage(sp<android::ABuffer>& image) {
  if (image != nullptr) fcvMemFree(image->base());
  image.clear();
}

// Gives a frame the 640x360 picture `view` the way frame creation and the statistics pass do
// (a picture the frame had before is freed).
inline void setPicture(const sp<android::KoFrameData>& f, const kocore_test::Plane& view) {
  using android::KoFrameData;
  for (sp<android::ABuffer>* image : {&f->mDownscaledImage, &f->mSmallImage, &f->mSobelBuffer1, &f->mSobelBuffer2}) {
    freeImage(*image);
  }
  ASSERT_EQ(static_cast<int>(KoFrameData::ANALYSIS_WIDTH), view.w);
  ASSERT_EQ(static_cast<int>(KoFrameData::ANALYSIS_HEIGHT), view.h);
  const size_t luma = static_cast<size_t>(view.w) * view.h;
  f->mDownscaledImage = allocImage(luma * 3 / 2);
  memcpy(f->mDownscaledImage->data(), view.data(), luma);
  memset(f->mDownscaledImage->data() + luma, 128, luma / 2);
  f->mWidth = KoFrameData::ANALYSIS_WIDTH;
  f->mHeight = KoFrameData::ANALYSIS_HEIGHT;
  f->mAnalysisImage = f->mDownscaledImage->data();
  f->mAnalysisWidth = KoFrameData::ANALYSIS_WIDTH;
  f->mAnalysisHeight = KoFrameData::ANALYSIS_HEIGHT;
  f->mSmallWidth = KoFrameData::SMALL_WIDTH;
  f->mSmallHeight = KoFrameData::SMALL_HEIGHT;
  f->mSmallImage = allocImage(KoFrameData::SMALL_IMAGE_BYTES);
  f->mSobelBuffer1 = allocImage(KoFrameData::SOBEL_BUFFER_BYTES);
  f->mSobelBuffer2 = allocImage(KoFrameData::SOBEL_BUFFER_BYTES);
  android::DexFrameMetaData::downScaleLuma2x(f->mSmallImage->data(), f->mAnalysisImage,
                                             f->mAnalysisWidth, f->mSmallWidth, f->mSmallHeight);
  android::DexFrameMetaData::calcSobelFrame(
      f->mSmallImage->data(), &f->mSobelStats, f->mSmallWidth, f->mSmallHeight, 0,
      reinterpret_cast<int16_t*>(f->mSobelBuffer1->data()),
      reinterpret_cast<int16_t*>(f->mSobelBuffer2->data()));
  f->mHistogramBins = KoFrameData::HISTOGRAM_BINS;
  if (!f->mHistogram) {
    f->mHistogram = static_cast<uint32_t*>(malloc(KoFrameData::HISTOGRAM_BINS * sizeof(uint32_t)));
  }
  android::DexFrameMetaData::genHistogramPow2(f->mSmallImage->data(), f->mHistogram, f->mSmallWidth,
                                              f->mSmallHeight, f->mSmallWidth, f->mHistogramBins);
}

// The analysis view of the sharp cockatoo frame, read once.
inline const kocore_test::Plane& sharpView() {
  static const kocore_test::Plane view = kocore_test::analysisView("cockatoo_f005_1280x720.nv21");
  return view;
}

inline android::KoBestShot::BSScore score(int32_t frameId, int64_t ts, float bs, float fe = 0.0f,
                                          float aux = 0.0f, float faces = 0.0f) {
  android::KoBestShot::BSScore s;
  memset(&s, 0, sizeof(s));
  s.frameId = frameId;
  s.timestampUs = ts;
  s.bsScore = bs;
  s.feScore = fe;
  s.auxScore = aux;
  s.facesScore = faces;
  return s;
}

// Engine double, history and list, destroyed list first and engine last.
class Bench {
 public:
  Bench() : top(&hist) {}

  // Adds frame `id` to the history, with a registered ZSL buffer when `zsl`.
  sp<android::KoFrameData> add(uint32_t id, int64_t ts, bool zsl = true) {
    sp<android::KoFrameData> f = kovane_test::makeFrame(id, ts);
    hist.addFrameData(f);
    if (zsl) {
      sp<android::KoMemoryBuffer> memory;
      EXPECT_TRUE(ctx.memory()->addZslBuffer(kovane_test::zslAddress(id), &memory)) << "frame " << id;
      if (memory != nullptr) hist.addZslData(memory, nullptr, id);
    }
    return f;
  }

  void meta(uint32_t id, float expTime, int32_t lux = 0) {
    android::Ko_CameraMetaData_t values;
    memset(&values, 0, sizeof(values));
    values.expTime = expTime;
    values.luxLevel = lux;
    sp<android::ABuffer> buffer = new android::ABuffer(sizeof(values));
    hist.addMetaData(id, buffer, &values);
  }

  void faces(uint32_t id, uint32_t numFaces, int32_t blinked = 0) {
    sp<android::KoFaceMetaData> face = new android::KoFaceMetaData();
    face->mValid = 1;
    face->mFaceData.record.frameId = id;
    face->mFaceData.record.numFaces = numFaces;
    face->mFaceData.numBlinkedPredicted = blinked;
    hist.addFaceData(id, face);
  }

  sp<android::KoFrameData> frame(uint32_t id) {
    sp<android::KoFrameData> f;
    hist.getItemWithFrameId(id, f);
    return f;
  }

  void merge(const std::vector<android::KoBestShot::BSScore>& batch, bool missingFaceData = true) {
    android::Vector<android::KoBestShot::BSScore> v;
    for (const auto& s : batch) v.push_back(s);
    top.addTopScoreList(v, missingFaceData);
  }

  std::vector<int32_t> listIds() const {
    std::vector<int32_t> ids;
    for (size_t i = 0; i < top.mTopScoreList.size(); ++i) ids.push_back(top.mTopScoreList[i].frameId);
    return ids;
  }

  // Times frame id's ZSL buffer went back to the camera.
  size_t returned(uint32_t id) { return ctx.timesReturned(kovane_test::zslAddress(id)); }
  // The frames whose buffers went back, ascending, once per return.
  std::vector<int32_t> gone() {
    std::vector<int32_t> out;
    for (void* p : ctx.returned()) {
      out.push_back(static_cast<int32_t>((reinterpret_cast<uintptr_t>(p) - 0x10000) / 0x1000));
    }
    std::sort(out.begin(), out.end());
    return out;
  }
  // Whether the history still holds frame id's buffer.
  bool held(uint32_t id) {
    for (size_t i = 0; i < hist.mHistory.size(); ++i) {
      if (hist.mHistory[i]->mFrameData->mFrameId == id) return hist.mHistory[i]->mZslMemory != nullptr;
    }
    return false;
  }

  kovane_test::TestEngineContext ctx;
  android::KoFrameHist hist;
  android::KoTopScore top;
};

}  // namespace topscore_test
