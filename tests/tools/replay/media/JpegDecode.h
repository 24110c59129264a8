#pragma once
// Decoding a JPEG back to grey for the media tests.
#include <turbojpeg.h>

#include <cstdint>
#include <vector>

namespace kovane_replay_test {

// A JPEG decoded to grey by libturbojpeg; false when it is not a readable JPEG.
inline bool decodeGrey(const std::vector<uint8_t>& jpeg, int& width, int& height, std::vector<uint8_t>& grey) {
  tjhandle handle = tjInitDecompress();
  int subsamp = 0, colorspace = 0;
  bool ok = tjDecompressHeader3(handle, jpeg.data(), static_cast<unsigned long>(jpeg.size()), &width, &height,
                                &subsamp, &colorspace) == 0;
  if (ok) {
    grey.resize(static_cast<size_t>(width) * height);
    ok = tjDecompress2(handle, jpeg.data(), static_cast<unsigned long>(jpeg.size()), grey.data(), width, 0,
                       height, TJPF_GRAY, 0) == 0;
  }
  tjDestroy(handle);
  return ok;
}

}  // namespace kovane_replay_test
