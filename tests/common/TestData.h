#pragma once
// Access to the real pictures the tests run on. The folder is found once: the environment
// variable KOVANE_TESTDATA first, then ../shared/testdata beside the project, then
// build/testdata (made by scripts/fetch-testdata.sh). A missing file fails the calling test
// with a message naming the folders that were searched.
#include <cstdint>
#include <string>
#include <vector>

namespace kovane_test {

// The folder that holds the test pictures, or an empty string when none was found.
std::string testDataDir();

// Full path of a test picture; records a fatal test failure (and returns "") when missing.
std::string testDataPath(const std::string& name);

// Whole file contents; an empty vector (and a test failure) when the file cannot be read.
std::vector<uint8_t> readTestFile(const std::string& name);

// An NV21 frame read from a raw file of the given size (luma, then interleaved V,U pairs).
std::vector<uint8_t> readNv21(const std::string& name, int width, int height);

}  // namespace kovane_test
