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

 protected:
  KoFrameHistSnapshot* mSnapshot;

 private:
  KoFaceIdBasedData(const KoFaceIdBasedData&) = delete;
  KoFaceIdBasedData& operator=(const KoFaceIdBasedData&) = delete;
};

}  // namespace android
