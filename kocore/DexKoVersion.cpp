#include "DexKoVersion.h"

#include <log/log.h>

#ifndef KOCORE_VERSION_TEXT
#error "the build must define KOCORE_VERSION_TEXT"
#endif

namespace android {

namespace {
constexpr char kVersion[] = "kocore-" KOCORE_VERSION_TEXT;
static_assert(sizeof(kVersion) <= 20, "version text is copied into 20-byte fields");

constexpr DexKoVersion::koVersion_t kComponents[] = {
    {"kocore", kVersion},
    {"DexFrameMetaData", KOCORE_VERSION_TEXT},
    {"DexBlurDetect", KOCORE_VERSION_TEXT},
    {"DexMotionDetection", KOCORE_VERSION_TEXT},
    {"DexCameraMotion", KOCORE_VERSION_TEXT},
};
}  // namespace

DexKoVersion::DexKoVersion() = default;
DexKoVersion::~DexKoVersion() = default;

int DexKoVersion::getVersion(const char** out) {
  if (out == nullptr) {
    __android_log_print(ANDROID_LOG_ERROR, "DexKoVersion", "%s: null output", __func__);
    return -1;
  }
  *out = kVersion;
  return 0;
}

int DexKoVersion::getAllVersions(Vector<koVersion_t>& out) {
  out.clear();
  for (const koVersion_t& c : kComponents) out.push_back(c);
  return static_cast<int>(out.size());
}

}  // namespace android
