#pragma once
// Presses and replays built by hand for the report tests.
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "../ReplayTestUtil.h"
#include "JpegWriter.h"
#include "ReplayTypes.h"

namespace kovane_replay_test {

// Frame interval of the samples' 30 fps time line, microseconds.
constexpr int64_t kFrameUs = 33333;

// A press as a replay records it: frames shutter-14 .. shutter+8 of ground truth and the engine's
// scores of the same frames (same time stamps, engine frame ids from 1000 on), the window ±6
// frames. A press of a kind other than clean has the shutter frame and its two neighbours
// degraded (closed eyes for a blink), so its captured picture is bad. When `decided`, the engine
// picks shutter-3 (good) and the final picture is that frame; else the final is the captured
// one. The baseline picks shutter-2. Its files are capture-II/{captured,final}.jpg, record.json.
inline kovane_replay::PressResult timelinePress(int index, const std::string& pressKind, int shutterFrame,
                                                bool decided) {
  namespace kind = kovane_replay::kind;
  kovane_replay::PressResult p;
  p.index = index;
  p.jobId = index + 1;
  p.kind = pressKind;
  p.source = pressKind == kind::kClean ? "auto" : "degrade";
  p.shutterFrame = shutterFrame;
  p.shutterTimeUs = shutterFrame * kFrameUs;
  p.windowFirst = shutterFrame - 6;
  p.windowLast = shutterFrame + 6;
  const bool degraded = pressKind != kind::kClean;
  for (int f = shutterFrame - 14; f <= shutterFrame + 8; ++f) {
    kovane_replay::FrameTruth t;
    t.frame = f;
    t.timestampUs = f * kFrameUs;
    t.hasFace = true;
    t.smile = 20 + (f % 7) * 5;
    t.blinkDegree = 5;
    const bool hit = degraded && std::abs(f - shutterFrame) <= 1;
    if (hit && pressKind == kind::kBlink) {
      t.degradation = kind::kBlink;
      t.strength = t.blinkDegree = 90;
      t.eyesOpen = false;
    } else if (hit) {
      t.degradation = pressKind;
      t.strength = 6.5;
    }
    t.sharpness = hit && pressKind != kind::kBlink ? 4.0 : 10.0 + (f % 5);
    p.truth.push_back(t);

    kovane_replay::EngineFrameScores s;
    s.frameId = static_cast<uint32_t>(f + 1000);
    s.timestampUs = t.timestampUs;
    s.sobelMean = t.sharpness * 2.5;
    s.motion = 0.05 + 0.02 * (f % 4);
    s.feScore = 40;
    s.facesScore = 0.7;
    s.bsScore = 0.5;
    s.zsl = f >= shutterFrame - 10 && f <= shutterFrame + 2;
    s.numFaces = 1;
    s.blinkDegree = t.blinkDegree;
    s.smile = t.smile;
    p.engineScores.push_back(s);
  }
  p.statisticsReceived = p.engineDone = true;
  p.engineDecided = decided;
  p.capturedGood = !degraded;
  if (decided) {
    p.engineFrame = p.finalFrame = shutterFrame - 3;
    p.replace = p.finalGood = true;
    p.algBitField = 0x15;
    p.captureOffsetUs = -3 * static_cast<int32_t>(kFrameUs);
    p.decisionMs = 41.5;
  } else {
    p.finalFrame = shutterFrame;
    p.finalGood = p.capturedGood;
  }
  p.baselineFrame = shutterFrame - 2;
  p.baselineGood = true;
  char dir[32];
  snprintf(dir, sizeof(dir), "capture-%02d", index);
  p.capturedJpeg = std::string(dir) + "/captured.jpg";
  p.finalJpeg = std::string(dir) + "/final.jpg";
  p.recordJson = std::string(dir) + "/record.json";
  return p;
}

// A replay of a 10 s clip at 30 fps, 640x360.
inline kovane_replay::RunInfo sampleRun(bool engineDecides) {
  kovane_replay::RunInfo r;
  r.clip = "/data/clips/desk_face_640x360_30fps.mp4";
  r.clipSha256 = "9f2c4e0d5a7b11c3e8f6a4b2c0d9e7f5a3b1c9d7e5f3a1b9c7d5e3f1a9b7c5d3";
  r.clipWidth = r.width = 640;
  r.clipHeight = r.height = 360;
  r.fit = "crop";
  r.fps = 30.0;
  r.frames = 300;
  r.durationS = 10.0;
  r.faces = "dlib (cached)";
  r.shutter = "auto";
  r.degrade = "blink,shake";
  r.seed = 7;
  r.pacing = "fast, 8x real time";
  r.zslLent = r.zslReturned = 290;
  r.zslSkipped = 10;
  r.jobsFinished = 3;
  r.engineDecides = engineDecides;
  r.wallSeconds = 4.2;
  r.engineVersion = "0.1.0";
  return r;
}

// Writes the press's captured and final JPEGs under `dir` (making capture-II): a light disc on a
// grey gradient, dark and striped when bad.
inline bool writePressPictures(const std::string& dir, const kovane_replay::PressResult& press, std::string* error) {
  auto picture = [](int frame, bool bad) {
    kovane_replay::Nv21Image img;
    img.allocate(320, 180);
    const double cx = 320 * (0.2 + 0.6 * ((frame * 7) % 23) / 22.0);
    for (int y = 0; y < 180; ++y) {
      for (int x = 0; x < 320; ++x) {
        double v = (x - cx) * (x - cx) + (y - 90) * (y - 90) < 50 * 50 ? 225 : 60 + 120.0 * x / 320;
        if (bad) v = v * 0.45 + ((y / 6) % 2 ? 30 : 0);
        img.y()[static_cast<size_t>(y) * 320 + x] = static_cast<uint8_t>(std::min(255.0, v));
      }
    }
    std::fill(img.vu(), img.vu() + 320 * 90, 128);
    return img;
  };
  mkdir((dir + "/" + press.capturedJpeg.substr(0, press.capturedJpeg.find('/'))).c_str(), 0755);
  return kovane_replay::JpegWriter::write(picture(press.shutterFrame, !press.capturedGood),
                                          dir + "/" + press.capturedJpeg, 85, error) &&
         kovane_replay::JpegWriter::write(picture(press.finalFrame, !press.finalGood), dir + "/" + press.finalJpeg,
                                          85, error);
}

}  // namespace kovane_replay_test
