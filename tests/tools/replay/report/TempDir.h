#pragma once
// A fresh folder under the system's temporary folder, removed with everything in it when the
// object goes.
#include <string>

namespace kovane_replay_test {

class TempDir {
 public:
  explicit TempDir(const std::string& prefix = "kovane-report");
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return mPath; }  // "" when it could not be made
  std::string file(const std::string& name) const { return mPath + "/" + name; }

 private:
  std::string mPath;
};

}  // namespace kovane_replay_test
