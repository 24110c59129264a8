#pragma once
// Chooses where the preview clip of a capture starts and ends, and opens, ends or cancels the
// clip in the preview encoder accordingly. The engine owns one from construction to
// destruction and calls it on its foreground thread.
//
// How the points are chosen (all times are preview frame stamps, microseconds):
//  - Start (once the capture's motion decision asked for a clip): kPreRollUs before the shutter,
//    but not before the oldest frame the encoder still buffers, and not before the end of a
//    hard camera pan: the second before the shutter is searched backwards in kPanStepUs steps
//    for a step in which the camera-motion analyser reports panning at kHardPanRate or faster;
//    the clip then starts where the newest such step ends. A swung camera makes an unwatchable
//    first second, and the moment of the picture is what the clip is for.
//  - End (asked after every preview frame until it is known): kPostRollUs after the shutter,
//    or earlier where a hard pan begins after the shutter (searched forwards in the same
//    steps), or at the newest frame the clip has when the preview stopped feeding it: the host
//    started recording, or kStallFrames frames went by without the clip receiving one.
//  - Cancelled: when less than kMinClipUs would remain between the clip's first frame and its
//    end, or when the clip cannot be opened (no descriptor, clips disabled, the host records,
//    nothing buffered). A cancelled clip is reported not saved through the encoder's
//    completion, so the capture still finishes.
// The job's "video.startFrameId" and "video.stopFrameId" are estimated from the frame rate of
// the capture's frozen history (the clip's points are stamps, the frames outside the history
// have no ids here). Words 0 and 1 of the job's reserved video words count the end-point calls
// without progress and keep the low 32 bits of the clip's newest stamp at the last call; word 2
// counts the pan steps after the shutter already checked, so each step is asked about once.
#include <cstdint>

namespace android {

struct KoSequenceData;
class KoPreviewEncode;
class DexCameraMotion;

class DexVideoGeneration {
 public:
  static constexpr int64_t kPreRollUs = 1500000;
  static constexpr int64_t kPostRollUs = 1500000;
  static constexpr int64_t kMinClipUs = 1000000;
  static constexpr int64_t kPanStepUs = 100000;
  // Mean gyroscope rate (rad/s, about 20 degrees a second) from which a pan counts as hard.
  static constexpr float kHardPanRate = 0.35f;
  // Preview frames without a new clip frame after which the preview counts as stopped.
  static constexpr int32_t kStallFrames = 15;

  DexVideoGeneration();
  ~DexVideoGeneration();

  // Chooses the start point and opens the job's clip in the encoder; a clip that cannot be
  // opened is cancelled at once (the job's video-cancelled flag, completion not saved).
  void KoSetVideoStartPoint(KoSequenceData* job, KoPreviewEncode* encoder, DexCameraMotion* motion);
  // Sets `set` once the end point is known and ends the clip there (the encoder then finishes
  // the file and reports); sets `cancelled` instead when the clip would be too short (the
  // encoder reports it not saved). Leaves both false while the end is still to come.
  void KoSetVideoEndPoint(KoSequenceData* job, KoPreviewEncode* encoder, DexCameraMotion* motion,
                          bool& set, bool& cancelled);

 private:
  DexVideoGeneration(const DexVideoGeneration&) = delete;
  DexVideoGeneration& operator=(const DexVideoGeneration&) = delete;

  static bool hardPan(DexCameraMotion* motion, int64_t fromUs, int64_t toUs);
  static int32_t estimateFrameId(const KoSequenceData* job, int64_t tsUs);
};

}  // namespace android
