#include "HtmlReport.h"

#include <cmath>
#include <cstdio>

#include "Metrics.h"
#include "PressTimeline.h"
#include "TimelineSvg.h"

namespace kovane_replay {

namespace {

const char* const kStyle = R"(
*{box-sizing:border-box}
body{margin:0;background:#f3f4f6;color:#1f2937;font:14px/1.45 system-ui,-apple-system,"Segoe UI",Roboto,sans-serif}
main{max-width:1180px;margin:0 auto;padding:20px 24px 48px}
h1{font-size:22px;margin:0 0 2px}
h2{font-size:17px;margin:28px 0 10px}
h3{font-size:15px;margin:0}
.sub{color:#6b7280;margin:0 0 14px;word-break:break-all}
.card{background:#fff;border:1px solid #e5e7eb;border-radius:8px;padding:14px 18px}
dl.run{display:grid;grid-template-columns:repeat(auto-fill,minmax(330px,1fr));gap:6px 28px;margin:0}
dl.run div{display:flex;gap:10px;min-width:0}
dl.run dt{color:#6b7280;flex:0 0 92px}
dl.run dd{margin:0;min-width:0;overflow-wrap:anywhere}
.warn{color:#b91c1c;font-weight:600}
.banner{margin:18px 0 0;padding:12px 16px;border-radius:8px;background:#fff7e0;border:1px solid #f0c36d;color:#7a4b00;font-weight:600}
table{border-collapse:collapse;width:100%;background:#fff}
table.summary,table.presses{border:1px solid #e5e7eb;border-radius:8px}
th,td{padding:5px 10px;border-bottom:1px solid #eef0f3;text-align:right;white-space:nowrap}
th{font-weight:600;color:#374151;background:#f9fafb}
th.group{text-align:center;border-left:2px solid #e5e7eb}
td.first,th.first{border-left:2px solid #e5e7eb}
th:first-child,td:first-child{text-align:left}
tr.total td{font-weight:700;border-top:2px solid #d1d5db;background:#fafafa}
td.muted{color:#9ca3af}
.defs{color:#6b7280;font-size:12.5px;margin:8px 2px 0}
table.presses td,table.presses th{text-align:left}
a{color:#1d4ed8;text-decoration:none}
.press{margin:18px 0}
.press-head{display:flex;flex-wrap:wrap;align-items:baseline;gap:8px 14px;margin-bottom:6px}
.muted{color:#6b7280;font-weight:400}
.badge{display:inline-block;padding:1px 9px;border-radius:999px;font-size:12px;font-weight:600;margin-right:4px;background:#e5e7eb;color:#374151}
.badge.good{background:#dcfce7;color:#166534}
.badge.bad{background:#fee2e2;color:#991b1b}
.badge.kind{background:#e0e7ff;color:#3730a3}
.badge.none{background:#fef3c7;color:#92400e}
.facts{color:#4b5563;font-size:12.5px;margin:0 0 10px}
.pics{display:grid;grid-template-columns:repeat(auto-fill,minmax(0,460px));gap:16px}
figure{margin:0}
figure img,figure video{display:block;width:100%;height:auto;border-radius:6px;background:#e5e7eb}
figcaption{margin-top:5px;font-size:13px}
.missing{display:flex;align-items:center;justify-content:center;aspect-ratio:16/9;padding:12px;border:1px dashed #d1d5db;border-radius:6px;background:#f9fafb;color:#b91c1c;font-size:13px;text-align:center;overflow-wrap:anywhere}
.baseline{margin:8px 0 4px;font-size:13px}
svg.timeline{display:block;width:100%;height:auto;margin-top:8px}
.note{color:#6b7280;font-style:italic}
footer{margin-top:32px;color:#9ca3af;font-size:12px}
)";

std::string esc(const std::string& s) { return HtmlReport::escape(s); }

std::string fmt(const char* format, double v) {
  char text[64];
  snprintf(text, sizeof(text), format, std::isfinite(v) ? v : 0.0);
  return text;
}

std::string seconds(int64_t us) { return fmt("%.3f", static_cast<double>(us) / 1e6); }

std::string baseName(const std::string& path) {
  const size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string badge(const std::string& text, const char* cls = "") {
  return std::string("<span class=\"badge ") + cls + "\">" + esc(text) + "</span>";
}

std::string goodBadge(const std::string& what, bool good) {
  return badge(what + (good ? " good" : " bad"), good ? "good" : "bad");
}

std::string verdict(bool good) { return badge(good ? "good" : "bad", good ? "good" : "bad"); }

std::string item(const std::string& label, const std::string& valueHtml) {
  return "<div><dt>" + esc(label) + "</dt><dd>" + valueHtml + "</dd></div>";
}

// A count that should be zero, shown in red when it is not.
std::string alarm(const std::string& label, int value) {
  const std::string text = esc(label) + " " + std::to_string(value);
  return value != 0 ? "<span class=\"warn\">" + text + "</span>" : text;
}

std::string orNone(const std::string& s) { return s.empty() ? "<span class=\"muted\">none</span>" : esc(s); }

std::string runFacts(const RunInfo& info, int presses) {
  std::string out = "<dl class=\"run card\">";
  out += item("clip", esc(info.clip) +
                          (info.clipSha256.empty()
                               ? std::string()
                               : " <span class=\"muted\" title=\"sha256 " + esc(info.clipSha256) + "\">(" +
                                     esc(info.clipSha256.substr(0, 12)) + "\xE2\x80\xA6)</span>"));
  out += item("size", std::to_string(info.clipWidth) + "\xC3\x97" + std::to_string(info.clipHeight) +
                          " \xE2\x86\x92 preview " + std::to_string(info.width) + "\xC3\x97" +
                          std::to_string(info.height) + (info.fit.empty() ? "" : " (" + esc(info.fit) + ")"));
  out += item("frames", std::to_string(info.frames) + " at " + fmt("%.2f", info.fps) + " fps, " +
                            fmt("%.1f", info.durationS) + " s");
  out += item("pacing", orNone(info.pacing));
  out += item("seed", std::to_string(info.seed));
  out += item("faces", orNone(info.faces));
  out += item("shutter", orNone(info.shutter) + " \xC2\xB7 " + std::to_string(presses) + " presses");
  out += item("degrade", orNone(info.degrade));
  out += item("ZSL buffers", "lent " + std::to_string(info.zslLent) + " \xC2\xB7 returned " +
                                 std::to_string(info.zslReturned) + " \xC2\xB7 " +
                                 alarm("not returned", info.zslNotReturned) + " \xC2\xB7 " +
                                 alarm("returned twice", info.zslDoubleReturns) + " \xC2\xB7 " +
                                 alarm("refused", info.zslRefused) + " \xC2\xB7 pool empty " +
                                 std::to_string(info.zslSkipped));
  const std::string late = info.lateFrames == 1 ? "1 press late" : std::to_string(info.lateFrames) + " presses late";
  out += item("late mode", info.lateModeEntered ? "<span class=\"warn\">entered</span>, " + late
                                                : "not entered" + (info.lateFrames ? ", " + late : std::string()));
  out += item("jobs", std::to_string(info.jobsFinished) + " finished of " + std::to_string(presses));
  out += item("engine", orNone(info.engineVersion) + " \xC2\xB7 wall time " + fmt("%.1f", info.wallSeconds) + " s");
  return out + "</dl>";
}

std::string pct(const std::optional<double>& v) { return esc(Metrics::formatPercent(v)); }

std::string summaryTable(const std::vector<KindSummary>& rows) {
  std::string out =
      "<table class=\"summary\"><thead><tr><th rowspan=\"2\">kind</th><th rowspan=\"2\">presses</th>"
      "<th rowspan=\"2\">captured good</th><th class=\"group\" colspan=\"5\">engine (final picture)</th>"
      "<th class=\"group\" colspan=\"4\">baseline (sharpest frame)</th></tr><tr>"
      "<th class=\"first\">decided</th><th>good</th><th>rescued</th><th>harmed</th><th>needless</th>"
      "<th class=\"first\">good</th><th>rescued</th><th>harmed</th><th>needless</th></tr></thead><tbody>";
  for (const KindSummary& r : rows) {
    const bool total = r.kind == Metrics::kAll;
    // Without a decision the engine's columns only repeat the captured pictures.
    const std::string e = r.decided == 0 ? " class=\"muted\" title=\"no engine decision: final = captured\"" : "";
    out += std::string("<tr") + (total ? " class=\"total\"" : "") + "><td>" + esc(r.kind) + "</td><td>" +
           std::to_string(r.presses) + "</td><td>" + pct(Metrics::capturedGoodPct(r)) + "</td>";
    out += "<td class=\"first\">" + std::to_string(r.decided) + "</td>";
    out += "<td" + e + ">" + pct(Metrics::engineGoodPct(r)) + "</td><td" + e + ">" +
           pct(Metrics::engineRescuedPct(r)) + "</td><td" + e + ">" + std::to_string(r.engineHarmed) + "</td><td" +
           e + ">" + std::to_string(r.engineNeedless) + "</td>";
    out += "<td class=\"first\">" + pct(Metrics::baselineGoodPct(r)) + "</td><td>" +
           pct(Metrics::baselineRescuedPct(r)) + "</td><td>" + std::to_string(r.baselineHarmed) + "</td><td>" +
           std::to_string(r.baselineNeedless) + "</td></tr>";
  }
  out += "</tbody></table>";
  out +=
      "<p class=\"defs\"><b>good</b>: eyes open, not degraded, within the press's window \xC2\xB7 "
      "<b>rescued</b>: bad capture made good, % of the bad captures \xC2\xB7 "
      "<b>harmed</b>: good capture made bad \xC2\xB7 "
      "<b>needless</b>: good capture replaced by another frame \xC2\xB7 "
      "baseline: the sharpest frame of the window by the replay's own measure</p>";
  return out;
}

std::string banner(const std::vector<KindSummary>& rows) {
  const KindSummary* all = Metrics::allRow(rows);
  if (all && all->presses == 0) return "<div class=\"banner\">No shutter presses in this replay.</div>";
  if (Metrics::engineDecides(rows)) return "";
  return "<div class=\"banner\">no engine pick: the engine made no best-shot decision; final = captured</div>";
}

// What was done to a frame, in words: the fault and its strength.
std::string degradationText(const FrameTruth& t) {
  const std::string v = fmt("%.3g", t.strength);
  if (t.degradation == kind::kBlink) return "injected blink, degree " + v;
  if (t.degradation == kind::kShake) return "shake, blur " + v + " px";
  if (t.degradation == kind::kDefocus) return "defocus, sigma " + v + " px";
  if (t.degradation == kind::kExposure) return "exposure, gain " + v;
  if (t.degradation == kind::kNoise) return "noise, sigma " + v;
  return t.degradation + " " + v;
}

// Why a frame's picture counts as bad, from its ground truth.
std::string reasons(const PressResult& press, int frame, bool good) {
  if (good) return "";
  std::string out;
  auto add = [&](const std::string& r) { out += (out.empty() ? "" : ", ") + r; };
  if (const FrameTruth* t = PressTimeline::truthOf(press, frame)) {
    if (!t->degradation.empty()) add(degradationText(*t));
    if (t->naturalBlink) add("natural blink");
    if (!t->eyesOpen && !t->naturalBlink && t->degradation != kind::kBlink) {
      add("eyes closed (blink " + std::to_string(t->blinkDegree) + ")");
    }
  }
  if (frame < press.windowFirst || frame > press.windowLast) add("outside the window");
  return out;
}

std::string labelsOf(const PressResult& press, int frame, bool good) {
  const std::string why = reasons(press, frame, good);
  return verdict(good) + (why.empty() ? "" : " <span class=\"muted\">" + esc(why) + "</span>");
}

bool isJpeg(const std::vector<uint8_t>& b) { return b.size() > 4 && b[0] == 0xFF && b[1] == 0xD8 && b[2] == 0xFF; }

std::string picture(const std::string& path, const std::string& alt, const HtmlReport::PictureSource& pictures) {
  auto missing = [&](const std::string& why) {
    return "<div class=\"missing\">" + esc(why) + "</div>";
  };
  if (path.empty()) return missing("no picture was written for this press");
  std::vector<uint8_t> bytes;
  std::string error;
  if (!pictures || !pictures(path, bytes, &error)) {
    return missing("picture missing: " + path + (error.empty() ? "" : " (" + error + ")"));
  }
  if (!isJpeg(bytes)) return missing("not a JPEG picture: " + path);
  return "<img src=\"data:image/jpeg;base64," + HtmlReport::base64(bytes) + "\" alt=\"" + esc(alt) + "\">";
}

std::string pressSection(const PressResult& p, const HtmlReport::PictureSource& pictures) {
  std::string out = "<section class=\"press card\" id=\"press-" + std::to_string(p.index) + "\">";
  out += "<div class=\"press-head\"><h3>Press " + std::to_string(p.index) +
         " <span class=\"muted\">\xC2\xB7 shutter frame " + std::to_string(p.shutterFrame) + " at " +
         seconds(p.shutterTimeUs) + " s</span></h3><div>";
  out += badge(p.kind, "kind");
  if (!p.source.empty()) out += badge(p.source);
  out += goodBadge("captured", p.capturedGood) + goodBadge("final", p.finalGood);
  if (!p.engineDecided) out += badge("no engine decision", "none");
  out += "</div></div>";

  std::string facts = "window frames " + std::to_string(p.windowFirst) + "\xE2\x80\x93" +
                      std::to_string(p.windowLast) + " \xC2\xB7 job " + std::to_string(p.jobId) + " \xC2\xB7 ";
  if (p.engineDecided) {
    facts += "engine picked " + (p.engineFrame >= 0 ? "frame " + std::to_string(p.engineFrame) : "no frame") +
             (p.replace ? ", replace" : ", keep") + " \xC2\xB7 decision " +
             (p.decisionMs >= 0 ? fmt("%.1f", p.decisionMs) + " ms" : "time unknown") + " \xC2\xB7 bits 0x" +
             [&] {
               char hex[16];
               snprintf(hex, sizeof(hex), "%x", p.algBitField);
               return std::string(hex);
             }() +
             " \xC2\xB7 capture offset " + std::to_string(p.captureOffsetUs) + " \xC2\xB5s";
  } else {
    facts += "no best-shot decision: final = captured";
  }
  facts += std::string(" \xC2\xB7 statistics ") + (p.statisticsReceived ? "received" : "not received") +
           " \xC2\xB7 engine " + (p.engineDone ? "done" : "not done");
  out += "<p class=\"facts\">" + esc(facts) + "</p>";

  out += "<div class=\"pics\"><figure>" +
         picture(p.capturedJpeg, "captured picture, frame " + std::to_string(p.shutterFrame), pictures) +
         "<figcaption><b>Captured</b> \xC2\xB7 frame " + std::to_string(p.shutterFrame) + " " +
         labelsOf(p, p.shutterFrame, p.capturedGood) + "</figcaption></figure>";
  out += "<figure>" + picture(p.finalJpeg, "final picture, frame " + std::to_string(p.finalFrame), pictures) +
         "<figcaption><b>Final</b> \xC2\xB7 frame " + std::to_string(p.finalFrame) +
         (p.finalFrame == p.shutterFrame ? " (the captured one)" : "") + " " +
         labelsOf(p, p.finalFrame, p.finalGood) + "</figcaption></figure>";
  if (!p.clipMp4.empty()) {
    out += "<figure><video controls muted loop playsinline preload=\"metadata\" src=\"" + esc(p.clipMp4) +
           "\"></video><figcaption><b>Clip</b> \xC2\xB7 the engine's video around the shutter</figcaption></figure>";
  }
  out += "</div>";
  out += "<p class=\"baseline\">Sharpest-frame pick (baseline): frame " + std::to_string(p.baselineFrame) + " " +
         labelsOf(p, p.baselineFrame, p.baselineGood) + "</p>";
  out += TimelineSvg::of(p);
  return out + "</section>";
}

std::string presses(const std::vector<PressResult>& list) {
  std::string out =
      "<table class=\"presses\"><thead><tr><th>press</th><th>kind</th><th>shutter</th><th>captured</th>"
      "<th>engine pick</th><th>final</th><th>baseline</th></tr></thead><tbody>";
  for (const PressResult& p : list) {
    const std::string id = std::to_string(p.index);
    out += "<tr><td><a href=\"#press-" + id + "\">Press " + id + "</a></td><td>" + esc(p.kind) + "</td><td>frame " +
           std::to_string(p.shutterFrame) + " \xC2\xB7 " + seconds(p.shutterTimeUs) + " s</td><td>" +
           verdict(p.capturedGood) + "</td><td>" +
           (p.engineDecided ? (p.engineFrame >= 0 ? "frame " + std::to_string(p.engineFrame) : "no frame")
                            : std::string("<span class=\"muted\">no decision</span>")) +
           "</td><td>frame " + std::to_string(p.finalFrame) + " " + verdict(p.finalGood) + "</td><td>frame " +
           std::to_string(p.baselineFrame) + " " + verdict(p.baselineGood) + "</td></tr>";
  }
  return out + "</tbody></table>";
}

std::string pageStart(const std::string& title) {
  return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"><title>" +
         esc(title) + "</title><style>" + kStyle + "</style></head><body><main>";
}

std::string pageEnd(const std::string& engineVersion) {
  return "<footer>Written by kovane-replay" +
         (engineVersion.empty() ? std::string() : " \xC2\xB7 engine " + esc(engineVersion)) +
         "</footer></main></body></html>\n";
}

}  // namespace

std::string HtmlReport::runPage(const RunInfo& info, const std::vector<PressResult>& list,
                                const std::vector<KindSummary>& rows, const PictureSource& pictures) {
  std::string out = pageStart("kovane-replay: " + baseName(info.clip));
  out += "<h1>Replay of " + esc(baseName(info.clip)) + "</h1><p class=\"sub\">" + esc(info.clip) + "</p>";
  out += runFacts(info, static_cast<int>(list.size()));
  out += banner(rows);
  out += "<h2>Summary</h2>" + summaryTable(rows);
  if (!list.empty()) {
    out += "<h2>Presses</h2>" + presses(list);
    for (const PressResult& p : list) out += pressSection(p, pictures);
  }
  return out + pageEnd(info.engineVersion);
}

std::string HtmlReport::mergedPage(const std::vector<RunInfo>& runs, const std::vector<KindSummary>& rows) {
  std::string out = pageStart("kovane-replay: " + std::to_string(runs.size()) + " replays");
  out += "<h1>" + std::to_string(runs.size()) + " replays</h1><p class=\"sub\">counts added over the replays</p>";
  out +=
      "<table class=\"presses\"><thead><tr><th>clip</th><th>preview</th><th>frames</th><th>faces</th>"
      "<th>degrade</th><th>seed</th><th>ZSL not returned / twice</th><th>late mode</th></tr></thead><tbody>";
  for (const RunInfo& r : runs) {
    out += "<tr><td title=\"" + esc(r.clip) + "\">" + esc(baseName(r.clip)) + "</td><td>" +
           std::to_string(r.width) + "\xC3\x97" + std::to_string(r.height) + "</td><td>" + std::to_string(r.frames) +
           " at " + fmt("%.2f", r.fps) + " fps</td><td>" + orNone(r.faces) + "</td><td>" + orNone(r.degrade) +
           "</td><td>" + std::to_string(r.seed) + "</td><td>" + alarm("", r.zslNotReturned) + " / " +
           alarm("", r.zslDoubleReturns) + "</td><td>" +
           (r.lateModeEntered ? "<span class=\"warn\">entered</span>" : std::string("not entered")) + "</td></tr>";
  }
  out += "</tbody></table>";
  out += banner(rows);
  out += "<h2>Summary</h2>" + summaryTable(rows);
  return out + pageEnd(runs.empty() ? std::string() : runs.front().engineVersion);
}

std::string HtmlReport::escape(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

std::string HtmlReport::base64(const std::vector<uint8_t>& bytes) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    const uint32_t v = (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    out += kDigits[(v >> 18) & 63];
    out += kDigits[(v >> 12) & 63];
    out += kDigits[(v >> 6) & 63];
    out += kDigits[v & 63];
  }
  if (i < bytes.size()) {
    const bool two = i + 1 < bytes.size();
    const uint32_t v = (uint32_t{bytes[i]} << 16) | (two ? uint32_t{bytes[i + 1]} << 8 : 0);
    out += kDigits[(v >> 18) & 63];
    out += kDigits[(v >> 12) & 63];
    out += two ? kDigits[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

}  // namespace kovane_replay
