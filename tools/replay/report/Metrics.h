#pragma once
// What the engine's final pictures and the sharpest-frame baseline made of the shutter presses
// of a replay, counted per kind of press, and the terminal table of those counts.
//
// Per press, for the engine's final picture (and the same for the baseline's pick):
//   good      the picture has open eyes, is not degraded and lies in the press's window
//   rescued   the captured picture was bad and this one is good
//   harmed    the captured picture was good and this one is bad
//   needless  the captured picture was good and this one is another frame (a replacement that
//             was not needed, whether or not it is good itself)
// A press the engine made no best-shot decision for ends with the captured picture: the runner
// fills its final frame with the shutter frame, so it counts as neither rescued nor harmed.
#include <optional>
#include <string>
#include <vector>

#include "ReplayTypes.h"

namespace kovane_replay {

class Metrics {
 public:
  // Name of the row that counts every press.
  static constexpr const char* kAll = "all";

  // How one press counts for one picture (the engine's final one or the baseline's pick).
  struct Outcome {
    bool good = false;
    bool rescued = false;
    bool harmed = false;
    bool needless = false;
  };
  static Outcome engineOutcome(const PressResult& press);
  static Outcome baselineOutcome(const PressResult& press);

  // One row per kind present, in table order (see kindRank), then the "all" row; an empty
  // list gives only an "all" row of zeros.
  static std::vector<KindSummary> summarize(const std::vector<PressResult>& presses);
  // Adds up the rows of several replays kind by kind, in table order; the "all" row is the
  // sum of the kind rows.
  static std::vector<KindSummary> merge(const std::vector<std::vector<KindSummary>>& runs);
  // Place of a kind in the tables: clean, blink, natural-blink, shake, defocus, exposure, noise,
  // then other kinds by name, "all" last.
  static bool kindBefore(const std::string& a, const std::string& b);

  // The "all" row, or null when there is none.
  static const KindSummary* allRow(const std::vector<KindSummary>& rows);
  // Whether the engine decided at least one press counted in these rows.
  static bool engineDecides(const std::vector<KindSummary>& rows);

  // Percentages 0..100, none when nothing was counted under the denominator:
  // good % over all presses, rescued % over the presses whose captured picture was bad.
  static std::optional<double> percent(int part, int whole);
  static std::optional<double> capturedGoodPct(const KindSummary& row);
  static std::optional<double> engineGoodPct(const KindSummary& row);
  static std::optional<double> engineRescuedPct(const KindSummary& row);
  static std::optional<double> baselineGoodPct(const KindSummary& row);
  static std::optional<double> baselineRescuedPct(const KindSummary& row);
  // The percentage rounded to a tenth, as every output shows it.
  static double roundPct(double pct);
  // "83.3%", "100%", or "–" when undefined.
  static std::string formatPercent(const std::optional<double>& pct);

  // The table for the terminal: one line per row, the engine's and the baseline's columns
  // side by side, and a note under it when the engine decided no press.
  static std::string formatTable(const std::vector<KindSummary>& rows);
};

}  // namespace kovane_replay
