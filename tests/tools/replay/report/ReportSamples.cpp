#include "ReportSamples.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "JpegWriter.h"

namespace kovane_replay_test {

using kovane_replay::Nv21Image;
using kovane_replay::PressResult;
namespace kind = kovane_replay::kind;

PressResult barePress(const std::string& pressKind, bool capturedGood, bool decided, int finalOffset,
                      bool finalGood, int baselineOffset, bool baselineGood) {
  PressResult p;
  p.kind = pressKind;
  p.shutterFrame = 100;
  p.shutterTimeUs = 100 * kFrameUs;
  p.windowFirst = 94;
  p.windowLast = 106;
  p.capturedGood = capturedGood;
  p.engineDecided = decided;
  p.engineFrame = decided ? 100 + finalOffset : -1;
  p.replace = decided && finalOffset != 0;
  p.finalFrame = 100 + finalOffset;
  p.finalGood = finalGood;
  p.baselineFrame = 100 + baselineOffset;
  p.baselineGood = baselineGood;
  return p;
}

PressResult timelinePress(int index, const std::string& pressKind, int shutterFrame, bool decided) {
  PressResult p;
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
    s.frameId = static_cast<uint32_t>(f + 1000);  // the engine's own numbering
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

kovane_replay::RunInfo sampleRun(bool engineDecides) {
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

namespace {

Nv21Image samplePicture(int width, int height, int frame, bool bad) {
  Nv21Image img;
  img.allocate(width, height);
  const double cx = width * (0.2 + 0.6 * ((frame * 7) % 23) / 22.0), cy = height * 0.5, r = height * 0.28;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      double v = (x - cx) * (x - cx) + (y - cy) * (y - cy) < r * r ? 225 : 60 + 120.0 * x / width;
      if (bad) v = v * 0.45 + ((y / 6) % 2 ? 30 : 0);
      img.y()[static_cast<size_t>(y) * width + x] = static_cast<uint8_t>(std::min(255.0, v));
    }
  }
  for (int y = 0; y < height / 2; ++y) {
    for (int x = 0; x < width / 2; ++x) {
      uint8_t* vu = img.vu() + (static_cast<size_t>(y) * (width / 2) + x) * 2;
      vu[0] = static_cast<uint8_t>(110 + 40 * y / (height / 2));
      vu[1] = static_cast<uint8_t>(150 - 40 * x / (width / 2));
    }
  }
  return img;
}

}  // namespace

bool writePressPictures(const std::string& dir, const PressResult& press, std::string* error) {
  mkdir((dir + "/" + press.capturedJpeg.substr(0, press.capturedJpeg.find('/'))).c_str(), 0755);
  return kovane_replay::JpegWriter::write(samplePicture(320, 180, press.shutterFrame, !press.capturedGood),
                                          dir + "/" + press.capturedJpeg, 85, error) &&
         kovane_replay::JpegWriter::write(samplePicture(320, 180, press.finalFrame, !press.finalGood),
                                          dir + "/" + press.finalJpeg, 85, error);
}

}  // namespace kovane_replay_test
