// The statistics reader on arbitrary bytes: whatever it is given, it parses or fails with a
// message, reads nothing outside the input, and its JSON view works either way.
#include <cstdlib>
#include <string>

#include "FuzzTargets.h"
#include "KoStatsReader.h"

namespace kovane_fuzz {

int statsReader(const uint8_t* data, size_t size) {
  android::KoStatsReader reader;
  const bool ok = reader.parse(data, size);
  if (!ok && reader.error().empty()) abort();  // a failure always says why
  const std::string json = reader.toJson();
  const size_t last = json.find_last_not_of('\n');
  if (json.empty() || json.front() != '{' || last == std::string::npos || json[last] != '}') abort();
  return 0;
}

}  // namespace kovane_fuzz

KOVANE_FUZZ_ENTRY(statsReader)
