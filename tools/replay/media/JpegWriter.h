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
  // Decodes a JPEG into 8-bit grey (for checks); false when it is not a JPEG.
  static bool decodeGrey(const std::vector<uint8_t>& jpeg, int& width, int& height,
                         std::vector<uint8_t>& grey, std::string* error);
};

}  // namespace kovane_replay
