#pragma once
// Analysis views of real clips for the analysis-library tests: frames decoded at a preview size
// and cut to the 640x360 view the engine analyses (the 2x reduction of a 1280x720 preview, or
// the central 640x360 band of a 640x480 one).
#include <gtest/gtest.h>

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

}  // namespace kocore_test
