#pragma once
// JPEG files of NV21 pictures, through libturbojpeg.
#include <cstdint>
#include <string>
#include <vector>

#include "ReplayTypes.h"

namespace kovane_replay {

class JpegWriter {
 public:
  // Encodes the picture (4:2:0, the given quality 1..100). False with the reason in *error.
  static bool encode(const Nv21Image& image, int quality, std::vector<uint8_t>& out, std::string* error);
  // Encodes and writes to a file.
  static bool write(const Nv21Image& image, const std::string& path, int quality, std::string* error);
};

}  // namespace kovane_replay
