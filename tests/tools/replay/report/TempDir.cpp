#include "TempDir.h"

#include <stdlib.h>

#include <filesystem>
#include <system_error>
#include <vector>

namespace kovane_replay_test {

TempDir::TempDir(const std::string& prefix) {
  std::error_code ec;
  std::string base = std::filesystem::temp_directory_path(ec).string();
  if (ec || base.empty()) base = "/tmp";
  std::string pattern = base + "/" + prefix + "-XXXXXX";
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  if (mkdtemp(name.data())) mPath = name.data();
}

TempDir::~TempDir() {
  if (mPath.empty()) return;
  std::error_code ec;
  std::filesystem::remove_all(mPath, ec);
}

}  // namespace kovane_replay_test
