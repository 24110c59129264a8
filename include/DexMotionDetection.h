#pragma once
// Block-matching motion estimation between the analysis view of a frame and a stored reference
// view: global (camera) shift, and how much of the picture moves differently from it (subject
// motion), for the whole frame and for its central third.
#include <cstdint>
#include <vector>

#include <utils/Vector.h>

#include "DexCameraMotion.h"

namespace android {

class KoFrameHistSnapshot;

class DexMotionDetection {
 public:
  // Result of processMEPerFrame, 40 bytes, read by word by the engine and the capture record.
  struct motionResult_t {
    int32_t numBlocks;        // textured blocks that were matched
    float globalDx;           // global shift of the view against the reference (median of the
    float globalDy;           //   block vectors): view(x + dx, y + dy) matches reference(x, y)
    float vecMagMean;         // mean and standard deviation of the block-vector magnitudes
    float vecMagStddev;
    float matchDiff;          // mean absolute difference per pixel at the best matches
    int32_t numOpposing;      // blocks moving against the global shift
    int32_t reserved;
    float frmMotionScoreNorm;     // subject motion of the whole frame, 0 (none) .. 1
    float ctrFrmMotionScoreNorm;  // the same for the blocks of the central third
  };
  static_assert(sizeof(motionResult_t) == 40, "motion result is read by word");

  // Block size, search range (pixels, in each direction) and the deviation from the global
  // shift (pixels) at which a block counts fully as moving on its own.
  static constexpr int BLOCK = 16;
  static constexpr int RANGE = 16;
  static constexpr int FULL_DEVIATION = 6;

  // Largest view the detector accepts (the analysis view: 640 x 360). All working memory is
  // sized here, so that estimating and storing references does not allocate.
  DexMotionDetection(int width, int height);
  ~DexMotionDetection();

  // Stores a copy of a w x h view (row stride `stride`) as the reference of the next
  // estimation. Returns 0, or -1 (logged, reference unchanged) for null pointers, non-positive
  // sizes or a view larger than the constructor's size.
  int copyNewRefFrame(const uint8_t* view, int w, int h, int stride);

  // Block matching of `view` (the reference's size, row stride `stride`) against the reference:
  // 16x16 blocks on a regular grid inside a 16-pixel margin, full search of +/-16 pixels by sum
  // of absolute differences (coarse on a 2x reduction, refined at full resolution); blocks with
  // too little texture to match are skipped. The view is first brought to the reference's
  // exposure (mean and standard deviation matched, gain limited to 1/4..4), so that an
  // exposure step alone reads as no motion; matchDiff is in the reference's grey levels. Fills `result` (a motionResult_t). Without a
  // reference the result is all zero with 0 blocks. The three unnamed pointers and `scratch`
  // are accepted for the caller's convenience and not used. Returns 0, or -1 (logged, result
  // untouched) for null view/result or a bad stride.
  int processMEPerFrame(const uint8_t* view, const void* unused1, const void* unused2,
                        const void* unused3, void* scratch, int stride, void* result);

  // Whether the capture is worth a video clip: a value above 0.0 (up to 1.0) when the frames
  // of the snapshot around the captured index show subject motion without a hard camera pan,
  // 0.0 otherwise. camMotion holds the camera-motion classification of the snapshot's span;
  // count is the snapshot's item count. The rule:
  //  - 0 when any camMotion entry is MODE_PANNING or has a gyroscope mean of SHAKE_MEAN
  //    (0.6 rad/s) or more, or when most frames within 10 places of the captured index that
  //    have a camera-motion class (processed bit 0x40000) are classed as panning;
  //  - with motion results (bit 0x10000, at least one matched block) among those frames: 0 when
  //    the median global shift is 8 analysis pixels or more (a pan seen in the picture);
  //    otherwise, with m the mean over them of max(frmMotionScoreNorm,
  //    ctrFrmMotionScoreNorm), 0 when m < 0.06 (a still scene: block-matching noise and small
  //    head movements stay below), else min(1, m / 0.3);
  //  - without motion results, from the frames' difference statistics (bit 0x20000): 0 when
  //    the median mDiffStats.mean is below 3 grey levels, else min(1, median / 10);
  //  - 0 without either, for a null snapshot, count <= 0 or an index outside the snapshot.
  float KoMotionDecision(KoFrameHistSnapshot* snapshot, Vector<KO_camMotionType_t>& camMotion,
                         int count, int capturedIndex);

  // Process-wide choice of the pixel kernels of copyNewRefFrame and processMEPerFrame, for tests
  // and benchmarks. All sets give bit-for-bit identical results; the default is the fastest.
  enum KernelSet {
    KERNELS_PORTABLE = 0,  // plain C++
    KERNELS_VECTOR = 1,    // 128-bit vectors: SSE2 on x86, NEON on ARM
    KERNELS_FASTEST = 2,   // AVX2 where the CPU has it, else as KERNELS_VECTOR
  };
  static void setKernels(KernelSet kernels);
  static KernelSet kernels();
  // setSimdEnabled(false) selects KERNELS_PORTABLE, setSimdEnabled(true) KERNELS_FASTEST. A
  // build without vector kernels always runs the portable ones.
  static void setSimdEnabled(bool enabled);

 private:
  // A matched block: its vector, centre, top-left corner and the SAD at the vector.
  struct Block {
    float dx, dy;
    float cx, cy;
    int x, y;
    uint32_t sad;
  };

  // The two operations on one set of pixel kernels (portable or vectorised).
  template <class Kernels>
  void storeReference(const uint8_t* view, int w, int h, int stride);
  template <class Kernels>
  void estimate(const uint8_t* view, int stride, motionResult_t* out);

  int mMaxWidth;
  int mMaxHeight;
  int mRefWidth = 0;
  int mRefHeight = 0;
  // The planes below are allocated once for the largest view (plus a few bytes that the vector
  // kernels may read past the last row).
  std::vector<uint8_t> mRef;       // reference view, row stride mRefWidth
  std::vector<uint8_t> mRefHalf;   // its 2x reduction, row stride mRefWidth / 2
  double mRefMean = 0;             // its luma mean and standard deviation
  double mRefSpread = 0;
  std::vector<uint8_t> mMatched;   // the view at the reference's exposure, row stride mRefWidth
  std::vector<uint8_t> mHalf;      // its 2x reduction, row stride mRefWidth / 2
  std::vector<Block> mBlocks;      // blocks of the current estimation (capacity: the full grid)
};

}  // namespace android
