#pragma once
// Face-identity data of one capture, built by the analysis library on the capture's frozen
// history. A capture sequence owns it and deletes it through the virtual destructor.
namespace android {

class KoFrameHistSnapshot;

class KoFaceIdBasedData {
 public:
  // Built on the capture's snapshot, which must outlive this object (not owned).
  explicit KoFaceIdBasedData(KoFrameHistSnapshot* snapshot);
  virtual ~KoFaceIdBasedData();

  // Tracks every face id over the snapshot (eyes and smile frame by frame) and writes each
  // frame's predicted-blink count into its face block (KoFaceBlock_t::numBlinkedPredicted).
  // Returns the number of frames that hold a predicted blink, or -1 without a snapshot.
  int populateFaceIdBasedData();

 protected:
  KoFrameHistSnapshot* mSnapshot;

 private:
  KoFaceIdBasedData(const KoFaceIdBasedData&) = delete;
  KoFaceIdBasedData& operator=(const KoFaceIdBasedData&) = delete;
};

}  // namespace android
