#pragma once
// Analysis views of real clips for the analysis-library tests: frames decoded at a preview size
// and cut to the 640x360 view the engine analyses (the 2x reduction of a 1280x720 preview, or
// the central 640x360 band of a 640x480 one).
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "ClipDecoder.h"
#include "DexFrameMetaData.h"
#include "KocoreTestImages.h"
#include "TestData.h"

namespace kocore_test {

// Views of frames first..last of the clip decoded at previewW x previewH (1280x720 or
// 640x480); empty (with a test failure) when the clip cannot be read.
inline std::vector<Plane> clipViews(const std::string& name, int previewW, int previewH, int first, int last) {
  std::vector<Plane> out;
  const std::string path = kovane_test::testDataPath(name);
  if (path.empty()) return out;
  kovane_replay::ClipDecoder decoder;
  if (!decoder.open(path) || !decoder.setOutput(previewW, previewH, kovane_replay::ClipDecoder::FIT_CROP)) {
    ADD_FAILURE() << decoder.error();
    return out;
  }
  kovane_replay::ClipFrame frame;
  while (decoder.next(frame) && frame.index <= last) {
    if (frame.index < first) continue;
    Plane p;
    p.w = 640;
    p.h = 360;
    if (previewW == 1280) {
      p.px.resize(640 * 360);
      android::DexFrameMetaData::downScaleLuma2x(p.data(), frame.image.y(), 1280, 640, 360);
    } else {
      const int top = (previewH - 360) / 2;
      p.px.assign(frame.image.y() + top * previewW, frame.image.y() + (top + 360) * previewW);
    }
    out.push_back(std::move(p));
  }
  EXPECT_EQ(last - first + 1, static_cast<int>(out.size())) << name;
  return out;
}

// The first `count` frames of a clip at w x h as planar 4:2:0 (Y, U, V planes, rows packed),
// the form the preview encoder keeps, with the clip's own times; loaded once per clip and size.
struct PlanarClip {
  std::vector<std::vector<uint8_t>> frames;
  std::vector<int64_t> ptsUs;
};
inline const PlanarClip& planarClip(const std::string& name, int w, int h, size_t count) {
  static std::map<std::string, PlanarClip> cache;
  PlanarClip& c = cache[name + "/" + std::to_string(w) + "x" + std::to_string(h) + "/" + std::to_string(count)];
  if (!c.frames.empty()) return c;
  kovane_replay::ClipDecoder dec;
  if (!dec.open(kovane_test::testDataPath(name)) || !dec.setOutput(w, h, kovane_replay::ClipDecoder::FIT_CROP)) {
    ADD_FAILURE() << name << ": " << dec.error();
    return c;
  }
  const size_t luma = static_cast<size_t>(w) * h;
  kovane_replay::ClipFrame f;
  while (c.frames.size() < count && dec.next(f)) {
    std::vector<uint8_t> p(luma * 3 / 2);
    std::copy_n(f.image.y(), luma, p.begin());
    for (size_t i = 0; i < luma / 4; ++i) {  // V,U pairs to a U plane and a V plane
      p[luma + i] = f.image.vu()[2 * i + 1];
      p[luma + luma / 4 + i] = f.image.vu()[2 * i];
    }
    c.frames.push_back(std::move(p));
    c.ptsUs.push_back(f.ptsUs);
  }
  EXPECT_EQ(c.frames.size(), count) << name;
  return c;
}

}  // namespace kocore_test
