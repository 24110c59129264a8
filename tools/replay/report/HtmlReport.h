#pragma once
// report.html: one self-contained page (plain HTML and CSS, pictures inline as data: URIs,
// charts as inline SVG; nothing fetched, no script) with the replay's settings and camera books,
// the table of counts per kind of press, and for every press its captured and final pictures,
// their labels and a chart of the frames around it.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "ReplayTypes.h"

namespace kovane_replay {

class HtmlReport {
 public:
  // Gives the bytes of a picture by the path a PressResult holds; false with the reason.
  using PictureSource =
      std::function<bool(const std::string& path, std::vector<uint8_t>& bytes, std::string* error)>;

  // The page of one replay; `rows` as Metrics::summarize gives them. Pictures that cannot be
  // had (or are no JPEG) are named in the page where they would be.
  static std::string runPage(const RunInfo& info, const std::vector<PressResult>& presses,
                             const std::vector<KindSummary>& rows, const PictureSource& pictures);
  // The page of several replays merged: one line per replay and the table.
  static std::string mergedPage(const std::vector<RunInfo>& runs, const std::vector<KindSummary>& rows);

  // Text made safe for HTML content and attribute values (& < > " ' escaped).
  static std::string escape(const std::string& text);
  // Standard base64 with padding.
  static std::string base64(const std::vector<uint8_t>& bytes);
};

}  // namespace kovane_replay
