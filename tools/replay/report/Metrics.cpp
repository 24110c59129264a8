#include "Metrics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>

namespace kovane_replay {

namespace {

// Kinds the tables know, in the order they show them.
const char* const kKnownKinds[] = {kind::kClean,  kind::kBlink,   kind::kNaturalBlink, kind::kShake,
                                   kind::kDefocus, kind::kExposure, kind::kNoise};
constexpr int kKnownCount = sizeof(kKnownKinds) / sizeof(kKnownKinds[0]);

int rankOf(const std::string& k) {
  if (k == Metrics::kAll) return kKnownCount + 1;
  for (int i = 0; i < kKnownCount; ++i) {
    if (k == kKnownKinds[i]) return i;
  }
  return kKnownCount;  // other kinds, by name among themselves
}

void addCounts(KindSummary& into, const KindSummary& row) {
  into.presses += row.presses;
  into.capturedGood += row.capturedGood;
  into.decided += row.decided;
  into.engineGood += row.engineGood;
  into.engineRescued += row.engineRescued;
  into.engineHarmed += row.engineHarmed;
  into.engineNeedless += row.engineNeedless;
  into.baselineGood += row.baselineGood;
  into.baselineRescued += row.baselineRescued;
  into.baselineHarmed += row.baselineHarmed;
  into.baselineNeedless += row.baselineNeedless;
}

void addPress(KindSummary& row, const PressResult& p) {
  const Metrics::Outcome e = Metrics::engineOutcome(p);
  const Metrics::Outcome b = Metrics::baselineOutcome(p);
  ++row.presses;
  row.capturedGood += p.capturedGood ? 1 : 0;
  row.decided += p.engineDecided ? 1 : 0;
  row.engineGood += e.good ? 1 : 0;
  row.engineRescued += e.rescued ? 1 : 0;
  row.engineHarmed += e.harmed ? 1 : 0;
  row.engineNeedless += e.needless ? 1 : 0;
  row.baselineGood += b.good ? 1 : 0;
  row.baselineRescued += b.rescued ? 1 : 0;
  row.baselineHarmed += b.harmed ? 1 : 0;
  row.baselineNeedless += b.needless ? 1 : 0;
}

Metrics::Outcome outcome(bool capturedGood, bool good, bool otherFrame) {
  Metrics::Outcome o;
  o.good = good;
  o.rescued = !capturedGood && good;
  o.harmed = capturedGood && !good;
  o.needless = capturedGood && otherFrame;
  return o;
}

// Rows sorted into table order with the "all" row (the sum of the others) last.
std::vector<KindSummary> ordered(std::map<std::string, KindSummary>& byKind) {
  std::vector<KindSummary> rows;
  KindSummary all;
  all.kind = Metrics::kAll;
  for (auto& entry : byKind) {
    entry.second.kind = entry.first;
    addCounts(all, entry.second);
    rows.push_back(entry.second);
  }
  std::stable_sort(rows.begin(), rows.end(), [](const KindSummary& a, const KindSummary& b) {
    return Metrics::kindBefore(a.kind, b.kind);
  });
  rows.push_back(all);
  return rows;
}

// Columns on a terminal: UTF-8 continuation bytes take none.
size_t displayWidth(const std::string& s) {
  size_t n = 0;
  for (unsigned char c : s) n += (c & 0xC0) != 0x80 ? 1 : 0;
  return n;
}

std::string padLeft(const std::string& s, size_t width) {
  const size_t w = displayWidth(s);
  return w >= width ? s : std::string(width - w, ' ') + s;
}

std::string padRight(const std::string& s, size_t width) {
  const size_t w = displayWidth(s);
  return w >= width ? s : s + std::string(width - w, ' ');
}

// A title over a span of columns: "-- title --" filling the span.
std::string spanTitle(const std::string& title, size_t width) {
  const std::string text = " " + title + " ";
  const size_t w = displayWidth(text);
  if (w + 2 > width) return padRight(text, width);
  const size_t left = (width - w) / 2;
  return std::string(left, '-') + text + std::string(width - w - left, '-');
}

std::string count(int n) { return std::to_string(n); }

}  // namespace

Metrics::Outcome Metrics::engineOutcome(const PressResult& p) {
  return outcome(p.capturedGood, p.finalGood, p.finalFrame != p.shutterFrame);
}

Metrics::Outcome Metrics::baselineOutcome(const PressResult& p) {
  return outcome(p.capturedGood, p.baselineGood, p.baselineFrame != p.shutterFrame);
}

std::vector<KindSummary> Metrics::summarize(const std::vector<PressResult>& presses) {
  std::map<std::string, KindSummary> byKind;
  for (const PressResult& p : presses) addPress(byKind[p.kind.empty() ? kind::kClean : p.kind], p);
  return ordered(byKind);
}

std::vector<KindSummary> Metrics::merge(const std::vector<std::vector<KindSummary>>& runs) {
  std::map<std::string, KindSummary> byKind;
  for (const auto& run : runs) {
    for (const KindSummary& row : run) {
      if (row.kind == kAll) continue;
      addCounts(byKind[row.kind.empty() ? kind::kClean : row.kind], row);
    }
  }
  return ordered(byKind);
}

bool Metrics::kindBefore(const std::string& a, const std::string& b) {
  const int ra = rankOf(a), rb = rankOf(b);
  if (ra != rb) return ra < rb;
  return ra == kKnownCount && a < b;
}

const KindSummary* Metrics::allRow(const std::vector<KindSummary>& rows) {
  for (const KindSummary& row : rows) {
    if (row.kind == kAll) return &row;
  }
  return nullptr;
}

bool Metrics::engineDecides(const std::vector<KindSummary>& rows) {
  for (const KindSummary& row : rows) {
    if (row.decided > 0) return true;
  }
  return false;
}

std::optional<double> Metrics::percent(int part, int whole) {
  if (whole <= 0) return std::nullopt;
  return 100.0 * part / whole;
}

std::optional<double> Metrics::capturedGoodPct(const KindSummary& r) { return percent(r.capturedGood, r.presses); }
std::optional<double> Metrics::engineGoodPct(const KindSummary& r) { return percent(r.engineGood, r.presses); }
std::optional<double> Metrics::engineRescuedPct(const KindSummary& r) {
  return percent(r.engineRescued, r.presses - r.capturedGood);
}
std::optional<double> Metrics::baselineGoodPct(const KindSummary& r) { return percent(r.baselineGood, r.presses); }
std::optional<double> Metrics::baselineRescuedPct(const KindSummary& r) {
  return percent(r.baselineRescued, r.presses - r.capturedGood);
}

double Metrics::roundPct(double pct) { return std::round(pct * 10.0) / 10.0; }

std::string Metrics::formatPercent(const std::optional<double>& pct) {
  if (!pct || !std::isfinite(*pct)) return "\xE2\x80\x93";  // en dash
  const double v = roundPct(*pct);
  char text[32];
  if (v == std::floor(v)) {
    snprintf(text, sizeof(text), "%.0f%%", v);
  } else {
    snprintf(text, sizeof(text), "%.1f%%", v);
  }
  return text;
}

std::string Metrics::formatTable(const std::vector<KindSummary>& rows) {
  const bool decides = engineDecides(rows);
  // Columns: kind, presses, captured good | decided, good, rescued, harmed, needless |
  // good, rescued, harmed, needless.
  const std::vector<std::string> head = {"kind",   "presses", "captured good", "decided", "good", "rescued",
                                         "harmed", "needless", "good",         "rescued", "harmed", "needless"};
  std::vector<std::vector<std::string>> cells;
  for (const KindSummary& r : rows) {
    cells.push_back({r.kind, count(r.presses), formatPercent(capturedGoodPct(r)), count(r.decided),
                     formatPercent(engineGoodPct(r)), formatPercent(engineRescuedPct(r)), count(r.engineHarmed),
                     count(r.engineNeedless), formatPercent(baselineGoodPct(r)),
                     formatPercent(baselineRescuedPct(r)), count(r.baselineHarmed), count(r.baselineNeedless)});
  }
  std::vector<size_t> width(head.size());
  for (size_t c = 0; c < head.size(); ++c) {
    width[c] = displayWidth(head[c]);
    for (const auto& row : cells) width[c] = std::max(width[c], displayWidth(row[c]));
  }
  const std::string gap = "  ";
  const std::string groupGap = "  |  ";
  auto line = [&](const std::vector<std::string>& row) {
    std::string out;
    for (size_t c = 0; c < row.size(); ++c) {
      if (c == 3 || c == 8) {
        out += groupGap;
      } else if (c > 0) {
        out += gap;
      }
      out += c == 0 ? padRight(row[c], width[c]) : padLeft(row[c], width[c]);
    }
    while (!out.empty() && out.back() == ' ') out.pop_back();
    return out + "\n";
  };
  auto spanWidth = [&](size_t first, size_t last) {
    size_t w = 0;
    for (size_t c = first; c <= last; ++c) w += width[c] + (c > first ? gap.size() : 0);
    return w;
  };
  std::string engineTitle = decides ? "engine (final picture)" : "engine: no decision, final = captured";
  std::string title;
  title += std::string(spanWidth(0, 2), ' ') + groupGap;
  title += spanTitle(engineTitle, spanWidth(3, 7)) + groupGap;
  title += spanTitle("baseline (sharpest frame)", spanWidth(8, 11));
  std::string out = title + "\n" + line(head);
  for (const auto& row : cells) out += line(row);
  if (!decides) {
    out += "no engine decision: the engine made no best-shot decision for any press, so its final picture "
           "is the captured one\n";
  }
  return out;
}

}  // namespace kovane_replay
