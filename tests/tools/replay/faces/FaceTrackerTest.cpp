#include "FaceTracker.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "ClipFaceAnalysis.h"

using kovane_replay::BlinkEvent;
using kovane_replay::ClipFaceAnalysis;
using kovane_replay::ClipFaces;
using kovane_replay::FaceRecord;
using kovane_replay::FaceTracker;

namespace {

FaceRecord box(int left, int top, int size) {
  FaceRecord r;
  r.left = left;
  r.top = top;
  r.width = size;
  r.height = size;
  return r;
}

FaceRecord measuredFace(int left, float ear, float mouth) {
  FaceRecord r = box(left, 100, 100);
  r.leftEar = ear;
  r.rightEar = ear;
  r.mouthRatio = mouth;
  return r;
}

}  // namespace

TEST(FaceTracker, IdsFollowOverlapSurviveShortGapsAndNeverRepeat) {
  FaceTracker tracker(40);
  // Face A drifts right 3 px a frame; face B sits far to the left from frame 2 on.
  for (int f = 0; f < 10; ++f) {
    std::vector<FaceRecord> faces = {box(200 + 3 * f, 100, 100)};
    if (f >= 2) faces.push_back(box(10, 100, 60));
    tracker.add(f, faces);
  }
  // Frames 10..14 without faces (missed detections), then A again where it was: same id.
  tracker.add(15, {box(230, 102, 104), box(10, 100, 60)});
  // A jump across the picture is another face.
  tracker.add(16, {box(10, 100, 60), box(400, 300, 100)});
  // After a gap longer than kMaxGapFrames even the same place starts a new track.
  tracker.add(16 + FaceTracker::kMaxGapFrames + 2, {box(10, 100, 60)});
  const ClipFaces faces = tracker.finish();
  ASSERT_EQ(faces.size(), 40u);

  const int a = faces[0][0].id;
  const int b = faces[2][1].id;
  EXPECT_GT(a, 0);
  EXPECT_NE(a, b);
  for (int f = 0; f < 10; ++f) EXPECT_EQ(faces[f][0].id, a) << f;
  for (int f = 2; f < 10; ++f) EXPECT_EQ(faces[f][1].id, b) << f;
  for (int f = 10; f < 15; ++f) EXPECT_TRUE(faces[f].empty());
  EXPECT_EQ(faces[15][0].id, a);
  EXPECT_EQ(faces[15][1].id, b);
  EXPECT_EQ(faces[16][0].id, b);
  const int c = faces[16][1].id;
  EXPECT_TRUE(c != a && c != b);
  const int d = faces[16 + FaceTracker::kMaxGapFrames + 2][0].id;
  EXPECT_TRUE(d != a && d != b && d != c);
  for (size_t f = 16 + FaceTracker::kMaxGapFrames + 3; f < faces.size(); ++f) EXPECT_TRUE(faces[f].empty());

  EXPECT_DOUBLE_EQ(FaceTracker::overlap(box(0, 0, 10), box(0, 0, 10)), 1.0);
  EXPECT_DOUBLE_EQ(FaceTracker::overlap(box(0, 0, 10), box(5, 0, 10)), 50.0 / 150.0);
  EXPECT_DOUBLE_EQ(FaceTracker::overlap(box(0, 0, 10), box(20, 0, 10)), 0.0);
}

TEST(FaceTracker, DegreesAreRelativeToEachFacesOwnBaseline) {
  // Two people: one with wide eyes (open EAR 0.34) and one with narrow eyes (0.20). The same
  // absolute EAR means "open" for the second and "mostly closed" for the first, so the degrees
  // must come from each track's own baseline.
  const float openA = 0.34f, openB = 0.20f;
  FaceTracker tracker;
  for (int f = 0; f < 100; ++f) {
    const float wobble = 0.005f * static_cast<float>(f % 3);  // measurement noise
    float earA = openA - wobble, earB = openB - wobble;
    float mouthA = 0.78f, mouthB = 0.80f;
    if (f >= 40 && f <= 42) earA = 0.6f * openA;   // A blinks
    if (f == 60) earB = 0.40f * openB;             // B blinks
    if (f == 70) mouthA = 0.78f * 1.03f;           // talking: slightly wider
    if (f >= 80 && f <= 84) mouthB = 0.80f * 1.35f;  // B smiles broadly
    tracker.add(f, {measuredFace(300, earA, mouthA), measuredFace(20, earB, mouthB)});
  }
  ClipFaces faces = tracker.finish();
  ASSERT_EQ(faces.size(), 100u);
  for (int f = 0; f < 100; ++f) {
    ASSERT_EQ(faces[f].size(), 2u);
    const FaceRecord& a = faces[f][0];
    const FaceRecord& b = faces[f][1];
    const bool aBlinks = f >= 40 && f <= 42;
    const bool bBlinks = f == 60;
    if (aBlinks) {
      // (1 - 0.6) / (1 - kClosedFraction) of the way from open to closed.
      EXPECT_NEAR(a.leftBlink, 67, 3) << f;
      EXPECT_GE(a.rightBlink, FaceTracker::kClosedDegree) << f;
    } else {
      EXPECT_LT(a.blinkDegree(), 15) << f;
    }
    if (bBlinks) {
      EXPECT_EQ(b.blinkDegree(), 100) << f;
    } else {
      EXPECT_LT(b.blinkDegree(), 15) << f;
    }
    EXPECT_EQ(a.smile, 0) << f;  // including the talking frame
    if (f >= 80 && f <= 84) {
      EXPECT_EQ(b.smile, 100) << f;
    } else {
      EXPECT_EQ(b.smile, 0) << f;
    }
  }
  // A's EAR at its blink is above B's open EAR: an absolute threshold could not tell them.
  EXPECT_GT(faces[41][0].leftEar, faces[10][1].leftEar);

  // Records without measurements (from a face records file without them) keep their degrees;
  // a track too short for a baseline uses the typical open EAR.
  ClipFaces given(2);
  FaceRecord injected = box(0, 0, 50);
  injected.id = 9;
  injected.leftBlink = 77;
  injected.smile = 12;
  given[0].push_back(injected);
  FaceRecord lone = box(100, 0, 50);
  lone.id = 3;
  lone.leftEar = lone.rightEar = FaceTracker::kTypicalOpenEar * 0.4f;
  lone.mouthRatio = FaceTracker::kTypicalNeutralMouth;
  given[1].push_back(lone);
  FaceTracker::assignDegrees(given);
  EXPECT_EQ(given[0][0].leftBlink, 77);
  EXPECT_EQ(given[0][0].smile, 12);
  EXPECT_EQ(given[1][0].leftBlink, 100);
  EXPECT_EQ(given[1][0].smile, 0);
}

TEST(FaceTracker, FindBlinksReportsRunsOfTheMainFaceOrOfOneId) {
  // Frames 0..19: the main face (id 1, large) blinks on 3..5 (peak on 4) and 9; frame 9 is
  // followed by a frame without faces, then by a closed frame of a new face (id 4), which is a
  // separate event. A small face (id 2) blinks on 12..13 while the main face is open.
  ClipFaces faces(20);
  for (int f = 0; f < 20; ++f) {
    if (f == 10) continue;
    FaceRecord main = box(100, 100, 120);
    main.id = f < 11 ? 1 : 4;
    if (f >= 3 && f <= 5) main.rightBlink = f == 4 ? 95 : 60;
    if (f == 9 || f == 11) main.leftBlink = ClipFaceAnalysis::kClosedDegree;
    if (f == 7) main.leftBlink = ClipFaceAnalysis::kClosedDegree - 1;
    FaceRecord small = box(10, 10, 50);
    small.id = 2;
    if (f == 12 || f == 13) small.leftBlink = small.rightBlink = 90;
    faces[f] = {small, main};  // the main face is the largest, wherever it is listed
  }
  // Each event as "face: first..last @ peak = degree".
  auto text = [](const std::vector<BlinkEvent>& events) {
    std::string out;
    for (const BlinkEvent& e : events) {
      out += std::to_string(e.faceId) + ": " + std::to_string(e.firstFrame) + ".." + std::to_string(e.lastFrame) +
             " @ " + std::to_string(e.peakFrame) + " = " + std::to_string(e.peakDegree) + "; ";
    }
    return out;
  };
  const std::string closed = std::to_string(ClipFaceAnalysis::kClosedDegree);
  EXPECT_EQ(text(ClipFaceAnalysis::findBlinks(faces)),
            "1: 3..5 @ 4 = 95; 1: 9..9 @ 9 = " + closed + "; 4: 11..11 @ 11 = " + closed + "; ");
  EXPECT_EQ(text(ClipFaceAnalysis::findBlinks(faces, 2)), "2: 12..13 @ 12 = 90; ");
  EXPECT_TRUE(ClipFaceAnalysis::findBlinks(ClipFaces()).empty());
  EXPECT_TRUE(ClipFaceAnalysis::findBlinks(faces, 99).empty());
  EXPECT_EQ(ClipFaceAnalysis::mainFace({}), nullptr);
}
