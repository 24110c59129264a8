#pragma once
// Scene classification of the analysis library. The engine owns one from construction to
// destruction; its classification operations come with the capture stages that use them.

namespace android {

class DexSceneClassifer {
 public:
  DexSceneClassifer();
  ~DexSceneClassifer();

 private:
  DexSceneClassifer(const DexSceneClassifer&) = delete;
  DexSceneClassifer& operator=(const DexSceneClassifer&) = delete;
};

}  // namespace android
