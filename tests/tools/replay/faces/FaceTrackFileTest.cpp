#include "FaceTrackFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "FacesTempDir.h"

using kovane_replay::ClipFaces;
using kovane_replay::FaceRecord;
using kovane_replay::FaceTrackFile;

namespace {

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

const char* kHeader =
    "frame,id,score,left,top,width,height,leftEyeX,leftEyeY,rightEyeX,rightEyeY,mouthX,mouthY,"
    "leftBlink,rightBlink,smile,leftEar,rightEar,mouthRatio\n";

}  // namespace

TEST(FaceTrackFile, RoundTripKeepsEveryFieldFrameAndTrailingEmptyFrames) {
  // Frame 0 has two faces, frame 1 none, frame 2 one, frames 3..5 none: the frame count in
  // the file keeps the empty frames at the end.
  ClipFaces faces(6);
  faces[0] = {face(1, 150, 0.28312397f), face(2, 10, 0.f)};
  faces[2] = {face(1, 152, 1.0f / 3.0f)};
  const FaceTrackFile::Meta meta = {{"clip-sha256", "abc123"}, {"size", "400x300"}};

  kovane_faces_test::TempDir dir;
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
  std::ifstream in(path);
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
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
  const std::vector<Case> cases = {
      {"", "bad.csv: ", "no header row"},
      {"# frames: 3\n# only comments\n", "bad.csv: ", "no header row"},
      {std::string(kGarbage, sizeof(kGarbage) - 1), "bad.csv:1: ", "unknown column '???garbage"},
      {"frame,id\n", "bad.csv:1: ", "lacks the column 'score'"},
      {std::string("frame,frame,") + kHeader, "bad.csv:1: ", "'frame' appears twice"},
      {std::string(kHeader) + row + "0,2,87,150\n", "bad.csv:3: ", "4 fields, the header has 19"},
      {std::string(kHeader) + "0,1,high,150,-3,104,105,227,155,179,154,202,208,3,0,0,0.28,0.26,0.77\n",
       "bad.csv:2: ", "column 'score' must be a whole number 0..100, got 'high'"},
      {std::string(kHeader) + "0,1,101,150,-3,104,105,227,155,179,154,202,208,3,0,0,0.28,0.26,0.77\n",
       "bad.csv:2: ", "column 'score'"},
      {std::string(kHeader) + "0,1,87,150,-3,0,105,227,155,179,154,202,208,3,0,0,0.28,0.26,0.77\n",
       "bad.csv:2: ", "column 'width'"},
      {std::string(kHeader) + "0,1,87,150,-3,104,105,227,155,179,154,202,208,3,0,0,nan,0.26,0.77\n",
       "bad.csv:2: ", "column 'leftEar' must be a number"},
      {std::string(kHeader) + "0,1,87,150,-3,104,105,227,155,179,154,202,208,3,0,0,0.28x,0.26,0.77\n",
       "bad.csv:2: ", "column 'leftEar'"},
      {std::string(kHeader) + "-1,1,87,150,-3,104,105,227,155,179,154,202,208,3,0,0,0.28,0.26,0.77\n",
       "bad.csv:2: ", "column 'frame'"},
      {std::string(kHeader) + "99999999999,1,87,150,-3,104,105,227,155,179,154,202,208,3,0,0,0.28,0.26,0.77\n",
       "bad.csv:2: ", "column 'frame'"},
      {std::string(kHeader) + "0,1,87,1.5,-3,104,105,227,155,179,154,202,208,3,0,0,0.28,0.26,0.77\n",
       "bad.csv:2: ", "column 'left'"},
      {std::string(kHeader) + row + row, "bad.csv:3: ", "face id 1 appears twice in frame 0"},
      {std::string("# frames: 1\n") + kHeader + "\n" + row +
           "1,1,87,150,-3,104,105,227,155,179,154,202,208,3,0,0,0.28,0.26,0.77\n",
       "bad.csv:5: ", "frame 1 is beyond the 1 frames declared on line 1"},
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
