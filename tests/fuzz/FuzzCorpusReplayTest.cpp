// Every fuzz target over its corpus (tests/fuzz/corpus/<target>/: the seeds, and the input of
// every fault the fuzzer found, kept as regressions). An input that trips a target aborts.
#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "FuzzTargets.h"

namespace {

std::vector<std::string> corpus(const std::string& target) {
  const std::string dir = std::string(KOVANE_FUZZ_CORPUS) + "/" + target;
  std::vector<std::string> files;
  if (DIR* d = opendir(dir.c_str())) {
    while (const dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') files.push_back(dir + "/" + e->d_name);
    }
    closedir(d);
  }
  std::sort(files.begin(), files.end());
  return files;
}

void replay(const std::string& target, int (*run)(const uint8_t*, size_t)) {
  const std::vector<std::string> files = corpus(target);
  ASSERT_FALSE(files.empty()) << "no inputs in " << KOVANE_FUZZ_CORPUS << "/" << target;
  for (const std::string& f : files) {
    SCOPED_TRACE(f);
    std::ifstream in(f, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(0, run(bytes.data(), bytes.size()));
  }
}

}  // namespace

TEST(FuzzCorpus, StatsReader) { replay("StatsReaderFuzz", kovane_fuzz::statsReader); }
TEST(FuzzCorpus, StatsRoundTrip) { replay("StatsRoundTripFuzz", kovane_fuzz::statsRoundTrip); }
TEST(FuzzCorpus, EngineCalls) { replay("EngineCallsFuzz", kovane_fuzz::engineCalls); }
