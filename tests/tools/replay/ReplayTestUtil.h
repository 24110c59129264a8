#pragma once
// Shared by the replay tool's tests: a temporary folder and whole-file reads.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kovane_replay_test {

// A fresh folder under /tmp, removed with everything in it at the end.
class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "kovane-replay-test") {
    std::string name = "/tmp/" + prefix + "-XXXXXX";
    if (mkdtemp(&name[0])) mPath = name;
    EXPECT_FALSE(mPath.empty()) << "cannot make " << name;
  }
  ~TempDir() {
    std::error_code ec;
    if (!mPath.empty()) std::filesystem::remove_all(mPath, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return mPath; }
  std::string file(const std::string& name) const { return mPath + "/" + name; }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(mPath)) out.push_back(e.path().filename().string());
    std::sort(out.begin(), out.end());
    return out;
  }

 private:
  std::string mPath;
};

// The whole of a file ("" when it cannot be read).
inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

inline std::vector<uint8_t> readBytes(const std::string& path) {
  const std::string s = readFile(path);
  return std::vector<uint8_t>(s.begin(), s.end());
}

inline void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                              static_cast<std::streamsize>(bytes.size()));
}

// Each of `parts` is in the text (or, with present false, none is).
inline void expectParts(const std::string& text, std::initializer_list<std::string> parts, bool present = true) {
  for (const std::string& p : parts) {
    EXPECT_EQ(text.find(p) != std::string::npos, present) << "'" << p << "' in: " << text.substr(0, 3000);
  }
}

}  // namespace kovane_replay_test
