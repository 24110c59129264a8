// Face-identity data: blink prediction per face id on the real webcam clips (hand-labelled
// blinks), and the cases around it on records of known degrees.
#include "KoFaceIdBasedData.h"

#include <gtest/gtest.h>

#include <set>

#include "ScoringTestFrames.h"

using android::KoFaceIdBasedData;
using android::KoFrameData;
using android::sp;

namespace {

// A history of image-less frames carrying the face records of a clip stretch.
struct RecordHistory {
  android::KoFrameHist hist;
  android::KoFrameHistSnapshot* snapshot = nullptr;
  ~RecordHistory() { delete snapshot; }

  void add(uint32_t id, const std::vector<android::KO_cam_face_t>* faces) {
    sp<KoFrameData> f = kovane_test::makeFrame(id, 1000000 + 40000LL * id);
    hist.addFrameData(f);
    if (faces == nullptr) return;
    sp<android::KoFaceMetaData> meta = new android::KoFaceMetaData();
    meta->mValid = 1;
    meta->mFaceData.record.frameId = id;
    meta->mFaceData.record.numFaces = static_cast<uint32_t>(std::min<size_t>(faces->size(), android::KO_MAX_FACES));
    for (uint32_t k = 0; k < meta->mFaceData.record.numFaces; ++k) meta->mFaceData.record.faces[k] = (*faces)[k];
    hist.addFaceData(id, meta);
  }
  android::KoFrameHistSnapshot* snap() {
    delete snapshot;
    snapshot = new android::KoFrameHistSnapshot(&hist);
    return snapshot;
  }
  int32_t predicted(size_t i) { return snapshot->mHistory[i]->mFrameData->mFaceData.numBlinkedPredicted; }
};

android::KO_cam_face_t face(int id, int left, int right, int smile = 0) {
  android::KO_cam_face_t f = {};
  f.id = id;
  f.left = 100 * id, f.top = 100, f.width = 80, f.height = 80;
  f.leftBlink = static_cast<uint8_t>(left);
  f.rightBlink = static_cast<uint8_t>(right);
  f.smileDegree = static_cast<uint8_t>(smile);
  return f;
}

struct Stretch {
  const char* clip;
  int first, last;
  std::vector<int> blink;  // hand-labelled closed frames
  std::vector<int> open;   // hand-labelled open frames
};

}  // namespace

TEST(KoFaceIdBasedData, PredictsTheHandLabelledBlinksOfTheWebcamClips) {
  const Stretch stretches[] = {
      {"webcam_face_a_400x300_25fps.mp4", 630, 652, {640, 641, 642, 643}, {636, 638, 650}},
      {"webcam_face_a_400x300_25fps.mp4", 762, 786, {774, 775}, {771, 772}},
      {"webcam_face_b_400x300_25fps.mp4", 416, 440, {426, 427, 428, 429}, {422, 423, 433}},
  };
  for (const Stretch& s : stretches) {
    SCOPED_TRACE(testing::Message() << s.clip << " " << s.first << ".." << s.last);
    scoring_test::ClipStretch clip;
    ASSERT_TRUE(scoring_test::loadClipStretch(s.clip, s.first, s.last, clip));
    RecordHistory h;
    for (size_t i = 0; i < clip.faces.size(); ++i) h.add(static_cast<uint32_t>(100 + i), &clip.faces[i]);
    KoFaceIdBasedData data(h.snap());
    const int frames = data.populateFaceIdBasedData();
    for (int b : s.blink) EXPECT_GE(h.predicted(static_cast<size_t>(b - s.first)), 1) << "blink frame " << b;
    for (int o : s.open) EXPECT_EQ(h.predicted(static_cast<size_t>(o - s.first)), 0) << "open frame " << o;
    // The closed frames, and at most the closing and opening frames around them.
    EXPECT_GE(frames, static_cast<int>(s.blink.size()));
    EXPECT_LE(frames, static_cast<int>(s.blink.size()) + 4);
    int blinks = 0;
    for (size_t k = 0; k < data.faceTracks().size(); ++k) blinks += data.faceTracks()[k].blinks;
    EXPECT_EQ(blinks, 1);
  }
}

TEST(KoFaceIdBasedData, ABlinkNeedsOpenEyesOfTheSameFaceAround) {
  RecordHistory h;
  // Face 1 blinks at 4..6 (mid-way, closed, mid-way); face 2 squints throughout (45), face 3
  // keeps its eyes closed throughout; a face record is missing at frame 8.
  const int degrees1[] = {5, 10, 8, 12, 45, 95, 60, 10, 0, 6, 4, 9};
  for (int i = 0; i < 12; ++i) {
    std::vector<android::KO_cam_face_t> faces = {face(1, degrees1[i], degrees1[i] / 2, 20 + i),
                                                 face(2, 45, 44), face(3, 90, 95)};
    h.add(static_cast<uint32_t>(200 + i), i == 8 ? nullptr : &faces);
  }
  KoFaceIdBasedData data(h.snap());
  EXPECT_EQ(data.populateFaceIdBasedData(), 3);
  for (size_t i = 0; i < 12; ++i) EXPECT_EQ(h.predicted(i), (i >= 4 && i <= 6) ? 1 : 0) << "frame " << i;
  ASSERT_EQ(data.faceTracks().size(), 3u);
  const KoFaceIdBasedData::FaceTrack& t1 = data.faceTracks()[0];
  EXPECT_EQ(t1.id, 1);
  EXPECT_EQ(t1.frames, 11);
  EXPECT_EQ(t1.firstIndex, 0);
  EXPECT_EQ(t1.lastIndex, 11);
  EXPECT_EQ(t1.blinks, 1);
  EXPECT_EQ(t1.blinkFrames, 3);
  EXPECT_EQ(t1.maxSmile, 31);
  EXPECT_EQ(data.faceTracks()[1].blinks, 0) << "squinting is not blinking";
  EXPECT_EQ(data.faceTracks()[2].blinks, 0) << "eyes closed throughout";

  // A second pass over a history in which face 2 blinks too at frame 5 counts both faces there.
  RecordHistory h2;
  for (int i = 0; i < 12; ++i) {
    std::vector<android::KO_cam_face_t> faces = {face(1, degrees1[i], 0), face(2, i == 5 ? 90 : 5, 5)};
    h2.add(static_cast<uint32_t>(300 + i), &faces);
  }
  KoFaceIdBasedData both(h2.snap());
  EXPECT_EQ(both.populateFaceIdBasedData(), 3);
  EXPECT_EQ(h2.predicted(5), 2);
  EXPECT_EQ(h2.predicted(4), 1);

  // A long closure (more than ten frames) is not a blink; a blink at the newest frame, open
  // before it, is one in progress.
  RecordHistory h3;
  for (int i = 0; i < 26; ++i) {
    const int d = (i >= 3 && i <= 13) || i == 25 ? 90 : 5;
    std::vector<android::KO_cam_face_t> faces = {face(1, d, d)};
    h3.add(static_cast<uint32_t>(400 + i), &faces);
  }
  KoFaceIdBasedData longClosure(h3.snap());
  EXPECT_EQ(longClosure.populateFaceIdBasedData(), 1);
  EXPECT_EQ(h3.predicted(25), 1);
  EXPECT_EQ(h3.predicted(9), 0);

  KoFaceIdBasedData none(nullptr);
  EXPECT_EQ(none.populateFaceIdBasedData(), -1);
}
