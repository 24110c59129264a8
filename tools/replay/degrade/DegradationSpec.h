#pragma once
// The --degrade text: which faults to inject around which shutter presses.
//
//   KIND[@T][,...]   one press of KIND at T seconds on the clip's time line (automatic time
//                    without @T)
//   KIND*N           N presses of KIND at automatic times
//
// KIND is blink, shake, defocus, exposure or noise (case does not matter). An empty text
// asks for nothing.
#include <string>
#include <vector>

namespace kovane_replay {

// One press with a fault.
struct DegradationRequest {
  std::string kind;         // kind::kBlink, kShake, kDefocus, kExposure or kNoise
  double atSeconds = -1.0;  // on the clip's time line; -1 = automatic
  std::string item;         // the item of the text it came from, for messages

  bool automatic() const { return atSeconds < 0.0; }
};

class DegradationSpec {
 public:
  // Most presses one KIND*N item may ask for.
  static constexpr int kMaxCount = 1000;

  // Parses the text into *out (one request per press, in the order given). False with a
  // one-line reason naming the bad item in *error; *out is then left empty.
  static bool parse(const std::string& text, std::vector<DegradationRequest>* out, std::string* error);

  // A plain decimal number of seconds ("2", "2.5", ".5", "1e1"), read the same whatever the
  // locale; false for anything else, including nan and inf.
  static bool readSeconds(const std::string& text, double* seconds);

  // The kinds a request may name.
  static const std::vector<std::string>& kinds();
  static bool isKind(const std::string& kind);
};

}  // namespace kovane_replay
