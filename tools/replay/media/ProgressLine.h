#pragma once
// A one-line progress report on stderr (frames done, frames per second, time left), redrawn in
// place at most four times a second. A total of 0 means unknown. Quiet when stderr is not a terminal, so logs and CI output stay clean.
#include <chrono>
#include <string>

namespace kovane_replay {

class ProgressLine {
 public:
  ProgressLine(const std::string& label, int total, bool enabled);
  ~ProgressLine();
  void update(int done);
  void finish();
  static bool stderrIsTerminal();

 private:
  std::string mLabel;
  int mTotal;
  bool mEnabled;
  bool mOpen = false;
  std::chrono::steady_clock::time_point mStart;
  std::chrono::steady_clock::time_point mLastDraw;
};

}  // namespace kovane_replay
