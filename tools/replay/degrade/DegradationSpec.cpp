#include "DegradationSpec.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <locale>
#include <sstream>

#include "ReplayTypes.h"

namespace kovane_replay {

namespace {

std::string trim(const std::string& s) {
  size_t a = 0, b = s.size();
  while (a < b && std::isspace(static_cast<unsigned char>(s[a]))) ++a;
  while (b > a && std::isspace(static_cast<unsigned char>(s[b - 1]))) --b;
  return s.substr(a, b - a);
}

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

}  // namespace

bool DegradationSpec::readSeconds(const std::string& text, double* value) {
  if (text.empty()) return false;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c)) && c != '.' && c != '-' && c != '+' && c != 'e' && c != 'E') {
      return false;
    }
  }
  std::istringstream in(text);
  in.imbue(std::locale::classic());
  double v = 0.0;
  in >> v;
  if (in.fail() || !in.eof() || !std::isfinite(v)) return false;
  *value = v;
  return true;
}

namespace {

bool readCount(const std::string& text, int* value) {
  if (text.empty() || text.size() > 9) return false;
  for (char c : text) {
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
  }
  *value = std::atoi(text.c_str());
  return true;
}

bool fail(std::string* error, const std::string& text) {
  if (error) *error = "--degrade: " + text;
  return false;
}

}  // namespace

const std::vector<std::string>& DegradationSpec::kinds() {
  static const std::vector<std::string> all = {kind::kBlink, kind::kShake, kind::kDefocus, kind::kExposure,
                                               kind::kNoise};
  return all;
}

bool DegradationSpec::isKind(const std::string& k) {
  for (const std::string& known : kinds()) {
    if (k == known) return true;
  }
  return false;
}

bool DegradationSpec::parse(const std::string& text, std::vector<DegradationRequest>* out, std::string* error) {
  std::vector<DegradationRequest> result;
  if (out) out->clear();
  if (trim(text).empty()) return true;

  std::string known;
  for (const std::string& k : kinds()) known += (known.empty() ? "" : ", ") + k;

  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string::npos) comma = text.size();
    const std::string item = trim(text.substr(start, comma - start));
    start = comma + 1;
    if (item.empty()) return fail(error, "empty item in '" + text + "'");

    const size_t at = item.find('@');
    const size_t star = item.find('*');
    if (at != std::string::npos && star != std::string::npos) {
      return fail(error, "'" + item + "': give either @T (a time) or *N (a count), not both");
    }
    const size_t cut = at != std::string::npos ? at : star;
    const std::string k = lower(trim(item.substr(0, cut)));
    if (!isKind(k)) {
      return fail(error, "unknown kind '" + k + "' in '" + item + "' (kinds: " + known + ")");
    }
    if (at != std::string::npos) {
      const std::string num = trim(item.substr(at + 1));
      double t = 0.0;
      if (!readSeconds(num, &t)) return fail(error, "'" + item + "': '" + num + "' is not a time in seconds");
      if (t < 0.0) return fail(error, "'" + item + "': the time must not be negative");
      result.push_back({k, t, item});
    } else if (star != std::string::npos) {
      const std::string num = trim(item.substr(star + 1));
      int n = 0;
      if (!readCount(num, &n)) return fail(error, "'" + item + "': '" + num + "' is not a whole number of presses");
      if (n < 1) return fail(error, "'" + item + "': the number of presses must be at least 1");
      if (n > kMaxCount) {
        return fail(error, "'" + item + "': at most " + std::to_string(kMaxCount) + " presses per item");
      }
      for (int i = 0; i < n; ++i) result.push_back({k, -1.0, item});
    } else {
      result.push_back({k, -1.0, item});
    }
    if (comma == text.size()) break;
  }
  if (out) *out = std::move(result);
  return true;
}

}  // namespace kovane_replay
