#include "ShutterPlan.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "ReplayTypes.h"
#include "SeededRandom.h"

namespace kovane_replay {

namespace {

// Random placements tried before the faults at automatic times are packed from the start.
constexpr int kPlacementAttempts = 24;
constexpr double kEpsilonS = 1e-6;
// Shorter periods would only be dropped for the spacing.
constexpr double kMinAutoPeriodS = 0.05;

std::string trim(const std::string& s) {
  size_t a = 0, b = s.size();
  while (a < b && std::isspace(static_cast<unsigned char>(s[a]))) ++a;
  while (b > a && std::isspace(static_cast<unsigned char>(s[b - 1]))) --b;
  return s.substr(a, b - a);
}

// Seconds for messages: at most two decimals, no trailing zeros.
std::string secs(double s) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.2f", s);
  std::string t = buf;
  while (!t.empty() && t.back() == '0') t.pop_back();
  if (!t.empty() && t.back() == '.') t.pop_back();
  return t + " s";
}

struct ShutterText {
  double autoPeriodS = 0.0;  // > 0: periodic presses
  bool onBlinks = false;
  std::vector<std::pair<double, std::string>> times;  // seconds, the item as written
};

bool parseShutter(const std::string& text, ShutterText* out, std::string* error) {
  const std::string all = trim(text);
  if (all.empty()) {
    *error = "--shutter is empty (none asks for no presses)";
    return false;
  }
  bool none = false;
  int items = 0;
  size_t start = 0;
  while (true) {
    size_t comma = all.find(',', start);
    if (comma == std::string::npos) comma = all.size();
    const std::string item = trim(all.substr(start, comma - start));
    ++items;
    if (item.empty()) {
      *error = "--shutter: empty item in '" + all + "'";
      return false;
    }
    if (item == "none") {
      none = true;
    } else if (item == "on-blinks") {
      out->onBlinks = true;
    } else if (item == "auto" || item.compare(0, 5, "auto:") == 0) {
      if (out->autoPeriodS > 0.0) {
        *error = "--shutter: '" + item + "': auto given twice";
        return false;
      }
      double period = ShutterPlan::kDefaultAutoPeriodS;
      if (item != "auto" &&
          (!DegradationSpec::readSeconds(trim(item.substr(5)), &period) || period < kMinAutoPeriodS)) {
        *error = "--shutter: '" + item + "': the period after auto: must be a number of seconds, at least " +
                 secs(kMinAutoPeriodS);
        return false;
      }
      out->autoPeriodS = period;
    } else {
      double t = 0.0;
      if (!DegradationSpec::readSeconds(item, &t)) {
        *error =
            "--shutter: unknown item '" + item + "' (auto, auto:N, none, on-blinks, or a time in seconds such as 2.5)";
        return false;
      }
      if (t < 0.0) {
        *error = "--shutter: '" + item + "': a time must not be negative";
        return false;
      }
      out->times.emplace_back(t, item);
    }
    if (comma == all.size()) break;
    start = comma + 1;
  }
  if (none && items > 1) {
    *error = "--shutter: none cannot be joined with other items ('" + all + "')";
    return false;
  }
  return true;
}

struct Placed {
  int frame = 0;
  std::string kind;
  std::string source;
  bool fault = false;
  std::string label;  // for messages
};

class Planner {
 public:
  explicit Planner(const ShutterPlan::Inputs& in) : mIn(in), mN(static_cast<int>(in.frameTimesUs.size())) {}

  double timeOf(int frame) const { return (mIn.frameTimesUs[frame] - mIn.frameTimesUs[0]) / 1e6; }

  bool checkInputs(std::string* error) const {
    if (!(mIn.warmupS >= 0.0) || !std::isfinite(mIn.warmupS)) {
      *error = "the warm-up must be a number of seconds, 0 or more";
      return false;
    }
    if (!(mIn.spacingS > 0.0) || !std::isfinite(mIn.spacingS)) {
      *error = "the spacing between presses must be a positive number of seconds";
      return false;
    }
    for (int i = 1; i < mN; ++i) {
      if (mIn.frameTimesUs[i] <= mIn.frameTimesUs[i - 1]) {
        *error = "frame timestamps must increase (frame " + std::to_string(i) + " does not)";
        return false;
      }
    }
    if (!mIn.facePresent.empty() && static_cast<int>(mIn.facePresent.size()) != mN) {
      *error =
          "face presence has " + std::to_string(mIn.facePresent.size()) + " frames, the clip " + std::to_string(mN);
      return false;
    }
    return true;
  }

  // Works out the frames a press may fall on. False when the clip has no room for any press.
  bool computeRange(std::string* error) {
    if (mN == 0) {
      *error = "the clip has no frames to press the shutter on";
      return false;
    }
    mIntervalS = mN > 1 ? timeOf(mN - 1) / (mN - 1) : 0.0;
    mLengthS = timeOf(mN - 1) + mIntervalS;
    mFirst = 0;
    while (mFirst < mN && timeOf(mFirst) + kEpsilonS < mIn.warmupS) ++mFirst;
    mLast = mN - 1 - ShutterPlan::kFramesAfterShutter;
    while (mLast >= 0 && timeOf(mLast) > timeOf(mN - 1) - ShutterPlan::kEndMarginS + kEpsilonS) --mLast;
    if (mLengthS < mIn.warmupS) {
      *error = "the clip (" + secs(mLengthS) + ") is shorter than the " + secs(mIn.warmupS) + " warm-up";
      return false;
    }
    if (mFirst > mLast) {
      *error = "the clip (" + secs(mLengthS) + ") is too short for a press after the " + secs(mIn.warmupS) +
               " warm-up and before its last " + secs(ShutterPlan::kEndMarginS);
      return false;
    }
    return true;
  }

  // The shutter frame of a press asked for at t seconds.
  bool frameAt(double t, const std::string& what, int* frame, std::string* error) const {
    if (t >= mLengthS) {
      *error = what + ": " + secs(t) + " is past the end of the clip (" + secs(mLengthS) + ")";
      return false;
    }
    if (t + kEpsilonS < mIn.warmupS) {
      *error = what + ": " + secs(t) + " is before the " + secs(mIn.warmupS) + " warm-up";
      return false;
    }
    const int64_t target = mIn.frameTimesUs[0] + static_cast<int64_t>(std::llround(t * 1e6));
    auto it = std::lower_bound(mIn.frameTimesUs.begin(), mIn.frameTimesUs.end(), target);
    int f = static_cast<int>(it - mIn.frameTimesUs.begin());
    if (f >= mN || (f > 0 && target - mIn.frameTimesUs[f - 1] <= mIn.frameTimesUs[f] - target)) --f;
    f = std::max(f, mFirst);
    if (f > mLast) {
      *error = what + ": " + secs(t) + " is in the last " + secs(ShutterPlan::kEndMarginS) +
               " of the clip, where the engine cannot finish a press (latest " + secs(timeOf(mLast)) + ")";
      return false;
    }
    *frame = f;
    return true;
  }

  bool onNaturalBlink(int frame) const {
    for (const BlinkSpan& b : mIn.naturalBlinks) {
      if (frame >= b.firstFrame && frame <= b.lastFrame) return true;
    }
    return false;
  }

  bool faceAround(int frame) const {
    if (static_cast<int>(mIn.facePresent.size()) != mN) return false;
    const int a = std::max(0, frame - ShutterPlan::kRunReach);
    const int b = std::min(mN - 1, frame + ShutterPlan::kRunReach);
    for (int f = a; f <= b; ++f) {
      if (!mIn.facePresent[f]) return false;
    }
    return true;
  }

  // The press already placed that a new press at this frame would be too close to, or null.
  const Placed* clash(const std::vector<Placed>& placed, int frame, bool fault) const {
    for (const Placed& q : placed) {
      if (std::fabs(timeOf(frame) - timeOf(q.frame)) + kEpsilonS < mIn.spacingS) return &q;
      if ((fault || q.fault) && std::abs(frame - q.frame) < ShutterPlan::kGuardFrames) return &q;
    }
    return nullptr;
  }

  // Marks the frames where a press with a fault would be too close to a press at `frame`.
  void block(std::vector<char>& blocked, int frame) const {
    for (int f = frame;
         f >= 0 && (frame - f < ShutterPlan::kGuardFrames || timeOf(frame) - timeOf(f) + kEpsilonS < mIn.spacingS);
         --f) {
      blocked[f] = 1;
    }
    for (int f = frame;
         f < mN && (f - frame < ShutterPlan::kGuardFrames || timeOf(f) - timeOf(frame) + kEpsilonS < mIn.spacingS);
         ++f) {
      blocked[f] = 1;
    }
  }

  // Faults at automatic times, in the order given (blinks first: they need the face). Chance
  // picks among the free frames (those away from natural blinks while there are any); when
  // chance leaves no room for them all after a few tries, they are packed from the start of
  // the clip, which fits the most.
  bool placeAutomaticFaults(const std::vector<const DegradationRequest*>& requests, std::string* error) {
    if (requests.empty()) return true;
    std::vector<char> faceOk(mN, 0), nearBlink(mN, 0), blocked(mN, 0);
    for (int f = mFirst; f <= mLast; ++f) faceOk[f] = faceAround(f);
    for (const BlinkSpan& b : mIn.naturalBlinks) {
      const int a = std::max(0, b.firstFrame - ShutterPlan::kWindowFrames);
      const int z = std::min(mN - 1, b.lastFrame + ShutterPlan::kWindowFrames);
      for (int f = a; f <= z; ++f) nearBlink[f] = 1;
    }
    for (const Placed& q : mPlaced) block(blocked, q.frame);
    // Each try scans the frames once or twice per request; long clips with many requests get
    // fewer tries.
    const double work = static_cast<double>(requests.size()) * (mLast - mFirst + 1);
    const int tries = static_cast<int>(std::clamp(4e7 / std::max(1.0, work), 0.0, double(kPlacementAttempts)));
    SeededRandom rng(SeededRandom::mix(mIn.seed, SeededRandom::hashText("shutter-plan")));
    for (int attempt = 0; attempt <= tries; ++attempt) {
      const bool packed = attempt == tries;
      std::vector<char> taken = blocked;
      std::vector<Placed> trial;
      size_t done = 0;
      for (; done < requests.size(); ++done) {
        const DegradationRequest& r = *requests[done];
        const bool needsFace = r.kind == kind::kBlink;
        auto free = [&](int f, bool awayFromBlinks) {
          return !taken[f] && (!needsFace || faceOk[f]) && (!awayFromBlinks || !nearBlink[f]);
        };
        int frame = -1;
        for (bool away : {true, false}) {
          int count = 0, firstFree = -1;
          for (int f = mFirst; f <= mLast; ++f) {
            if (free(f, away)) {
              if (firstFree < 0) firstFree = f;
              ++count;
            }
          }
          if (count == 0) continue;
          if (packed) {
            frame = firstFree;
          } else {
            int pick = rng.uniformInt(0, count - 1);
            for (int f = mFirst; f <= mLast; ++f) {
              if (free(f, away) && pick-- == 0) {
                frame = f;
                break;
              }
            }
          }
          break;
        }
        if (frame < 0) break;
        block(taken, frame);
        trial.push_back({frame, r.kind, "degrade", true, "--degrade " + label(r)});
      }
      if (done == requests.size()) {
        mPlaced.insert(mPlaced.end(), trial.begin(), trial.end());
        return true;
      }
      if (packed) {
        const DegradationRequest& r = *requests[done];
        int total = 0, index = 0;
        for (size_t i = 0; i < requests.size(); ++i) {
          if (label(*requests[i]) == label(r)) {
            ++total;
            if (i <= done) ++index;
          }
        }
        *error = "--degrade " + label(r) + ": no room for " + r.kind + " press " + std::to_string(index) + " of " +
                 std::to_string(total) + " between the " + secs(mIn.warmupS) + " warm-up and the last " +
                 secs(ShutterPlan::kEndMarginS) + " of the " + secs(mLengthS) + " clip, " + secs(mIn.spacingS) +
                 " from other presses" + (r.kind == kind::kBlink ? ", with the main face on the frames around it" : "");
        return false;
      }
    }
    return false;
  }

  static std::string label(const DegradationRequest& r) { return r.item.empty() ? r.kind : r.item; }

  std::vector<Placed>& placed() { return mPlaced; }
  double lengthS() const { return mLengthS; }
  int first() const { return mFirst; }
  int last() const { return mLast; }
  int frames() const { return mN; }

 private:
  const ShutterPlan::Inputs& mIn;
  const int mN;
  double mIntervalS = 0.0;
  double mLengthS = 0.0;
  int mFirst = 0, mLast = -1;
  std::vector<Placed> mPlaced;
};

}  // namespace

bool ShutterPlan::build(const Inputs& in, std::vector<PlannedPress>* out, std::string* error) {
  std::string localError;
  std::string* err = error ? error : &localError;
  if (out) out->clear();

  Planner plan(in);
  if (!plan.checkInputs(err)) return false;
  ShutterText shutter;
  if (!parseShutter(in.shutter, &shutter, err)) return false;
  for (const DegradationRequest& r : in.degradations) {
    if (!DegradationSpec::isKind(r.kind)) {
      *err = "--degrade: unknown kind '" + r.kind + "'";
      return false;
    }
  }
  const bool wanted =
      shutter.autoPeriodS > 0.0 || shutter.onBlinks || !shutter.times.empty() || !in.degradations.empty();
  if (!wanted) return true;
  if (!plan.computeRange(err)) return false;

  // Presses at given times.
  std::vector<Placed> fixed;
  for (const auto& t : shutter.times) {
    const std::string what = "--shutter " + t.second;
    int f = 0;
    if (!plan.frameAt(t.first, what, &f, err)) return false;
    fixed.push_back({f, plan.onNaturalBlink(f) ? kind::kNaturalBlink : kind::kClean, "list", false, what});
  }
  std::vector<const DegradationRequest*> automatic;
  std::vector<const DegradationRequest*> blinksFirst;
  for (const DegradationRequest& r : in.degradations) {
    if (r.automatic()) {
      (r.kind == kind::kBlink ? blinksFirst : automatic).push_back(&r);
      continue;
    }
    const std::string what = "--degrade " + Planner::label(r);
    int f = 0;
    if (!plan.frameAt(r.atSeconds, what, &f, err)) return false;
    if (r.kind == kind::kBlink && !plan.faceAround(f)) {
      *err = what + ": the main face is missing on frames " + std::to_string(std::max(0, f - kRunReach)) + ".." +
             std::to_string(std::min(plan.frames() - 1, f + kRunReach)) +
             " around the press; a blink is written into its records";
      return false;
    }
    fixed.push_back({f, r.kind, "degrade", true, what});
  }
  std::stable_sort(fixed.begin(), fixed.end(), [](const Placed& a, const Placed& b) { return a.frame < b.frame; });
  for (const Placed& p : fixed) {
    if (const Placed* q = plan.clash(plan.placed(), p.frame, p.fault)) {
      *err = q->label + " and " + p.label + " are too close: presses must be " + secs(in.spacingS) +
             " apart, and a press with a fault " + std::to_string(kGuardFrames) + " frames from any other";
      return false;
    }
    plan.placed().push_back(p);
  }

  // Faults at automatic times: blinks first, they need the face.
  blinksFirst.insert(blinksFirst.end(), automatic.begin(), automatic.end());
  if (!plan.placeAutomaticFaults(blinksFirst, err)) return false;

  // Presses on natural blinks, at the most closed frame.
  if (shutter.onBlinks) {
    std::vector<BlinkSpan> blinks = in.naturalBlinks;
    std::stable_sort(blinks.begin(), blinks.end(),
                     [](const BlinkSpan& a, const BlinkSpan& b) { return a.peakFrame < b.peakFrame; });
    for (const BlinkSpan& b : blinks) {
      const int f = b.peakFrame;
      if (f < plan.first() || f > plan.last()) continue;
      if (plan.clash(plan.placed(), f, false)) continue;
      plan.placed().push_back({f, kind::kNaturalBlink, "on-blinks", false, "on-blinks"});
    }
  }

  // Periodic presses, dropped where another press is too close.
  if (shutter.autoPeriodS > 0.0) {
    for (long k = 1;; ++k) {
      const double t = k * shutter.autoPeriodS;
      if (t >= plan.lengthS()) break;
      if (t + kEpsilonS < in.warmupS) continue;
      int f = 0;
      std::string ignored;
      if (!plan.frameAt(t, "auto", &f, &ignored)) break;
      if (plan.clash(plan.placed(), f, false)) continue;
      plan.placed().push_back({f, plan.onNaturalBlink(f) ? kind::kNaturalBlink : kind::kClean, "auto", false, "auto"});
    }
  }

  if (plan.placed().empty()) {
    *err = "--shutter " + trim(in.shutter) + ": no press falls between the " + secs(in.warmupS) +
           " warm-up and the last " + secs(kEndMarginS) + " of the " + secs(plan.lengthS()) + " clip" +
           (shutter.onBlinks ? " (on-blinks presses need natural blinks there)" : "");
    return false;
  }

  std::vector<Placed> all = plan.placed();
  std::stable_sort(all.begin(), all.end(), [](const Placed& a, const Placed& b) { return a.frame < b.frame; });
  if (out) {
    for (const Placed& p : all) out->push_back({p.frame, p.kind, p.source});
  }
  return true;
}

}  // namespace kovane_replay
