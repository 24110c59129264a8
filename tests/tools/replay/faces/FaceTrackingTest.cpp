// Face tracks built by hand: blink events, and the face records file that caches them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ClipFaceAnalysis.h"
#include "FaceTrackFile.h"

using namespace kovane_replay;

namespace {

FaceRecord box(int left, int top, int size) {
  FaceRecord r;
  r.left = left;
  r.top = top;
  r.width = r.height = size;
  return r;
}

const std::string kHeader =
    "frame,id,score,left,top,width,height,leftEyeX,leftEyeY,rightEyeX,rightEyeY,mouthX,mouthY,"
    "leftBlink,rightBlink,smile,leftEar,rightEar,mouthRatio\n";

}  // namespace

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
      {std::string(kGarbage, sizeof(kGarbage) - 1), "bad.csv:1: ", "unknown column '???garbage"},
      {"frame,id\n", "bad.csv:1: ", "lacks the column 'score'"},
      {std::string("frame,frame,") + kHeader, "bad.csv:1: ", "'frame' appears twice"},
      {kHeader + row + "0,2,87,150\n", "bad.csv:3: ", "4 fields, the header has 19"},
      {kHeader + rowWith(2, "high"), "bad.csv:2: ", "column 'score' must be a whole number 0..100, got 'high'"},
      {kHeader + rowWith(5, "0"), "bad.csv:2: ", "column 'width'"},
      {kHeader + rowWith(16, "nan"), "bad.csv:2: ", "column 'leftEar' must be a number"},
      {kHeader + rowWith(0, "-1"), "bad.csv:2: ", "column 'frame'"},
      {kHeader + rowWith(3, "1.5"), "bad.csv:2: ", "column 'left'"},
      {kHeader + row + row, "bad.csv:3: ", "face id 1 appears twice in frame 0"},
      {"# frames: 1\n" + kHeader + "\n" + row + rowWith(0, "1"), "bad.csv:5: ",
       "frame 1 is beyond the 1 frames declared on line 1"},
      {std::string("# frames: lots\n") + kHeader, "bad.csv:1: ", "frames must be a whole number"},
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
