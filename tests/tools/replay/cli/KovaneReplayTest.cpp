// The kovane-replay program end to end on a real clip: its outputs have the documented shape,
// every ZSL buffer it lends comes back exactly once, a hand shake it injects shows in the
// engine's own sharpness scores, summaries merge, and bad input ends in one clear line and a
// non-zero exit.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "../ReplayTestUtil.h"
#include "ClipProbe.h"
#include "MotionPhoto.h"
#include "ReportWriter.h"
#include "TempFile.h"
#include "TestData.h"

namespace {

using kovane_replay_test::TempDir;
using kovane_replay_test::readFile;

struct Result {
  int status = -1;  // exit status, or -1 when the program did not exit normally
  std::string out, err;
  std::vector<std::string> toolLines;  // the tool's own error lines (the engine may log on stderr too)
};

Result runReplay(const std::string& args) {
  const TempDir dir("kovane-replay-run");
  const int rc = system((KOVANE_TOOL_LAUNCHER KOVANE_REPLAY_BINARY " " + args + " >" + dir.file("out") + " 2>" +
                         dir.file("err")).c_str());
  Result r;
  if (WIFEXITED(rc)) r.status = WEXITSTATUS(rc);
  r.out = readFile(dir.file("out"));
  r.err = readFile(dir.file("err"));
  std::istringstream in(r.err);
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("kovane-replay:", 0) == 0) r.toolLines.push_back(line);
  }
  return r;
}

nlohmann::json readJson(const std::string& path) { return nlohmann::json::parse(readFile(path), nullptr, false); }

}  // namespace

TEST(KovaneReplay, BadInputEndsInOneLineAndANonZeroExit) {
  const std::string clip = kovane_test::testDataPath("webcam_face_b_400x300_25fps.mp4");
  const kovane_test::TempFile junkFile;
  ASSERT_EQ(write(junkFile.fd, "not a clip at all\n", 18), 18);
  const std::string junk = junkFile.path;
  const TempDir out("kovane-replay-bad");
  const std::string common = " --out " + out.path() + " --faces none --quiet";
  const std::pair<std::string, std::string> cases[] = {  // arguments, a word the error line must hold
      {"/nonexistent/clip.mp4" + common, "/nonexistent/clip.mp4"},
      {junk + common, junk},
      {clip + common + " --warmup 100", "warm-up"},
      {clip + common + " --size 330x200", "330x200"},
      {clip + common + " --shutter 99", "99"},
      {clip + common + " --degrade blur", "blur"},
      {clip + common + " --size 641x480", "--size"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    const Result r = runReplay(c.first);
    EXPECT_GT(r.status, 0) << r.err;  // a normal exit with an error status, never a crash
    ASSERT_EQ(r.toolLines.size(), 1u) << r.err;
    EXPECT_NE(r.toolLines[0].find(c.second), std::string::npos) << r.toolLines[0];
  }
}

TEST(KovaneReplay, AReplayWritesValidOutputsReturnsEveryBufferAndSeesTheShake) {
  const std::string clip = kovane_test::testDataPath("webcam_face_b_400x300_25fps.mp4");
  const TempDir outDir("kovane-replay-out"), mergedDir("kovane-replay-merged");
  const std::string out = outDir.path();
  const Result r = runReplay(clip + " --out " + out +
                             " --faces none --until 12 --shutter auto:3 --degrade shake*2,defocus,exposure,noise "
                             "--seed 3 --quiet");
  ASSERT_EQ(r.status, 0) << r.err;

  const nlohmann::json decisions = readJson(out + "/decisions.json");
  const nlohmann::json summary = readJson(out + "/summary.json");
  std::string error;
  ASSERT_TRUE(kovane_replay::ReportWriter::validateDecisions(decisions, &error)) << error;
  ASSERT_TRUE(kovane_replay::ReportWriter::validateSummary(summary, &error)) << error;

  // The camera's books: every buffer lent came back, none twice.
  const auto& run = decisions["run"];
  EXPECT_GT(run["zsl_lent"].get<int>(), 250);
  EXPECT_TRUE(run["zsl_returned"] == run["zsl_lent"] && run["zsl_not_returned"] == 0 &&
              run["zsl_double_returns"] == 0)
      << run.dump();

  // Six presses; each has its pictures and its record.
  const auto& presses = decisions["presses"];
  ASSERT_EQ(presses.size(), 6u);
  int shakes = 0;
  for (const auto& p : presses) {
    for (const char* file : {"captured_jpg", "final_jpg", "record_json"}) {
      ASSERT_TRUE(p["files"][file].is_string()) << file;
      EXPECT_EQ(access((out + "/" + p["files"][file].get<std::string>()).c_str(), R_OK), 0) << file;
    }
    if (p["kind"] != "shake") continue;
    // The engine's sharpness of the shaken frames is below that of the clean frames before them.
    double sum[2] = {0, 0};  // of the shaken frames, of the clean ones
    int n[2] = {0, 0};
    for (const auto& t : p["timeline"]) {
      const std::string degradation = t["truth"]["degradation"];
      if (t["engine"].is_null() || (degradation != "shake" && !degradation.empty())) continue;
      sum[degradation.empty()] += t["engine"]["sob_mean"].get<double>();
      ++n[degradation.empty()];
    }
    ASSERT_TRUE(n[0] > 0 && n[1] > 3) << n[0] << " shaken, " << n[1] << " clean";
    EXPECT_LT(sum[0] / n[0], 0.95 * sum[1] / n[1]);
    ++shakes;
  }
  EXPECT_EQ(shakes, 2);

  // The page is one file: pictures inline, nothing fetched.
  const std::string html = readFile(out + "/report.html");
  kovane_replay_test::expectParts(html, {"data:image/jpeg;base64,", "<svg"});
  kovane_replay_test::expectParts(html, {"http://", "https://"}, false);

  // Several replays' summaries (here the same one twice) make one table whose rows add up.
  const std::string merged = mergedDir.path();
  const Result m = runReplay("--merge " + out + "/summary.json " + out + "/summary.json --out " + merged);
  ASSERT_EQ(m.status, 0) << m.err;
  EXPECT_NE(m.out.find("defocus"), std::string::npos);
  const nlohmann::json total = readJson(merged + "/summary.json");
  ASSERT_TRUE(kovane_replay::ReportWriter::validateSummary(total, &error)) << error;
  EXPECT_EQ(total["kinds"].back()["presses"].get<int>(), 2 * summary["kinds"].back()["presses"].get<int>());
  EXPECT_EQ(total["runs"].size(), 2u);
}

// With --video every press asks for a clip: the talking head at 8 s holds too still for one,
// the movement around 24 s makes one; the report plays the clip from the file next to it.
TEST(KovaneReplay, VideoWritesTheEngineClipOfEachPressThatGotOne) {
  const std::string clip = kovane_test::testDataPath("webcam_face_a_400x300_25fps.mp4");
  const TempDir outDir("kovane-replay-out");
  const std::string out = outDir.path();
  const Result r = runReplay(clip + " --out " + out + " --faces none --until 26.5 --shutter 8,24 --video --quiet");
  ASSERT_EQ(r.status, 0) << r.err;
  const nlohmann::json decisions = readJson(out + "/decisions.json");
  std::string error;
  ASSERT_TRUE(kovane_replay::ReportWriter::validateDecisions(decisions, &error)) << error;
  const auto& presses = decisions["presses"];
  ASSERT_EQ(presses.size(), 2u);
  EXPECT_TRUE(presses[0]["files"]["clip_mp4"].is_null());
  EXPECT_NE(access((out + "/capture-01/clip.mp4").c_str(), F_OK), 0) << "an unsaved clip is not kept";
  ASSERT_TRUE(presses[1]["files"]["clip_mp4"].is_string());
  const std::string file = presses[1]["files"]["clip_mp4"].get<std::string>();
  EXPECT_EQ(file, "capture-02/clip.mp4");
  const kovane_test::ProbedClip probed = kovane_test::probeClip(out + "/" + file);
  ASSERT_TRUE(probed.ok) << probed.error;
  EXPECT_EQ(probed.codec, "h264");
  EXPECT_TRUE(probed.durationUs() >= 1000000 && probed.durationUs() <= 3500000) << probed.durationUs();
  for (const auto& p : presses) EXPECT_TRUE(p["engine"]["done"].get<bool>());
  // The final picture with the clip embedded: the directory's video item is the clip, byte for
  // byte at the offset it gives, and FFmpeg plays it from there.
  ASSERT_TRUE(presses[1]["files"]["motion_jpg"].is_string());
  const std::string motion = out + "/" + presses[1]["files"]["motion_jpg"].get<std::string>();
  kovane_replay::MotionPhoto::Info info;
  ASSERT_TRUE(kovane_replay::MotionPhoto::parse(motion, &info, &error)) << error;
  EXPECT_EQ(info.videoLength, static_cast<int64_t>(readFile(out + "/" + file).size()));
  EXPECT_EQ(readFile(motion).substr(static_cast<size_t>(info.videoOffset)), readFile(out + "/" + file));
  EXPECT_TRUE(info.presentationTimestampUs > 0 && info.presentationTimestampUs < probed.durationUs());
  EXPECT_EQ(kovane_test::probeClip(motion, info.videoOffset).ptsUs, probed.ptsUs);
  EXPECT_NE(readFile(out + "/report.html").find("<video controls muted loop playsinline preload=\"metadata\" src=\"" + file + "\""),
            std::string::npos);
}
