#include "StderrCapture.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace kovane_test {

StderrCapture::StderrCapture() {
  fflush(stderr);
  char name[] = "/tmp/kovane_stderr_XXXXXX";
  mFileFd = mkstemp(name);
  if (mFileFd < 0) return;
  unlink(name);
  mSavedFd = dup(STDERR_FILENO);
  dup2(mFileFd, STDERR_FILENO);
}

StderrCapture::~StderrCapture() { finish(); }

std::string StderrCapture::finish() {
  if (mDone) return mText;
  mDone = true;
  if (mFileFd < 0) return mText;
  fflush(stderr);
  dup2(mSavedFd, STDERR_FILENO);
  close(mSavedFd);
  lseek(mFileFd, 0, SEEK_SET);
  char buf[4096];
  ssize_t n;
  while ((n = read(mFileFd, buf, sizeof buf)) > 0) mText.append(buf, static_cast<size_t>(n));
  close(mFileFd);
  return mText;
}

}  // namespace kovane_test
