#include "TimelineSvg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <optional>
#include <vector>

#include "HtmlReport.h"
#include "PressTimeline.h"

namespace kovane_replay {

namespace {

// Layout, in the chart's units.
constexpr double kLeft = 96;         // room for the row labels
constexpr double kRight = 12;
constexpr double kLegendY1 = 14;     // two legend lines
constexpr double kLegendY2 = 32;
constexpr double kPlotTop = 46;
constexpr double kPlotHeight = 150;
constexpr double kAxisGap = 15;      // frame numbers under the plot
constexpr double kRowHeight = 17;
constexpr int kRows = 5;             // degraded, ZSL kept, shutter, engine pick, sharpest

const char* const kSharpColour = "#2563eb";
const char* const kMotionColour = "#9333ea";
const char* const kEyesColour = "#0d9488";
const char* const kSmileColour = "#db2777";
const char* const kDegradedColour = "#ef4444";
const char* const kZslColour = "#64748b";
const char* const kShutterColour = "#111827";
const char* const kEngineColour = "#15803d";
const char* const kBaselineColour = "#d97706";
const char* const kWindowColour = "#e0ecff";

std::string num(double v) {
  char text[32];
  snprintf(text, sizeof(text), "%.1f", v);
  std::string s = text;
  if (s.size() > 2 && s.compare(s.size() - 2, 2, ".0") == 0) s.resize(s.size() - 2);
  return s;
}

std::string esc(const std::string& s) { return HtmlReport::escape(s); }

struct Series {
  const char* name;
  const char* colour;
  std::vector<std::optional<double>> values;  // 0..100 per frame
};

// A polyline per run of frames that have a value, with a dot on each value.
std::string drawSeries(const Series& s, const std::vector<double>& xs, double yOf100, double yOf0, bool dots) {
  std::string out = "<g class=\"series\" stroke=\"" + std::string(s.colour) + "\" fill=\"none\">";
  auto y = [&](double v) { return yOf0 + (yOf100 - yOf0) * std::clamp(v, 0.0, 100.0) / 100.0; };
  std::string points;
  int inRun = 0;
  auto flush = [&]() {
    if (inRun > 1) out += "<polyline stroke-width=\"2\" stroke-linejoin=\"round\" points=\"" + points + "\"/>";
    points.clear();
    inRun = 0;
  };
  for (size_t i = 0; i < s.values.size(); ++i) {
    if (!s.values[i]) {
      flush();
      continue;
    }
    points += (inRun ? " " : "") + num(xs[i]) + "," + num(y(*s.values[i]));
    ++inRun;
  }
  flush();
  if (dots) {
    out += "<g fill=\"" + std::string(s.colour) + "\" stroke=\"none\">";
    for (size_t i = 0; i < s.values.size(); ++i) {
      if (!s.values[i]) continue;
      out += "<circle cx=\"" + num(xs[i]) + "\" cy=\"" + num(y(*s.values[i])) + "\" r=\"2.6\"><title>" +
             esc(std::string(s.name) + ": " + num(*s.values[i])) + "</title></circle>";
    }
    out += "</g>";
  }
  return out + "</g>";
}

// Legend entries: a short line, a box or a marker, then the text; laid left to right.
struct Legend {
  std::string svg;
  double x = kLeft;
  double y = 0;

  void line(const char* colour, const std::string& text, const char* dash = nullptr) {
    svg += "<line x1=\"" + num(x) + "\" y1=\"" + num(y - 4) + "\" x2=\"" + num(x + 18) + "\" y2=\"" + num(y - 4) +
           "\" stroke=\"" + colour + "\" stroke-width=\"2.5\"" +
           (dash ? std::string(" stroke-dasharray=\"") + dash + "\"" : std::string()) + "/>";
    label(x + 23, text);
  }
  void box(const char* colour, const std::string& text, double opacity = 1.0) {
    svg += "<rect x=\"" + num(x) + "\" y=\"" + num(y - 10) + "\" width=\"14\" height=\"11\" fill=\"" + colour +
           "\" fill-opacity=\"" + num(opacity) + "\"/>";
    label(x + 19, text);
  }
  void marker(const std::string& shape, const std::string& text) {
    svg += shape;
    label(x + 16, text);
  }
  void label(double at, const std::string& text) {
    svg += "<text x=\"" + num(at) + "\" y=\"" + num(y) + "\">" + esc(text) + "</text>";
    // Roughly 6.2 units a character at the legend's font size.
    x = at + 6.2 * static_cast<double>(text.size()) + 22;
  }
};

std::string triangleDown(double cx, double cy, const char* colour) {
  return "<polygon points=\"" + num(cx - 6) + "," + num(cy - 5) + " " + num(cx + 6) + "," + num(cy - 5) + " " +
         num(cx) + "," + num(cy + 5) + "\" fill=\"" + colour + "\"/>";
}

std::string dot(double cx, double cy, const char* colour) {
  return "<circle cx=\"" + num(cx) + "\" cy=\"" + num(cy) + "\" r=\"5.5\" fill=\"" + colour + "\"/>";
}

std::string diamond(double cx, double cy, const char* colour) {
  return "<polygon points=\"" + num(cx) + "," + num(cy - 6) + " " + num(cx + 6) + "," + num(cy) + " " + num(cx) +
         "," + num(cy + 6) + " " + num(cx - 6) + "," + num(cy) + "\" fill=\"" + colour + "\"/>";
}

}  // namespace

std::string TimelineSvg::of(const PressResult& press) {
  const std::vector<PressTimeline::Frame> frames = PressTimeline::align(press);
  if (frames.empty()) return "<p class=\"note\">No per-frame data was recorded around this press.</p>";
  const size_t n = frames.size();
  const double plotWidth = kWidth - kLeft - kRight;
  const double cw = plotWidth / static_cast<double>(n);
  std::vector<double> xs(n);
  for (size_t i = 0; i < n; ++i) xs[i] = kLeft + (static_cast<double>(i) + 0.5) * cw;
  const double plotBottom = kPlotTop + kPlotHeight;
  const double rowsTop = plotBottom + kAxisGap + 8;
  const double height = rowsTop + kRows * kRowHeight + 6;
  auto rowY = [&](int row) { return rowsTop + row * kRowHeight + kRowHeight / 2; };
  auto columnOf = [&](int frame) -> int {
    for (size_t i = 0; i < n; ++i) {
      if (frames[i].truth->frame == frame) return static_cast<int>(i);
    }
    return -1;
  };

  // The series.
  bool engineSharpness = false;
  for (const auto& f : frames) engineSharpness = engineSharpness || (f.engine && f.engine->sobelMean > 0);
  Series sharp{engineSharpness ? "sharpness (engine sob.mean)" : "sharpness (replay's measure)", kSharpColour, {}};
  Series motion{"motion", kMotionColour, {}};
  Series eyes{"eyes open", kEyesColour, {}};
  Series smile{"smile", kSmileColour, {}};
  double sharpMax = 0;
  for (const auto& f : frames) {
    std::optional<double> s;
    if (engineSharpness) {
      if (f.engine) s = f.engine->sobelMean;
    } else {
      s = f.truth->sharpness;
    }
    if (s && std::isfinite(*s)) sharpMax = std::max(sharpMax, *s);
    sharp.values.push_back(s && std::isfinite(*s) ? s : std::nullopt);
    motion.values.push_back(f.engine ? std::optional<double>(std::clamp(f.engine->motion, 0.0, 1.0) * 100.0)
                                     : std::nullopt);
    if (f.engine && f.engine->numFaces > 0) {
      eyes.values.push_back(100.0 - f.engine->blinkDegree);
      smile.values.push_back(static_cast<double>(f.engine->smile));
    } else if (f.truth->hasFace) {
      eyes.values.push_back(100.0 - f.truth->blinkDegree);
      smile.values.push_back(static_cast<double>(f.truth->smile));
    } else {
      eyes.values.push_back(std::nullopt);
      smile.values.push_back(std::nullopt);
    }
  }
  for (auto& v : sharp.values) {
    if (v) v = sharpMax > 0 ? *v / sharpMax * 100.0 : 0.0;
  }

  std::string svg = "<svg class=\"timeline\" viewBox=\"0 0 " +
                    std::to_string(kWidth) + " " + num(height) +
                    "\" role=\"img\" aria-label=\"" +
                    esc("scores of frames " + std::to_string(frames.front().truth->frame) + " to " +
                        std::to_string(frames.back().truth->frame) + " around press " +
                        std::to_string(press.index)) +
                    "\" font-family=\"system-ui, sans-serif\" font-size=\"11\" fill=\"#334155\">";

  // Legend.
  Legend legend;
  legend.y = kLegendY1;
  legend.line(kSharpColour, std::string(sharp.name) + ", % of sharpest");
  legend.line(kMotionColour, "motion");
  legend.line(kEyesColour, "eyes open (100 \xE2\x88\x92 blink)");
  legend.line(kSmileColour, "smile");
  legend.x = kLeft;
  legend.y = kLegendY2;
  legend.box(kWindowColour, "window");
  legend.box(kDegradedColour, "degraded", 0.75);
  legend.box(kZslColour, "ZSL kept");
  legend.marker(triangleDown(legend.x + 6, kLegendY2 - 4, kShutterColour), "shutter");
  legend.marker(dot(legend.x + 6, kLegendY2 - 4, kEngineColour), "engine pick");
  legend.marker(diamond(legend.x + 6, kLegendY2 - 4, kBaselineColour), "sharpest (baseline)");
  svg += legend.svg;

  // Plot background: the window, then the degraded frames, then the grid.
  int firstIn = -1, lastIn = -1;
  for (size_t i = 0; i < n; ++i) {
    if (!frames[i].inWindow) continue;
    if (firstIn < 0) firstIn = static_cast<int>(i);
    lastIn = static_cast<int>(i);
  }
  svg += "<rect x=\"" + num(kLeft) + "\" y=\"" + num(kPlotTop) + "\" width=\"" + num(plotWidth) + "\" height=\"" +
         num(kPlotHeight) + "\" fill=\"#ffffff\" stroke=\"#cbd5e1\"/>";
  if (firstIn >= 0) {
    svg += "<rect x=\"" + num(kLeft + firstIn * cw) + "\" y=\"" + num(kPlotTop) + "\" width=\"" +
           num((lastIn - firstIn + 1) * cw) + "\" height=\"" + num(kPlotHeight) + "\" fill=\"" + kWindowColour +
           "\"><title>window: frames " + std::to_string(press.windowFirst) + "\xE2\x80\x93" +
           std::to_string(press.windowLast) + "</title></rect>";
  }
  for (size_t i = 0; i < n; ++i) {
    if (frames[i].truth->degradation.empty()) continue;
    svg += "<rect x=\"" + num(kLeft + i * cw) + "\" y=\"" + num(kPlotTop) + "\" width=\"" + num(cw) +
           "\" height=\"" + num(kPlotHeight) + "\" fill=\"" + kDegradedColour + "\" fill-opacity=\"0.13\"/>";
  }
  for (int v = 0; v <= 100; v += 25) {
    const double y = plotBottom - kPlotHeight * v / 100.0;
    svg += "<line x1=\"" + num(kLeft) + "\" y1=\"" + num(y) + "\" x2=\"" + num(kLeft + plotWidth) + "\" y2=\"" +
           num(y) + "\" stroke=\"#e2e8f0\"/>";
    if (v % 50 == 0) {
      svg += "<text x=\"" + num(kLeft - 6) + "\" y=\"" + num(y + 4) + "\" text-anchor=\"end\">" +
             std::to_string(v) + "</text>";
    }
  }

  // Frame numbers under the plot.
  const size_t step = std::max<size_t>(1, (n + 23) / 24);
  svg += "<g text-anchor=\"middle\" font-size=\"10\">";
  for (size_t i = 0; i < n; ++i) {
    const bool shutter = frames[i].truth->frame == press.shutterFrame;
    if (i % step != 0 && !shutter) continue;
    svg += "<text x=\"" + num(xs[i]) + "\" y=\"" + num(plotBottom + 13) + "\"" +
           (shutter ? " font-weight=\"700\" fill=\"#111827\"" : "") + ">" +
           std::to_string(frames[i].truth->frame) + "</text>";
  }
  svg += "</g>";

  // Row labels and row guides.
  const char* rowNames[kRows] = {"degraded", "ZSL kept", "shutter", "engine pick", "sharpest"};
  for (int r = 0; r < kRows; ++r) {
    svg += "<text x=\"" + num(kLeft - 6) + "\" y=\"" + num(rowY(r) + 4) + "\" text-anchor=\"end\">" +
           rowNames[r] + "</text>";
    svg += "<line x1=\"" + num(kLeft) + "\" y1=\"" + num(rowY(r)) + "\" x2=\"" + num(kLeft + plotWidth) +
           "\" y2=\"" + num(rowY(r)) + "\" stroke=\"#f1f5f9\"/>";
  }
  for (size_t i = 0; i < n; ++i) {
    const FrameTruth& t = *frames[i].truth;
    if (!t.degradation.empty()) {
      svg += "<rect x=\"" + num(kLeft + i * cw + 1) + "\" y=\"" + num(rowY(0) - 5) + "\" width=\"" +
             num(std::max(1.0, cw - 2)) + "\" height=\"10\" fill=\"" + kDegradedColour +
             "\" fill-opacity=\"0.75\"><title>" +
             esc("frame " + std::to_string(t.frame) + ": " + t.degradation + " " + num(t.strength)) +
             "</title></rect>";
    }
    if (frames[i].engine && frames[i].engine->zsl) {
      svg += "<rect x=\"" + num(kLeft + i * cw + 1) + "\" y=\"" + num(rowY(1) - 5) + "\" width=\"" +
             num(std::max(1.0, cw - 2)) + "\" height=\"10\" fill=\"" + kZslColour + "\"/>";
    }
  }

  // The picks: a line through the plot and a marker in the pick's row. A pick outside the
  // chart is named at the end of its row.
  struct Pick {
    int row;
    int frame;
    const char* colour;
    const char* dash;
    const char* what;
  };
  std::vector<Pick> picks = {{2, press.shutterFrame, kShutterColour, nullptr, "shutter"}};
  if (press.engineDecided && press.engineFrame >= 0) {
    picks.push_back({3, press.engineFrame, kEngineColour, "6 4", "engine pick"});
  }
  picks.push_back({4, press.baselineFrame, kBaselineColour, "2 3", "sharpest"});
  std::string lines, markers;
  for (const Pick& p : picks) {
    const int col = columnOf(p.frame);
    if (col < 0) {
      markers += "<text x=\"" + num(kLeft + plotWidth) + "\" y=\"" + num(rowY(p.row) + 4) +
                 "\" text-anchor=\"end\" font-style=\"italic\">" +
                 esc("frame " + std::to_string(p.frame) + ", off the chart") + "</text>";
      continue;
    }
    const double x = xs[static_cast<size_t>(col)];
    // Through the plot, then from under the frame numbers down to the marker.
    const std::string style = std::string("\" stroke=\"") + p.colour + "\" stroke-width=\"1.6\"" +
                              (p.dash ? std::string(" stroke-dasharray=\"") + p.dash + "\"" : std::string()) + "/>";
    lines += "<line x1=\"" + num(x) + "\" y1=\"" + num(kPlotTop) + "\" x2=\"" + num(x) + "\" y2=\"" +
             num(plotBottom) + style;
    lines += "<line x1=\"" + num(x) + "\" y1=\"" + num(rowsTop - 2) + "\" x2=\"" + num(x) + "\" y2=\"" +
             num(rowY(p.row)) + style;
    std::string shape = p.row == 2 ? triangleDown(x, rowY(p.row), p.colour)
                                   : p.row == 3 ? dot(x, rowY(p.row), p.colour) : diamond(x, rowY(p.row), p.colour);
    markers += "<g>" + shape + "<title>" + esc(std::string(p.what) + ": frame " + std::to_string(p.frame)) +
               "</title></g>";
  }
  if (!press.engineDecided) {
    markers += "<text x=\"" + num(kLeft + 4) + "\" y=\"" + num(rowY(3) + 4) + "\" font-style=\"italic\">" +
               "no engine decision: final = captured</text>";
  }
  svg += lines;

  // The series over everything but the markers.
  const bool dots = n <= 40;
  for (const Series* s : {&sharp, &motion, &eyes, &smile}) svg += drawSeries(*s, xs, kPlotTop, plotBottom, dots);
  svg += markers;
  return svg + "</svg>";
}

}  // namespace kovane_replay
