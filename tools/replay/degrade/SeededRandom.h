#pragma once
// Random numbers that come out the same on every machine and library version: the raw
// std::mt19937_64 stream (its output is fixed by the C++ standard) with the distributions
// written out here, since the std:: distributions may differ between library versions.
#include <cstdint>
#include <random>

namespace kovane_replay {

class SeededRandom {
 public:
  explicit SeededRandom(uint64_t seed);

  // Seeds of independent streams: the same inputs always give the same seed.
  static uint64_t mix(uint64_t a, uint64_t b);
  static uint64_t mix(uint64_t a, uint64_t b, uint64_t c) { return mix(mix(a, b), c); }
  static uint64_t hashText(const char* text);

  uint64_t next() { return mEngine(); }
  // Uniform in [0, 1), 53 bits.
  double uniform();
  // Uniform in [lo, hi).
  double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
  // Uniform integer in [lo, hi], both included; lo when hi < lo.
  int uniformInt(int lo, int hi);
  // True with probability p.
  bool chance(double p) { return uniform() < p; }
  // Standard normal (mean 0, deviation 1), Box-Muller in its polar form; the second value of each pair is kept
  // for the next call.
  double normal();

 private:
  std::mt19937_64 mEngine;
  bool mHaveSpare = false;
  double mSpare = 0.0;
};

}  // namespace kovane_replay
