#include "ProgressLine.h"

#include <unistd.h>

#include <cstdio>

namespace kovane_replay {

ProgressLine::ProgressLine(const std::string& label, int total, bool enabled)
    : mLabel(label), mTotal(total), mEnabled(enabled && stderrIsTerminal()),
      mStart(std::chrono::steady_clock::now()), mLastDraw(mStart - std::chrono::seconds(1)) {}

ProgressLine::~ProgressLine() { finish(); }

bool ProgressLine::stderrIsTerminal() { return isatty(STDERR_FILENO) == 1; }

void ProgressLine::update(int done) {
  if (!mEnabled) return;
  const auto now = std::chrono::steady_clock::now();
  if (mOpen && done != mTotal && now - mLastDraw < std::chrono::milliseconds(250)) return;
  mLastDraw = now;
  const double elapsed = std::chrono::duration<double>(now - mStart).count();
  const double rate = elapsed > 0 ? done / elapsed : 0.0;
  const double left = rate > 0 && mTotal > done ? (mTotal - done) / rate : 0.0;
  if (mTotal > 0 && rate > 0.0) {
    fprintf(stderr, "\r%s: %d/%d frames, %.1f frames/s, %.0f s left   ", mLabel.c_str(), done, mTotal, rate, left);
  } else {
    fprintf(stderr, "\r%s: %d frames, %.1f frames/s   ", mLabel.c_str(), done, rate);
  }
  fflush(stderr);
  mOpen = true;
}

void ProgressLine::finish() {
  if (mOpen) {
    fputc('\n', stderr);
    mOpen = false;
  }
}

}  // namespace kovane_replay
