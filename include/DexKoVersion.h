#pragma once
// Version information of the analysis library, as built.
#include <utils/Vector.h>

namespace android {

class DexKoVersion {
 public:
  // One component of the library and its version text (static strings).
  struct koVersion_t {
    const char* name;
    const char* version;
  };

  DexKoVersion();
  ~DexKoVersion();

  // Sets *out to the library's version text, e.g. "kocore-0.1.0" (at most 19 characters, static
  // storage). Returns 0, or -1 (logged) when out is null.
  int getVersion(const char** out);
  // Replaces the list with the library's components and their versions. Returns their number.
  int getAllVersions(Vector<koVersion_t>& out);
};

}  // namespace android
