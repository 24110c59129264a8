// Face tracks built by hand: ids and degrees of the tracker, blink events, and the face records
// file that caches them.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "../ReplayTestUtil.h"
#include "ClipFaceAnalysis.h"
#include "FaceTrackFile.h"
#include "FaceTracker.h"

using namespace kovane_replay;

namespace {

FaceRecord box(int left, int top, int size) {
  FaceRecord r;
  r.left = left;
  r.top = top;
  r.width = r.height = size;
  return r;
}

FaceRecord measuredFace(int left, float ear, float mouth) {
  FaceRecord r = box(left, 100, 100);
  r.leftEar = r.rightEar = ear;
  r.mouthRatio = mouth;
  return r;
}

FaceRecord face(int id, int left, float ear) {
  FaceRecord r;
  r.id = id;
  r.score = 87;
  r.left = left;
  r.top = -3;  // faces may reach past the picture's edge
  r.width = 104;
  r.height = 105;
  r.leftEyeX = left + 77;
  r.leftEyeY = 155;
  r.rightEyeX = left + 29;
  r.rightEyeY = 154;
  r.mouthX = left + 52;
  r.mouthY = 208;
  r.leftBlink = 3;
  r.rightBlink = 100;
  r.smile = 42;
  r.leftEar = ear;
  r.rightEar = 0.25931f;
  r.mouthRatio = 0.77123456f;
  return r;
}

// Every field of a record; floats compare exactly, since the file keeps every bit of them.
auto fieldsOf(const FaceRecord& r) {
  return std::make_tuple(r.id, r.score, r.left, r.top, r.width, r.height, r.leftEyeX, r.leftEyeY, r.rightEyeX,
                         r.rightEyeY, r.mouthX, r.mouthY, r.leftBlink, r.rightBlink, r.smile, r.leftEar, r.rightEar,
                         r.mouthRatio);
}

const std::string kHeader =
    "frame,id,score,left,top,width,height,leftEyeX,leftEyeY,rightEyeX,rightEyeY,mouthX,mouthY,"
    "leftBlink,rightBlink,smile,leftEar,rightEar,mouthRatio\n";

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

TEST(FaceTrackFile, RoundTripKeepsEveryFieldFrameAndTrailingEmptyFrames) {
  // Frame 0 has two faces, frame 1 none, frame 2 one, frames 3..5 none: the frame count in
  // the file keeps the empty frames at the end.
  ClipFaces faces(6);
  faces[0] = {face(1, 150, 0.28312397f), face(2, 10, 0.f)};
  faces[2] = {face(1, 152, 1.0f / 3.0f)};
  const FaceTrackFile::Meta meta = {{"clip-sha256", "abc123"}, {"size", "400x300"}};

  kovane_replay_test::TempDir dir;
  const std::string path = dir.file("faces.csv");
  std::string error;
  ASSERT_TRUE(FaceTrackFile::write(path, faces, &error, meta)) << error;

  ClipFaces back;
  FaceTrackFile::Meta readMeta;
  ASSERT_TRUE(FaceTrackFile::read(path, back, &error, &readMeta)) << error;
  ASSERT_EQ(back.size(), 6u);
  ASSERT_EQ(back[0].size(), 2u);
  EXPECT_TRUE(back[1].empty());
  ASSERT_EQ(back[2].size(), 1u);
  for (int f = 3; f < 6; ++f) EXPECT_TRUE(back[f].empty());
  for (const auto& fi : std::vector<std::pair<int, int>>{{0, 0}, {0, 1}, {2, 0}}) {
    EXPECT_EQ(fieldsOf(back[fi.first][fi.second]), fieldsOf(faces[fi.first][fi.second]));
  }
  for (const auto& kv : FaceTrackFile::Meta{{"clip-sha256", "abc123"}, {"size", "400x300"}, {"frames", "6"}}) {
    EXPECT_EQ(FaceTrackFile::metaValue(readMeta, kv.first), kv.second);
  }
  EXPECT_EQ(FaceTrackFile::format(back, meta), FaceTrackFile::format(faces, meta));

  // The text names its columns in a header row and has one row per face.
  const std::string text = kovane_replay_test::readFile(path);
  EXPECT_NE(text.find(kHeader), std::string::npos);
  EXPECT_NE(text.find("# frames: 6\n"), std::string::npos);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4 + 1 + 3);  // comments, header, rows

  // A hand-written file: columns in another order, Windows line ends, blank lines, plain
  // comments, no frame count (the last row's frame ends the clip).
  const std::string hand =
      "# written by hand\r\n"
      "id,frame,score,left,top,width,height,leftEyeX,leftEyeY,rightEyeX,rightEyeY,mouthX,mouthY,"
      "leftBlink,rightBlink,smile,leftEar,rightEar,mouthRatio\r\n"
      "\r\n"
      "7, 4 ,90,1,2,30,40,5,6,7,8,9,10,100,0,55,0.3,0.25,0.8\r\n";
  ASSERT_TRUE(FaceTrackFile::parse(hand, "hand.csv", back, &error)) << error;
  ASSERT_EQ(back.size(), 5u);
  ASSERT_EQ(back[4].size(), 1u);
  EXPECT_EQ(back[4][0].id, 7);
  EXPECT_EQ(back[4][0].leftBlink, 100);
  EXPECT_EQ(back[4][0].smile, 55);
  EXPECT_FLOAT_EQ(back[4][0].mouthRatio, 0.8f);

  // An empty clip stays empty but known.
  ASSERT_TRUE(FaceTrackFile::parse(FaceTrackFile::format(ClipFaces(3)), "empty.csv", back, &error));
  EXPECT_EQ(back.size(), 3u);
}

TEST(FaceTrackFile, RejectsMalformedInputWithLineAndReason) {
  static const char kGarbage[] = "\x00\x01\x02garbage,\xff\n";
  const std::string row = "0,1,87,150,-3,104,105,227,155,179,154,202,208,3,0,0,0.28,0.26,0.77\n";
  struct Case {
    std::string text;
    std::string where;  // "name:line:" prefix, or "name:" for the whole file
    std::string what;   // part of the reason
  };
  // The good row, after the header, with one field changed.
  auto rowWith = [&row](int field, const std::string& value) {
    size_t from = 0;
    for (int i = 0; i < field; ++i) from = row.find(',', from) + 1;
    return row.substr(0, from) + value + row.substr(row.find_first_of(",\n", from));
  };
  const std::vector<Case> cases = {
      {"", "bad.csv: ", "no header row"},
      {"# frames: 3\n# only comments\n", "bad.csv: ", "no header row"},
      {std::string(kGarbage, sizeof(kGarbage) - 1), "bad.csv:1: ", "unknown column '???garbage"},
      {"frame,id\n", "bad.csv:1: ", "lacks the column 'score'"},
      {std::string("frame,frame,") + kHeader, "bad.csv:1: ", "'frame' appears twice"},
      {kHeader + row + "0,2,87,150\n", "bad.csv:3: ", "4 fields, the header has 19"},
      {kHeader + rowWith(2, "high"), "bad.csv:2: ", "column 'score' must be a whole number 0..100, got 'high'"},
      {kHeader + rowWith(2, "101"), "bad.csv:2: ", "column 'score'"},
      {kHeader + rowWith(5, "0"), "bad.csv:2: ", "column 'width'"},
      {kHeader + rowWith(16, "nan"), "bad.csv:2: ", "column 'leftEar' must be a number"},
      {kHeader + rowWith(16, "0.28x"), "bad.csv:2: ", "column 'leftEar'"},
      {kHeader + rowWith(0, "-1"), "bad.csv:2: ", "column 'frame'"},
      {kHeader + rowWith(0, "99999999999"), "bad.csv:2: ", "column 'frame'"},
      {kHeader + rowWith(3, "1.5"), "bad.csv:2: ", "column 'left'"},
      {kHeader + row + row, "bad.csv:3: ", "face id 1 appears twice in frame 0"},
      {"# frames: 1\n" + kHeader + "\n" + row + rowWith(0, "1"), "bad.csv:5: ",
       "frame 1 is beyond the 1 frames declared on line 1"},
      {std::string("# frames: lots\n") + kHeader, "bad.csv:1: ", "frames must be a whole number"},
      {std::string("# frames: 2000000000\n") + kHeader, "bad.csv:1: ", "frames must be a whole number"},
      {std::string("# frames: 2\n") + kHeader + "# frames: 3\n", "bad.csv:3: ", "frame count is given twice"},
  };
  for (const Case& c : cases) {
    ClipFaces out(2);
    std::string error;
    EXPECT_FALSE(FaceTrackFile::parse(c.text, "bad.csv", out, &error)) << c.text;
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(error.rfind(c.where, 0), 0u) << "error: " << error << "\nwanted prefix: " << c.where;
    EXPECT_NE(error.find(c.what), std::string::npos) << "error: " << error << "\nwanted: " << c.what;
    EXPECT_EQ(error.find('\n'), std::string::npos) << error;
  }

  ClipFaces out;
  std::string error;
  EXPECT_FALSE(FaceTrackFile::read("/nonexistent/faces.csv", out, &error));
  EXPECT_EQ(error, "cannot open face records file /nonexistent/faces.csv");
  EXPECT_FALSE(FaceTrackFile::write("/nonexistent/dir/faces.csv", ClipFaces(1), &error));
  EXPECT_NE(error.find("/nonexistent/dir/faces.csv"), std::string::npos);
}
