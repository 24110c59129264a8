#pragma once
// Chooses where the preview clip of a capture starts and ends. The engine owns one from
// construction to destruction; the start/end point operations come with the clip flow.

namespace android {

class DexVideoGeneration {
 public:
  DexVideoGeneration();
  ~DexVideoGeneration();

 private:
  DexVideoGeneration(const DexVideoGeneration&) = delete;
  DexVideoGeneration& operator=(const DexVideoGeneration&) = delete;
};

}  // namespace android
