#include "JpegWriter.h"

#include <turbojpeg.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kovane_replay {

namespace {

bool setError(std::string* error, const std::string& text) {
  if (error) *error = text;
  return false;
}

}  // namespace

bool JpegWriter::encode(const Nv21Image& image, int quality, std::vector<uint8_t>& out, std::string* error) {
  if (image.empty() || image.width < 2 || image.height < 2 || (image.width & 1) || (image.height & 1) ||
      image.data.size() < static_cast<size_t>(image.width) * image.height * 3 / 2) {
    return setError(error, "no picture to encode");
  }
  if (quality < 1 || quality > 100) return setError(error, "JPEG quality must be 1..100");
  // turbojpeg takes planar 4:2:0: split the interleaved V,U pairs.
  const int w = image.width, h = image.height, cw = w / 2, ch = h / 2;
  std::vector<uint8_t> u(static_cast<size_t>(cw) * ch), v(u.size());
  const uint8_t* vu = image.vu();
  for (size_t i = 0; i < u.size(); ++i) {
    v[i] = vu[2 * i];
    u[i] = vu[2 * i + 1];
  }
  const unsigned char* planes[3] = {image.y(), u.data(), v.data()};
  const int strides[3] = {w, cw, cw};
  tjhandle handle = tjInitCompress();
  if (!handle) return setError(error, "cannot start the JPEG encoder");
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  const int rc = tjCompressFromYUVPlanes(handle, planes, w, strides, h, TJSAMP_420, &jpeg, &size, quality,
                                         TJFLAG_ACCURATEDCT);
  bool ok = rc == 0;
  if (ok) {
    out.assign(jpeg, jpeg + size);
  } else {
    setError(error, std::string("JPEG encoding failed: ") + tjGetErrorStr2(handle));
  }
  tjFree(jpeg);
  tjDestroy(handle);
  return ok;
}

bool JpegWriter::write(const Nv21Image& image, const std::string& path, int quality, std::string* error) {
  std::vector<uint8_t> bytes;
  if (!encode(image, quality, bytes, error)) return false;
  FILE* f = fopen(path.c_str(), "wb");
  if (!f) return setError(error, "cannot write " + path + ": " + strerror(errno));
  const bool ok = fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  if (fclose(f) != 0 || !ok) return setError(error, "cannot write " + path);
  return true;
}

}  // namespace kovane_replay
