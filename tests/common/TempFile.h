#pragma once
// A file in the test's temporary folder, open for reading and writing, removed at the end.
// Unique per object, so tests of one suite may run at the same time in separate processes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kovane_test {

struct TempFile {
  std::string path = testing::TempDir() + "kovane_XXXXXX";
  int fd = mkstemp(&path[0]);
  TempFile() = default;
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  ~TempFile() {
    if (fd >= 0) close(fd);
    unlink(path.c_str());
  }
  std::vector<uint8_t> bytes() const {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
  }
};

}  // namespace kovane_test
