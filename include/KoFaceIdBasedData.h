#pragma once
// Face-identity data of one capture, built by the analysis library on the capture's frozen
// history. A capture sequence owns it and deletes it through the virtual destructor.
//
// Every face id of the history is followed frame by frame: its eyes (the larger of the two
// blink degrees, 0 open .. 100 closed) and its smile degree. A blink is predicted where a face's
// eyes are mid-way or closed while the same face's eyes are open around it: a run of frames of
// that face whose degree is at least BLINK_MID_DEGREE, at least BLINK_RISE above the face's own
// usual degree (its median over the history, so that a face that always reads a little closed,
// squinting or looking down, is not taken for blinking), holding at least one frame at or above
// BLINK_CLOSED_DEGREE or BLINK_RISE_CLOSED above the usual degree, no longer than
// BLINK_MAX_FRAMES, and bounded by an open frame of the same face on at least one side (the
// history may cut the other). Eyes closed for the whole history are not a blink.
#include <cstdint>

#include <utils/Vector.h>

namespace android {

class KoFrameHistSnapshot;

class KoFaceIdBasedData {
 public:
  // What was seen of one face id over the history.
  struct FaceTrack {
    int32_t id;
    int32_t frames;          // frames of the history that show the face
    int32_t firstIndex;      // history index of its first and last appearance
    int32_t lastIndex;
    int32_t usualBlink;      // median of its blink degrees
    int32_t blinkFrames;     // frames with a predicted blink of this face
    int32_t blinks;          // predicted blinks (runs of such frames)
    int32_t meanSmile;       // mean smile degree, and the largest
    int32_t maxSmile;
  };

  enum : int32_t {
    BLINK_MID_DEGREE = 40,
    BLINK_CLOSED_DEGREE = 50,
    BLINK_RISE = 20,
    BLINK_RISE_CLOSED = 35,
    BLINK_MAX_FRAMES = 10,
    // Frames of a face's history that may be missing inside one run or between a run and the
    // open frame that bounds it (a dropped detection).
    BLINK_MAX_GAP = 2,
  };

  // Built on the capture's snapshot, which must outlive this object (not owned).
  explicit KoFaceIdBasedData(KoFrameHistSnapshot* snapshot);
  virtual ~KoFaceIdBasedData();

  // Tracks every face id over the snapshot (eyes and smile frame by frame) and writes each
  // frame's predicted-blink count into its face block (KoFaceBlock_t::numBlinkedPredicted; 0 for
  // frames without a predicted blink). Returns the number of frames that hold a predicted
  // blink, or -1 without a snapshot.
  int populateFaceIdBasedData();

  // The faces of the last populateFaceIdBasedData, in order of first appearance.
  const Vector<FaceTrack>& faceTracks() const { return mTracks; }

 protected:
  KoFrameHistSnapshot* mSnapshot;

 private:
  Vector<FaceTrack> mTracks;

  KoFaceIdBasedData(const KoFaceIdBasedData&) = delete;
  KoFaceIdBasedData& operator=(const KoFaceIdBasedData&) = delete;
};

}  // namespace android
