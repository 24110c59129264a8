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

// The dump program's exit status and standard output; it sits in the build folder, one level
// above this test program.
struct ToolRun {
  int status = -1;
  std::string out;
};

ToolRun runTool(const std::string& args) {
  char self[PATH_MAX] = {};
  ToolRun r;
  if (readlink("/proc/self/exe", self, sizeof(self) - 1) <= 0) return r;
  std::string tool = self;
  tool = tool.substr(0, tool.rfind('/', tool.rfind('/') - 1)) + "/kostats_dump";
  EXPECT_EQ(access(tool.c_str(), X_OK), 0) << "build kostats_dump: " << tool;
  FILE* p = popen((KOVANE_TOOL_LAUNCHER + tool + " " + args + " 2>/dev/null").c_str(), "r");
  if (p == nullptr) return r;
  char chunk[4096];
  for (size_t n; (n = fread(chunk, 1, sizeof(chunk), p)) > 0;) r.out.append(chunk, n);
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
  const int n =
      stats.genExifHistory(block.data() + 4, KoStatsData::EXIF_BUFFER_SIZE, &s, &snapshot, nullptr, nullptr, -1, 0);
  EXPECT_GT(n, 0);
  block.resize(4 + n);
  return block;
}

}  // namespace

TEST(KoStatsDump, PrintsARecordAsJson) {
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
    EXPECT_TRUE(check.status == 0 && check.out.empty()) << check.out;
  }
}

TEST(KoStatsDump, ReportsMalformedRecordsAndBadUse) {
  std::vector<char> block = exifBlock();
  block[4 + 8] = 2;  // version of the first segment
  const TempPath file(block);
  const ToolRun r = runTool(file.path);
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("\"error\":\"unsupported segment version 2 of sshd at offset 0\""), std::string::npos)
      << r.out;
  // A malformed record fails its check; a missing file and no file at all are bad use.
  const std::pair<std::string, int> statuses[] = {{"--check " + file.path, 1}, {"/nonexistent/record", 2}, {"", 2}};
  for (const auto& s : statuses) EXPECT_EQ(runTool(s.first).status, s.second) << s.first;
}
