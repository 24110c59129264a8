#include "FaceTrackFile.h"

#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>

namespace kovane_replay {

namespace {

constexpr int kMaxCoordinate = 100000;
constexpr float kMaxMeasurement = 1000.f;
constexpr std::streamoff kMaxFileBytes = std::streamoff(1) << 30;

enum class Kind { Frame, Id, Degree, Size, Coordinate, Measurement };

struct Column {
  const char* name;
  Kind kind;
  int FaceRecord::*intField;
  float FaceRecord::*floatField;
};

const std::vector<Column>& table() {
  static const std::vector<Column> columns = {
      {"frame", Kind::Frame, nullptr, nullptr},
      {"id", Kind::Id, &FaceRecord::id, nullptr},
      {"score", Kind::Degree, &FaceRecord::score, nullptr},
      {"left", Kind::Coordinate, &FaceRecord::left, nullptr},
      {"top", Kind::Coordinate, &FaceRecord::top, nullptr},
      {"width", Kind::Size, &FaceRecord::width, nullptr},
      {"height", Kind::Size, &FaceRecord::height, nullptr},
      {"leftEyeX", Kind::Coordinate, &FaceRecord::leftEyeX, nullptr},
      {"leftEyeY", Kind::Coordinate, &FaceRecord::leftEyeY, nullptr},
      {"rightEyeX", Kind::Coordinate, &FaceRecord::rightEyeX, nullptr},
      {"rightEyeY", Kind::Coordinate, &FaceRecord::rightEyeY, nullptr},
      {"mouthX", Kind::Coordinate, &FaceRecord::mouthX, nullptr},
      {"mouthY", Kind::Coordinate, &FaceRecord::mouthY, nullptr},
      {"leftBlink", Kind::Degree, &FaceRecord::leftBlink, nullptr},
      {"rightBlink", Kind::Degree, &FaceRecord::rightBlink, nullptr},
      {"smile", Kind::Degree, &FaceRecord::smile, nullptr},
      {"leftEar", Kind::Measurement, nullptr, &FaceRecord::leftEar},
      {"rightEar", Kind::Measurement, nullptr, &FaceRecord::rightEar},
      {"mouthRatio", Kind::Measurement, nullptr, &FaceRecord::mouthRatio},
  };
  return columns;
}

std::string trim(const std::string& s) {
  size_t a = 0, b = s.size();
  while (a < b && (s[a] == ' ' || s[a] == '\t')) ++a;
  while (b > a && (s[b - 1] == ' ' || s[b - 1] == '\t')) --b;
  return s.substr(a, b - a);
}

std::vector<std::string> split(const std::string& line) {
  std::vector<std::string> out;
  size_t start = 0;
  while (true) {
    const size_t comma = line.find(',', start);
    out.push_back(trim(line.substr(start, comma == std::string::npos ? std::string::npos : comma - start)));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return out;
}

// Shortened copy of a field for messages.
std::string shown(const std::string& s) {
  std::string t = s.size() > 24 ? s.substr(0, 24) + "..." : s;
  for (char& c : t) {
    if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) >= 0x7f) c = '?';
  }
  return t;
}

bool parseInt(const std::string& s, long long& v) {
  if (s.empty()) return false;
  const char* b = s.data();
  const char* e = b + s.size();
  if (*b == '+') ++b;
  auto r = std::from_chars(b, e, v);
  return r.ec == std::errc() && r.ptr == e;
}

bool parseFloat(const std::string& s, float& v) {
  if (s.empty()) return false;
  const char* b = s.data();
  const char* e = b + s.size();
  auto r = std::from_chars(b, e, v);
  return r.ec == std::errc() && r.ptr == e;
}

void appendFloat(std::string& out, float v) {
  char buf[32];
  auto r = std::to_chars(buf, buf + sizeof(buf), v);  // shortest text that reads back exactly
  out.append(buf, r.ptr);
}

std::string oneLine(std::string s) {
  for (char& c : s) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return s;
}

}  // namespace

const std::vector<std::string>& FaceTrackFile::columns() {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> n;
    for (const Column& c : table()) n.push_back(c.name);
    return n;
  }();
  return names;
}

std::string FaceTrackFile::metaValue(const Meta& meta, const std::string& key) {
  for (const auto& kv : meta) {
    if (kv.first == key) return kv.second;
  }
  return "";
}

std::string FaceTrackFile::format(const ClipFaces& faces, const Meta& meta) {
  std::string out = "# kovane-replay faces\n";
  for (const auto& kv : meta) {
    if (kv.first == "frames") continue;
    out += "# " + oneLine(kv.first) + ": " + oneLine(kv.second) + "\n";
  }
  out += "# frames: " + std::to_string(faces.size()) + "\n";
  const auto& cols = table();
  for (size_t i = 0; i < cols.size(); ++i) {
    if (i) out += ',';
    out += cols[i].name;
  }
  out += '\n';
  for (size_t frame = 0; frame < faces.size(); ++frame) {
    for (const FaceRecord& r : faces[frame]) {
      for (size_t i = 0; i < cols.size(); ++i) {
        if (i) out += ',';
        const Column& c = cols[i];
        if (c.kind == Kind::Frame) {
          out += std::to_string(frame);
        } else if (c.intField) {
          out += std::to_string(r.*c.intField);
        } else {
          appendFloat(out, r.*c.floatField);
        }
      }
      out += '\n';
    }
  }
  return out;
}

bool FaceTrackFile::parse(const std::string& text, const std::string& name, ClipFaces& out,
                          std::string* error, Meta* meta) {
  out.clear();
  if (meta) meta->clear();
  int lineNo = 0;
  auto fail = [&](const std::string& what, bool withLine = true) {
    if (error) *error = withLine ? name + ":" + std::to_string(lineNo) + ": " + what : name + ": " + what;
    out.clear();
    return false;
  };

  const auto& cols = table();
  std::vector<int> order;  // file column -> table column
  bool haveHeader = false;
  long long declaredFrames = -1;
  int declaredLine = 0;
  int maxFrame = -1, maxFrameLine = 0;
  std::vector<std::set<int>> ids;  // ids seen per frame

  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    ++lineNo;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const std::string t = trim(line);
    if (t.empty()) continue;
    if (t[0] == '#') {
      const std::string body = trim(t.substr(1));
      const size_t colon = body.find(':');
      if (colon == std::string::npos) continue;  // a plain comment
      const std::string key = trim(body.substr(0, colon));
      const std::string value = trim(body.substr(colon + 1));
      if (key.empty() || key.find(' ') != std::string::npos) continue;
      if (key == "frames") {
        if (declaredFrames >= 0) return fail("the frame count is given twice");
        long long n = 0;
        if (!parseInt(value, n) || n < 0 || n > kMaxFrames) {
          return fail("frames must be a whole number 0.." + std::to_string(kMaxFrames) + ", got '" +
                      shown(value) + "'");
        }
        declaredFrames = n;
        declaredLine = lineNo;
      }
      if (meta) meta->push_back({key, value});
      continue;
    }
    const std::vector<std::string> fields = split(t);
    if (!haveHeader) {
      std::vector<bool> seen(cols.size(), false);
      for (const std::string& f : fields) {
        size_t k = 0;
        while (k < cols.size() && f != cols[k].name) ++k;
        if (k == cols.size()) {
          return fail("unknown column '" + shown(f) + "' in the header (columns: frame,id,score,...,mouthRatio)");
        }
        if (seen[k]) return fail("column '" + f + "' appears twice in the header");
        seen[k] = true;
        order.push_back(static_cast<int>(k));
      }
      for (size_t k = 0; k < cols.size(); ++k) {
        if (!seen[k]) return fail(std::string("the header lacks the column '") + cols[k].name + "'");
      }
      haveHeader = true;
      continue;
    }
    if (fields.size() != order.size()) {
      return fail(std::to_string(fields.size()) + " fields, the header has " + std::to_string(order.size()));
    }
    FaceRecord r;
    int frame = -1;
    for (size_t i = 0; i < fields.size(); ++i) {
      const Column& c = cols[static_cast<size_t>(order[i])];
      const std::string& f = fields[i];
      auto bad = [&](const std::string& want) {
        return fail(std::string("column '") + c.name + "' must be " + want + ", got '" + shown(f) + "'");
      };
      if (c.kind == Kind::Measurement) {
        float v = 0.f;
        if (!parseFloat(f, v) || !std::isfinite(v) || v < 0.f || v > kMaxMeasurement) {
          return bad("a number 0..1000");
        }
        r.*c.floatField = v;
        continue;
      }
      long long v = 0;
      const bool isInt = parseInt(f, v);
      switch (c.kind) {
        case Kind::Frame:
          if (!isInt || v < 0 || v >= kMaxFrames) return bad("a frame index 0.." + std::to_string(kMaxFrames - 1));
          frame = static_cast<int>(v);
          break;
        case Kind::Id:
          if (!isInt || v < 0 || v > 1000000000) return bad("a whole number 0 or more");
          break;
        case Kind::Degree:
          if (!isInt || v < 0 || v > 100) return bad("a whole number 0..100");
          break;
        case Kind::Size:
          if (!isInt || v < 1 || v > kMaxCoordinate) return bad("a whole number of pixels 1.." + std::to_string(kMaxCoordinate));
          break;
        case Kind::Coordinate:
          if (!isInt || v < -kMaxCoordinate || v > kMaxCoordinate) {
            return bad("a whole number of pixels within +-" + std::to_string(kMaxCoordinate));
          }
          break;
        case Kind::Measurement:
          break;
      }
      if (c.intField) r.*c.intField = static_cast<int>(v);
    }
    if (ids.size() <= static_cast<size_t>(frame)) {
      ids.resize(static_cast<size_t>(frame) + 1);
      out.resize(static_cast<size_t>(frame) + 1);
    }
    if (!ids[static_cast<size_t>(frame)].insert(r.id).second) {
      return fail("face id " + std::to_string(r.id) + " appears twice in frame " + std::to_string(frame));
    }
    out[static_cast<size_t>(frame)].push_back(r);
    if (frame > maxFrame) {
      maxFrame = frame;
      maxFrameLine = lineNo;
    }
  }
  if (!haveHeader) return fail("no header row (frame,id,score,...): not a face records file", false);
  if (declaredFrames >= 0) {
    if (maxFrame >= declaredFrames) {
      lineNo = maxFrameLine;
      return fail("frame " + std::to_string(maxFrame) + " is beyond the " + std::to_string(declaredFrames) +
                  " frames declared on line " + std::to_string(declaredLine));
    }
    out.resize(static_cast<size_t>(declaredFrames));
  }
  return true;
}

bool FaceTrackFile::write(const std::string& path, const ClipFaces& faces, std::string* error,
                          const Meta& meta) {
  static std::atomic<unsigned> counter{0};
  const std::string tmp = path + ".tmp." + std::to_string(getpid()) + "." + std::to_string(counter++);
  const std::string text = format(faces, meta);
  {
    std::ofstream f(tmp, std::ios::binary | std::ios::trunc);
    if (!f) {
      if (error) *error = "cannot create " + tmp;
      return false;
    }
    f.write(text.data(), static_cast<std::streamsize>(text.size()));
    f.close();
    if (!f) {
      std::remove(tmp.c_str());
      if (error) *error = "cannot write " + tmp;
      return false;
    }
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    std::remove(tmp.c_str());
    if (error) *error = "cannot rename " + tmp + " to " + path;
    return false;
  }
  return true;
}

bool FaceTrackFile::read(const std::string& path, ClipFaces& out, std::string* error, Meta* meta) {
  out.clear();
  std::ifstream f(path, std::ios::binary);
  if (!f) {
    if (error) *error = "cannot open face records file " + path;
    return false;
  }
  f.seekg(0, std::ios::end);
  const std::streamoff size = f.tellg();
  f.seekg(0, std::ios::beg);
  if (size < 0 || size > kMaxFileBytes) {
    if (error) *error = path + ": not a face records file (too large or unreadable)";
    return false;
  }
  std::string text(static_cast<size_t>(size), '\0');
  f.read(&text[0], size);
  if (!f) {
    if (error) *error = "cannot read " + path;
    return false;
  }
  return parse(text, path, out, error, meta);
}

}  // namespace kovane_replay
