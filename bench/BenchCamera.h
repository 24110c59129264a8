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

}  // namespace kovane_bench
