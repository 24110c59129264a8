#pragma once
// Captures what is written to stderr (where liblog prints on the host) while it lives.
#include <string>

namespace kovane_test {

class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  // Stops capturing (once) and returns everything written meanwhile.
  std::string finish();

 private:
  int mSavedFd = -1;
  int mFileFd = -1;
  std::string mText;
  bool mDone = false;
};

}  // namespace kovane_test
