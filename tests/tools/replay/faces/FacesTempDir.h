#pragma once
// A fresh folder under the system's temporary folder, removed with everything in it at the end
// of the test.
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <string>

namespace kovane_faces_test {

class TempDir {
 public:
  TempDir() {
    static std::atomic<int> counter{0};
    mPath = std::filesystem::temp_directory_path() /
            ("kovane-faces-test-" + std::to_string(getpid()) + "-" + std::to_string(counter++));
    std::filesystem::remove_all(mPath);
    std::filesystem::create_directories(mPath);
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(mPath, ec);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path() const { return mPath.string(); }
  std::string file(const std::string& name) const { return (mPath / name).string(); }

 private:
  std::filesystem::path mPath;
};

}  // namespace kovane_faces_test
