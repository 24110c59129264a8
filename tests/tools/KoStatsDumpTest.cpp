// The kostats_dump program on records written by the statistics writer.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"
#include "KoStatsData.h"
#include "TempFile.h"

using android::KoFrameData;
using android::KoStatsData;
using android::sp;

namespace {

// kostats_dump sits in the build folder, one level above this test program.
std::string toolPath() {
  char self[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n <= 0) return "";
  self[n] = '\0';
  std::string dir(self);
  dir = dir.substr(0, dir.rfind('/'));
  return dir.substr(0, dir.rfind('/')) + "/kostats_dump";
}

struct ToolRun {
  int status = -1;
  std::string out;
};

ToolRun runTool(const std::string& args) {
  ToolRun r;
  const std::string command = KOVANE_TOOL_LAUNCHER + toolPath() + " " + args + " 2>/dev/null";
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return r;
  char chunk[4096];
  size_t n;
  while ((n = fread(chunk, 1, sizeof(chunk), p)) > 0) r.out.append(chunk, n);
  const int status = pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// A temporary file holding bytes, removed at the end of the test.
struct TempPath : kovane_test::TempFile {
  explicit TempPath(const std::vector<char>& bytes) {
    EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
};

// An EXIF history block (3, 0 prefix) of a two-frame capture.
std::vector<char> exifBlock() {
  android::KoFrameHist hist;
  for (uint32_t i = 0; i < 2; ++i) {
    sp<KoFrameData> f = new KoFrameData();
    f->mFrameId = 500 + i;
    f->mTimestamp = 777000 + i;
    f->mLuxIdx = 1.5f;
    f->mFaceData.record.numFaces = 1;
    f->mFaceData.record.faces[0].id = 9;
    hist.addFrameData(f);
  }
  android::KoFrameHistSnapshot snapshot(&hist);
  android::KoGenFrameData_t s;
  memset(&s, 0, sizeof(s));
  s.jobId = 4;
  s.capturedFrameIndex = 1;
  s.bestShotFrameIndex = -1;
  KoStatsData stats;
  std::vector<char> block(4 + KoStatsData::EXIF_BUFFER_SIZE, 0);
  block[0] = 3;
  const int n = stats.genExifHistory(block.data() + 4, KoStatsData::EXIF_BUFFER_SIZE, &s,
                                     &snapshot, nullptr, nullptr, -1, 0);
  EXPECT_GT(n, 0);
  block.resize(4 + n);
  return block;
}

}  // namespace

TEST(KoStatsDump, PrintsARecordAsJson) {
  ASSERT_EQ(access(toolPath().c_str(), X_OK), 0) << "build kostats_dump: " << toolPath();
  const std::vector<char> block = exifBlock();
  // The EXIF block with its 3/0 prefix, and the bare record after it.
  for (const bool prefixed : {true, false}) {
    const TempPath file(prefixed ? block : std::vector<char>(block.begin() + 4, block.end()));
    const ToolRun r = runTool(file.path);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(r.out.rfind(std::string("{\"exifBlock\":") + (prefixed ? "true" : "false") +
                              ",\"segments\":[{\"offset\":0,\"type\":\"sshd\"",
                          0),
              0u)
        << r.out;
    for (const char* part : {"\"jobId\":4,", "\"sequence\":null", "\"frame_id\":501,\"ts\":777001,",
                             "\"zsl_bs_capture\":\"CapturedNoZSL\"", "\"lux_idx\":1.500,", "\"faces\":[{\"face.id\":9,"}) {
      EXPECT_NE(r.out.find(part), std::string::npos) << part << " in " << r.out;
    }
    EXPECT_EQ(r.out.find("\"error\""), std::string::npos);
    EXPECT_EQ(r.out.back(), '\n');

    const ToolRun check = runTool("--check " + file.path);
    EXPECT_EQ(check.status, 0);
    EXPECT_TRUE(check.out.empty());
  }
}

TEST(KoStatsDump, ReportsMalformedRecordsAndBadUse) {
  ASSERT_EQ(access(toolPath().c_str(), X_OK), 0) << "build kostats_dump: " << toolPath();
  std::vector<char> block = exifBlock();
  block[4 + 8] = 2;  // version of the first segment
  const TempPath file(block);
  const ToolRun r = runTool(file.path);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("\"error\":\"unsupported segment version 2 of sshd at offset 0\""),
            std::string::npos)
      << r.out;
  EXPECT_EQ(runTool("--check " + file.path).status, 1);
  EXPECT_EQ(runTool("/nonexistent/record").status, 2);
  EXPECT_EQ(runTool("").status, 2);
}
