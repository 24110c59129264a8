#pragma once
// The camera of the benchmarks: 1920x1080 NV21 preview frames of a real photograph, 30 a second.
#include <cstdint>
#include <vector>

#include "KoEngineTypes.h"
#include "TestData.h"

namespace kovane_bench {

struct Camera {
  std::vector<uint8_t> picture = kovane_test::readNv21("solvay_1920x1080.nv21", 1920, 1080);
  android::KO_cam_frame_len_offset_t planes = {};
  Camera() {
    planes.numPlanes = 2;
    planes.mp[0] = {1920 * 1080, 0, 1920, 1080};
    planes.mp[1] = {1920 * 1080 / 2, 0, 1920, 540};
    planes.frameLen = 1920 * 1080 * 3 / 2;
  }
  static int64_t timestampOf(uint32_t id) { return 1000000 + static_cast<int64_t>(id) * 33333; }
  android::KO_PreviewFrameData_t preview(uint32_t id) {
    android::KO_PreviewFrameData_t p = {};
    p.timeStamp = timestampOf(id);
    p.frameId = id;
    p.streamType = android::KO_STREAM_TYPE_PREVIEW;
    p.width = 1920;
    p.height = 1080;
    p.data = picture.data();
    p.colorFormat = android::KO_COLOR_FORMAT_NV21;
    p.planes = &planes;
    return p;
  }
};

// `count` distinct NV21 frames of w x h (rows w bytes apart) cut from the middle of the same
// photograph, panned by `step` pixels a frame (even, so that chroma pairs stay whole) and wrapped
// around at its edge; empty when the picture is missing.
inline std::vector<std::vector<uint8_t>> pannedFrames(int w, int h, int count, int step) {
  std::vector<std::vector<uint8_t>> frames;
  const std::vector<uint8_t> picture = kovane_test::readNv21("solvay_1920x1080.nv21", 1920, 1080);
  if (picture.empty()) return frames;
  const int x0 = (1920 - w) / 2 & ~1;
  const int y0 = (1080 - h) / 2 & ~1;
  const uint8_t* srcY = picture.data();
  const uint8_t* srcC = picture.data() + 1920 * 1080;
  for (int k = 0; k < count; ++k) {
    std::vector<uint8_t> f(static_cast<size_t>(w) * h * 3 / 2);
    const int shift = k * step;
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) f[y * w + x] = srcY[(y0 + y) * 1920 + (x0 + x + shift) % 1920];
    }
    for (int y = 0; y < h / 2; ++y) {
      for (int x = 0; x < w; ++x) {
        f[w * h + y * w + x] = srcC[(y0 / 2 + y) * 1920 + (x0 + x + shift) % 1920];
      }
    }
    frames.push_back(std::move(f));
  }
  return frames;
}

}  // namespace kovane_bench
