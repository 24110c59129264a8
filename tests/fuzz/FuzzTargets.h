#pragma once
// Fuzz targets: each takes one input and returns 0; a fault aborts (or trips a sanitizer). Built
// into libFuzzer programs by `make fuzz` (clang), and into the corpus replay test that ctest runs
// on every build.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <android/log.h>

namespace kovane_fuzz {

// Any byte string given to the statistics reader: a parse or a clear error.
int statsReader(const uint8_t* data, size_t size);
// A statistics record written from frames, faces and a capture made of the input reads back.
int statsRoundTrip(const uint8_t* data, size_t size);
// The input as a sequence of calls on an engine, with hostile records.
int engineCalls(const uint8_t* data, size_t size);

// A libFuzzer program runs the engine a million times; the log lines cost more than the calls
// they report (and fill the disk), so the program keeps only fatal ones unless KOVANE_FUZZ_LOG is
// set, to see what an input does. The corpus replay in ctest keeps every line.
inline void quietLogsUnlessAsked() {
  if (getenv("KOVANE_FUZZ_LOG") == nullptr) __android_log_set_minimum_priority(ANDROID_LOG_FATAL);
}

// The libFuzzer entry points of a program made of one target file (KOVANE_LIBFUZZER builds).
#ifdef KOVANE_LIBFUZZER
#define KOVANE_FUZZ_ENTRY(target)                                                  \
  extern "C" int LLVMFuzzerInitialize(int*, char***) {                             \
    kovane_fuzz::quietLogsUnlessAsked();                                           \
    return 0;                                                                      \
  }                                                                                \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {        \
    return kovane_fuzz::target(data, size);                                        \
  }
#else
#define KOVANE_FUZZ_ENTRY(target)
#endif

// Reads values off the input; past its end every read gives 0.
class Bytes {
 public:
  Bytes(const uint8_t* data, size_t size) : mData(data), mSize(size) {}
  bool empty() const { return mPos >= mSize; }
  uint8_t u8() { return mPos < mSize ? mData[mPos++] : 0; }
  bool flag() { return (u8() & 1) != 0; }
  uint32_t u32() {
    uint32_t v = 0;
    for (int k = 0; k < 4; ++k) v |= static_cast<uint32_t>(u8()) << (8 * k);
    return v;
  }
  int32_t i32() { return static_cast<int32_t>(u32()); }
  float f32() {
    const uint32_t w = u32();
    float f;
    memcpy(&f, &w, sizeof f);
    return f;
  }
  // An integer in [0, n).
  uint32_t below(uint32_t n) { return n == 0 ? 0 : u32() % n; }

 private:
  const uint8_t* mData;
  size_t mSize;
  size_t mPos = 0;
};

}  // namespace kovane_fuzz
