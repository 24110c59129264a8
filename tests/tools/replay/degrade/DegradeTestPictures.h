#pragma once
// The real test pictures as the replay's NV21 frames.
#include <string>
#include <vector>

#include "ReplayTypes.h"
#include "TestData.h"

namespace kovane_replay_test {

inline kovane_replay::Nv21Image nv21Picture(const std::string& name, int width, int height) {
  kovane_replay::Nv21Image image;
  image.width = width;
  image.height = height;
  image.data = kovane_test::readNv21(name, width, height);
  return image;
}

// A grey picture with neutral chroma.
inline kovane_replay::Nv21Image greyPicture(const std::string& name) {
  const kovane_test::GreyImage grey = kovane_test::readPgm(name);
  kovane_replay::Nv21Image image;
  if (grey.width < 2 || grey.height < 2) return image;
  image.allocate(grey.width & ~1, grey.height & ~1);
  for (int y = 0; y < image.height; ++y) {
    std::copy(grey.pixels.begin() + static_cast<size_t>(y) * grey.width,
              grey.pixels.begin() + static_cast<size_t>(y) * grey.width + image.width,
              image.data.begin() + static_cast<size_t>(y) * image.width);
  }
  std::fill(image.data.begin() + static_cast<size_t>(image.width) * image.height, image.data.end(), 128);
  return image;
}

struct NamedPicture {
  std::string name;
  kovane_replay::Nv21Image image;
};

// A sharp frame of the hand-held clip, a group photograph with fine detail, a portrait.
inline std::vector<NamedPicture> sharpPictures() {
  return {{"cockatoo f005", nv21Picture("cockatoo_f005_1280x720.nv21", 1280, 720)},
          {"solvay", nv21Picture("solvay_1920x1080.nv21", 1920, 1080)},
          {"hopper", greyPicture("hopper_512x600.pgm")}};
}

}  // namespace kovane_replay_test
