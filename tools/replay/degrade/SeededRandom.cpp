#include "SeededRandom.h"

#include <cmath>

namespace kovane_replay {

namespace {
// splitmix64's finaliser: every input bit reaches every output bit.
uint64_t scramble(uint64_t z) {
  z += 0x9E3779B97F4A7C15ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}
}  // namespace

SeededRandom::SeededRandom(uint64_t seed) : mEngine(scramble(seed)) {}

uint64_t SeededRandom::mix(uint64_t a, uint64_t b) {
  return scramble(scramble(a) ^ (b + 0x632BE59BD9B4E019ull + (a << 6) + (a >> 2)));
}

uint64_t SeededRandom::hashText(const char* text) {
  // FNV-1a.
  uint64_t h = 0xCBF29CE484222325ull;
  for (const char* p = text; p && *p; ++p) {
    h ^= static_cast<unsigned char>(*p);
    h *= 0x100000001B3ull;
  }
  return h;
}

double SeededRandom::uniform() { return static_cast<double>(mEngine() >> 11) * (1.0 / 9007199254740992.0); }

int SeededRandom::uniformInt(int lo, int hi) {
  if (hi <= lo) return lo;
  const uint64_t range = static_cast<uint64_t>(static_cast<int64_t>(hi) - lo) + 1;
  // Rejection keeps every value equally likely.
  const uint64_t limit = UINT64_MAX - UINT64_MAX % range;
  uint64_t v;
  do {
    v = mEngine();
  } while (v >= limit);
  return static_cast<int>(lo + static_cast<int64_t>(v % range));
}

double SeededRandom::normal() {
  if (mHaveSpare) {
    mHaveSpare = false;
    return mSpare;
  }
  // Marsaglia's polar form: a point in the unit disc instead of a sine and a cosine.
  double u, v, q;
  do {
    u = 2.0 * uniform() - 1.0;
    v = 2.0 * uniform() - 1.0;
    q = u * u + v * v;
  } while (q >= 1.0 || q == 0.0);
  const double f = std::sqrt(-2.0 * std::log(q) / q);
  mSpare = v * f;
  mHaveSpare = true;
  return u * f;
}

}  // namespace kovane_replay
