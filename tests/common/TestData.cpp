#include "TestData.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sys/stat.h>

namespace kovane_test {

namespace {
bool isFile(const std::string& p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}
bool isDir(const std::string& p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}
std::vector<std::string> candidates() {
  std::vector<std::string> dirs;
  if (const char* env = std::getenv("KOVANE_TESTDATA")) {
    if (*env) dirs.push_back(env);
  }
  dirs.push_back(std::string(KOVANE_SOURCE_DIR) + "/../shared/testdata");
  dirs.push_back(std::string(KOVANE_BINARY_DIR) + "/testdata");
  dirs.push_back(std::string(KOVANE_SOURCE_DIR) + "/build/testdata");
  return dirs;
}
}  // namespace

std::string testDataDir() {
  for (const std::string& d : candidates()) {
    if (isDir(d) && isFile(d + "/cockatoo_f005_1280x720.nv21")) return d;
  }
  return std::string();
}

std::string testDataPath(const std::string& name) {
  std::string searched;
  for (const std::string& d : candidates()) {
    std::string p = d + "/" + name;
    if (isFile(p)) return p;
    searched += "\n  " + d;
  }
  ADD_FAILURE() << "test picture '" << name << "' not found; searched:" << searched
                << "\nrun scripts/fetch-testdata.sh (make test does) to make it";
  return std::string();
}

std::vector<uint8_t> readTestFile(const std::string& name) {
  std::string path = testDataPath(name);
  if (path.empty()) return {};
  std::ifstream in(path, std::ios::binary);
  std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (data.empty()) ADD_FAILURE() << "test picture '" << path << "' is empty or unreadable";
  return data;
}

std::vector<uint8_t> readNv21(const std::string& name, int width, int height) {
  std::vector<uint8_t> data = readTestFile(name);
  size_t expected = static_cast<size_t>(width) * height * 3 / 2;
  if (!data.empty() && data.size() != expected) {
    ADD_FAILURE() << "'" << name << "' holds " << data.size() << " bytes, expected " << expected;
    return {};
  }
  return data;
}

}  // namespace kovane_test
