// report.html of a small replay: self-contained, honest about missing pictures and missing
// engine decisions, and shown by headless Chromium without errors, with its pictures decoded
// and its charts laid out.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "Metrics.h"
#include "ReportSamples.h"
#include "ReportWriter.h"
#include "TimelineSvg.h"

using namespace kovane_replay;
using namespace kovane_replay_test;

namespace {

const char* const kChromium = "/usr/bin/chromium";

size_t countOf(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
  return n;
}

// A replay of three presses written the way the runner leaves it: the pictures under
// capture-NN/, then the outputs.
struct WrittenReport {
  kovane_replay_test::TempDir dir{"kovane-report-html"};
  std::vector<PressResult> presses;
  std::string html;
};

void writeReport(WrittenReport& r, bool decided) {
  r.presses = {timelinePress(0, "clean", 60, decided), timelinePress(1, "blink", 120, decided),
               timelinePress(2, "shake", 200, false)};
  std::string error;
  for (const PressResult& p : r.presses) {
    ASSERT_TRUE(writePressPictures(r.dir.path(), p, &error)) << error;
  }
  ASSERT_TRUE(ReportWriter::writeRun(r.dir.path(), sampleRun(decided), r.presses, &error)) << error;
  r.html = readFile(r.dir.file("report.html"));
}

// Runs headless Chromium on a page with a fresh profile folder, bounded in time; `mode` is
// "--screenshot=PATH" or "--dump-dom". Returns its exit status and, in *log, the lines it logs
// for the page's console (messages, uncaught exceptions).
int runChromium(const std::string& page, const std::string& mode, const std::string& out, std::string* log) {
  kovane_replay_test::TempDir profile("kovane-chromium-profile");
  const std::string err = profile.file("stderr");
  const std::string cmd = std::string("timeout 60 ") + kChromium +
                          " --headless=new --no-sandbox --disable-gpu --no-first-run --hide-scrollbars"
                          " --enable-logging=stderr --v=0 --user-data-dir='" +
                          profile.path() + "' --window-size=1200,2000 " + mode + " 'file://" + page + "' >'" + out +
                          "' 2>'" + err + "'";
  const int rc = std::system(cmd.c_str());
  std::istringstream in(readFile(err));
  log->clear();
  for (std::string line; std::getline(in, line);) {
    if (line.find(":CONSOLE") != std::string::npos || line.find("Uncaught") != std::string::npos) *log += line + "\n";
  }
  if (rc != 0) *log += readFile(err);
  return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

}  // namespace

TEST(HtmlReportPage, SaysSoWhenTheEngineDecidedNothingOrAPictureIsMissing) {
  WrittenReport r;
  writeReport(r, false);
  EXPECT_NE(r.html.find("no engine pick: the engine made no best-shot decision; final = captured"),
            std::string::npos);
  // Nothing fetched: no address, no external file, every source an inline picture, no script.
  expectParts(r.html, {"http:", "https:", "<script", "<link", "url("}, false);
  EXPECT_EQ(countOf(r.html, "src=\""), countOf(r.html, "src=\"data:image/jpeg;base64,/9j/"));
  EXPECT_EQ(countOf(r.html, "<img "), 2 * r.presses.size());

  // A picture gone and one that is no JPEG: the page names them and shows the rest.
  ASSERT_EQ(unlink(r.dir.file("capture-01/final.jpg").c_str()), 0);
  std::string error;
  ASSERT_TRUE(ReportWriter::writeText(r.dir.file("capture-02/captured.jpg"), "GIF89a", &error));
  PressResult noFile = timelinePress(3, "noise", 250, false);
  noFile.capturedJpeg.clear();
  r.presses.push_back(noFile);
  const std::string html = ReportWriter::reportHtml(sampleRun(false), r.presses, Metrics::summarize(r.presses),
                                                    ReportWriter::filesUnder(r.dir.path()));
  expectParts(html, {"picture missing: capture-01/final.jpg (cannot open",
                     "not a JPEG picture: capture-02/captured.jpg", "no picture was written for this press"});
  EXPECT_EQ(countOf(html, "<img "), 8u - 4u);

  // Text from the run is escaped wherever it goes.
  kovane_replay::RunInfo odd = sampleRun(false);
  odd.clip = "/clips/<script>alert('x')</script>&.mp4";
  odd.degrade = "\"shake\"";
  PressResult oddPress = r.presses[0];
  oddPress.kind = "<b>kind</b>";
  const std::string escaped = ReportWriter::reportHtml(odd, {oddPress}, Metrics::summarize({oddPress}), nullptr);
  expectParts(escaped, {"<script", "<b>kind"}, false);
  expectParts(escaped, {"&lt;script&gt;alert(&#39;x&#39;)&lt;/script&gt;&amp;.mp4", "&lt;b&gt;kind&lt;/b&gt;",
                        "picture missing"});  // no picture source at all

  // A replay without presses has a table of one row and says why.
  const std::string empty = ReportWriter::reportHtml(sampleRun(false), {}, Metrics::summarize({}), nullptr);
  EXPECT_NE(empty.find("No shutter presses in this replay."), std::string::npos);
  EXPECT_EQ(countOf(empty, "<section"), 0u);
}

// Chromium shows the page: it logs nothing to the console, the screenshot is a real page, and
// in a copy of the page with a probe script every picture is decoded and every chart has width.
TEST(HtmlReportPage, OpensInHeadlessChromiumWithoutErrors) {
  if (access(kChromium, X_OK) != 0) GTEST_SKIP() << kChromium << " is not installed";
  WrittenReport r;
  writeReport(r, true);
  const std::string png = r.dir.file("shot.png");
  std::string log;
  ASSERT_EQ(runChromium(r.dir.file("report.html"), "--screenshot=" + png, r.dir.file("shot.out"), &log), 0) << log;
  EXPECT_GT(std::filesystem::file_size(png), 40000u) << "a screenshot of the whole page is more than a blank picture";
  EXPECT_TRUE(log.empty()) << log;

  const std::string probe =
      "<script>window.addEventListener('load',function(){"
      "var ok=0,imgs=document.images;"
      "for(var i=0;i<imgs.length;i++){if(imgs[i].complete&&imgs[i].naturalWidth>0)ok++;}"
      "var w=0,s=document.querySelectorAll('svg.timeline');"
      "for(var j=0;j<s.length;j++){if(s[j].getBoundingClientRect().width>500&&"
      "s[j].querySelectorAll('polyline').length>=3)w++;}"
      "document.body.setAttribute('data-probe',ok+'/'+imgs.length+' '+w+'/'+s.length);});</script>";
  std::string probed = r.html;
  const size_t end = probed.rfind("</body>");
  ASSERT_NE(end, std::string::npos);
  probed.insert(end, probe);
  std::string error;
  ASSERT_TRUE(ReportWriter::writeText(r.dir.file("probe.html"), probed, &error)) << error;
  ASSERT_EQ(runChromium(r.dir.file("probe.html"), "--dump-dom", r.dir.file("dom.out"), &log), 0) << log;
  EXPECT_TRUE(log.empty()) << log;
  const std::string dom = readFile(r.dir.file("dom.out"));
  EXPECT_NE(dom.find("data-probe=\"6/6 3/3\""), std::string::npos) << dom.substr(0, dom.find("<main"));
}

// The chart of a press: one line per score, its markers, and notes where there is nothing to
// mark or to draw.
TEST(TimelineChart, DrawsTheScoresAndMarksThePicks) {
  PressResult p = timelinePress(0, "defocus", 60, true);
  std::string svg = kovane_replay::TimelineSvg::of(p);
  EXPECT_EQ(svg.rfind("<svg class=\"timeline\"", 0), 0u);
  EXPECT_EQ(countOf(svg, "<polyline"), 4u);  // sharpness, motion, eyes open, smile
  expectParts(svg, {"sharpness (engine sob.mean)", "<title>engine pick: frame 57</title>",
                    "<title>sharpest: frame 58</title>", "<title>shutter: frame 60</title>",
                    "<title>window: frames 54", "<title>frame 59: defocus 6.5</title>"});
  EXPECT_EQ(countOf(svg, "<title>frame 6"), 2u);  // degraded frames 60 and 61; 59 just below

  // Without the engine's record: the replay's own sharpness, no motion line; a pick outside
  // the chart and a missing decision are written out.
  p.engineScores.clear();
  p.engineDecided = false;
  p.engineFrame = -1;
  p.baselineFrame = 90;
  svg = kovane_replay::TimelineSvg::of(p);
  EXPECT_EQ(countOf(svg, "<polyline"), 3u);
  expectParts(svg, {"sharpness (replay&#39;s measure)", "frame 90, off the chart",
                    "no engine decision: final = captured"});
  p.truth.clear();
  EXPECT_EQ(kovane_replay::TimelineSvg::of(p).rfind("<p class=\"note\">", 0), 0u);
}
