#include "KoBestShot.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "DexCameraMotion.h"
#include "KoFrameData.h"
#include "KoFrameHistBase.h"
#include "KoFrameHistSnapshot.h"
#include "KoSequenceData.h"

namespace android {

// `<` is false for NaN on either side, so an unordered pair yields 0 and is never swapped.
int KoBestShot::compare(const BSScore* lhs, const BSScore* rhs) {
  return rhs->bsScore < lhs->bsScore ? 1 : 0;
}

int KoBestShot::compareFaces(const BSScore* lhs, const BSScore* rhs) {
  return rhs->facesScore < lhs->facesScore ? 1 : 0;
}

int KoBestShot::compareFE(const BSScore* lhs, const BSScore* rhs) {
  return rhs->feScore < lhs->feScore ? 1 : 0;
}

namespace {

// Frames on either side whose statistics form the neighbourhood a frame is measured against.
constexpr int kNeighbourhood = 7;
// Frames scored by the foreground pass: the newest ones, whose face records may still arrive.
constexpr size_t kForegroundFrames = 5;
// Frames with statistics the foreground pass scores at most, newest first.
constexpr size_t kForegroundLook = 8;

// Sharpness: tolerated deficit against the neighbourhood, points per unit of further deficit.
constexpr float kSharpTolerance = 0.08f;
constexpr float kSharpPointsPerUnit = 250.0f;
constexpr float kSharpMaxPenalty = 60.0f;
// Exposure: tolerated |ln(mean / median)| (a factor of 1.13), points per further unit.
constexpr float kExposureTolerance = 0.12f;
constexpr float kExposurePointsPerUnit = 100.0f;
constexpr float kExposureMaxPenalty = 40.0f;
// Clipping: tolerated excess share of clipped pixels, points per further unit.
constexpr float kClipTolerance = 0.02f;
constexpr float kClipPointsPerUnit = 100.0f;
constexpr float kClipMaxPenalty = 20.0f;
// Subject motion (0..1): tolerated score, points per further unit, cap; "strong" for auxScore.
// A talking face moves its mouth and head all the time (0.3-0.8 on the webcam clips) without
// spoiling the picture; only stronger motion costs, and at most two steps, so that ordinary
// motion never outweighs a blink.
constexpr float kMotionTolerance = 0.35f;
constexpr float kMotionPointsPerUnit = 20.0f;
constexpr float kMotionMaxPenalty = 10.0f;
constexpr float kStrongMotionPenalty = 10.0f;
constexpr int kMotionBorrowFrames = 2;
// Camera motion.
constexpr float kShakePenalty = 15.0f;
constexpr float kPanPenalty = 10.0f;

// Faces.
constexpr int kEyeOpenBelow = 50;      // blink degree below which an eye is open
constexpr int kEyeHalfBelow = 80;      // ... half closed; at or above: closed
// Per eye. Both eyes closed cost 14 and a smile gains 5: the faces scores of a blink and of an
// open-eyed smile stay within 19 points, below the 25 at which the engine no longer compares
// two frames as the same picture.
constexpr float kEyeOpenBonus = 7.0f;
constexpr float kEyeHalfBonus = 3.0f;
// Only a broad smile counts: a talking mouth reads up to 60 without smiling, and a bonus on
// such frames would keep frames far from a capture ahead of the open-eyed ones near it.
constexpr int kSmileBroad = 80;
constexpr float kSmileBonus = 5.0f;
constexpr float kFaceBase = 50.0f;
constexpr int kFaceBorrowFrames = 2;
// Smallest face width, as a share of the preview width, that makes a face scene.
constexpr float kFaceSceneMinWidth = 0.04f;
constexpr int kFaceSceneSearch = 3;

// auxScore.
constexpr float kAuxMargin = 0.92f;
constexpr float kAuxEyesClosed = 0.7f;
constexpr float kAuxExposure = 0.75f;
constexpr float kAuxMotion = 0.85f;

// Best frame of the background pass: window around the capture, and how clearly it must win.
constexpr int64_t kCaptureWindowIds = 6;
constexpr int64_t kCaptureWindowUs = 430000;
constexpr float kClearWin = 6.0f;  // more than a smile (5): a blink on both eyes

// Rounds a penalty to the nearest multiple of 5 (so 2.5 points beyond the tolerance are needed
// before anything is taken), capped.
float quantise5(float points, float cap) {
  if (!(points > 0.0f)) return 0.0f;
  return std::min(cap, 5.0f * std::floor(points / 5.0f + 0.5f));
}

float wordAsFloat(uint32_t word) {
  float value;
  memcpy(&value, &word, sizeof(value));
  return value;
}

float median(float* values, size_t n) {
  std::sort(values, values + n);
  return n % 2 ? values[n / 2] : 0.5f * (values[n / 2 - 1] + values[n / 2]);
}

__attribute__((no_sanitize("vptr"))) const KoFrameData* frameAt(KoFrameHistBase* hist, size_t i) {
  if (i >= hist->mHistory.size()) return nullptr;
  const KoFrameHistNode* node = hist->mHistory[i].get();
  return node != nullptr ? node->mFrameData.get() : nullptr;
}

__attribute__((no_sanitize("vptr"))) bool hasBits(const KoFrameData* f, uint32_t bits) {
  return f != nullptr && (f->mProcessedEvents.load(std::memory_order_acquire) & bits) == bits;
}

// Root mean square of the Sobel gradient magnitude (from its mean and standard deviation) per
// unit of luma contrast: sharpness that does not change with exposure or gain. The square mean
// weighs the strong edges, which blur flattens most, more than the plain mean does.
__attribute__((no_sanitize("vptr"))) float normalisedSharpness(const KoFrameData* f) {
  const float m = f->mSobelStats.mean, sd = f->mSobelStats.stddev;
  return std::sqrt(m * m + sd * sd) / std::max(f->mLumaStats.stddev, 1.0f);
}

// Share of the pixels in the darkest and the brightest histogram bin.
__attribute__((no_sanitize("vptr"))) float clippedShare(const KoFrameData* f) {
  if (f->mHistogram == nullptr || f->mHistogramBins < 2) return 0.0f;
  uint64_t total = 0;
  for (uint32_t b = 0; b < f->mHistogramBins; ++b) total += f->mHistogram[b];
  if (total == 0) return 0.0f;
  return static_cast<float>(f->mHistogram[0] + f->mHistogram[f->mHistogramBins - 1]) /
         static_cast<float>(total);
}

// Medians of the frames with statistics within kNeighbourhood of index (the frame included).
struct Neighbourhood {
  float sharpness = 0.0f;
  float lumaMean = 0.0f;
  float clipped = 0.0f;
};

__attribute__((no_sanitize("vptr"))) Neighbourhood neighbourhood(KoFrameHistBase* hist, size_t index) {
  float sharp[2 * kNeighbourhood + 1], luma[2 * kNeighbourhood + 1], clip[2 * kNeighbourhood + 1];
  size_t n = 0;
  const size_t lo = index > static_cast<size_t>(kNeighbourhood) ? index - kNeighbourhood : 0;
  const size_t hi = std::min(hist->mHistory.size(), index + kNeighbourhood + 1);
  for (size_t i = lo; i < hi; ++i) {
    const KoFrameData* f = frameAt(hist, i);
    if (!hasBits(f, KoFrameData::EVENT_STATS)) continue;
    sharp[n] = normalisedSharpness(f);
    luma[n] = f->mLumaStats.mean;
    clip[n] = clippedShare(f);
    ++n;
  }
  Neighbourhood out;
  if (n == 0) return out;
  out.sharpness = median(sharp, n);
  out.lumaMean = median(luma, n);
  out.clipped = median(clip, n);
  return out;
}

// Subject motion of the frame, or of the nearest frame with a motion estimate.
__attribute__((no_sanitize("vptr"))) float subjectMotion(KoFrameHistBase* hist, size_t index) {
  for (int d = 0; d <= kMotionBorrowFrames; ++d) {
    for (int side = 0; side < (d == 0 ? 1 : 2); ++side) {
      const long j = static_cast<long>(index) + (side == 0 ? -d : d);
      if (j < 0) continue;
      const KoFrameData* f = frameAt(hist, static_cast<size_t>(j));
      if (!hasBits(f, KoFrameData::EVENT_MOTION)) continue;
      const float whole = wordAsFloat(f->mMotionResult[8]);
      const float centre = wordAsFloat(f->mMotionResult[9]);
      const float m = std::max(std::isfinite(whole) ? whole : 0.0f,
                               std::isfinite(centre) ? centre : 0.0f);
      return std::min(1.0f, m);
    }
  }
  return 0.0f;
}

// Size of the picture the face rectangles refer to.
__attribute__((no_sanitize("vptr"))) void faceReference(const KoFrameData* f, float& w, float& h) {
  w = static_cast<float>(f->mFaceRefWidth ? f->mFaceRefWidth : f->mPreviewWidth);
  h = static_cast<float>(f->mFaceRefHeight ? f->mFaceRefHeight : f->mPreviewHeight);
}

float eyeBonus(int degree) {
  if (degree < kEyeOpenBelow) return kEyeOpenBonus;
  if (degree < kEyeHalfBelow) return kEyeHalfBonus;
  return 0.0f;
}

struct FacesResult {
  float score = 0.0f;       // 0.0: no face
  bool mainEyesClosed = false;
};

// The faces score of a frame's own face record, and whether the main face (largest weight)
// has an eye at least half closed.
__attribute__((no_sanitize("vptr"))) FacesResult facesOf(const KoFrameData* f) {
  FacesResult out;
  const uint32_t n = f->faceCount();
  if (n == 0) return out;
  float refW, refH;
  faceReference(f, refW, refH);
  float sum = 0.0f, weights = 0.0f, mainWeight = -1.0f;
  for (uint32_t k = 0; k < n; ++k) {
    const KO_cam_face_t& face = f->mFaceData.record.faces[k];
    if (face.width <= 0 || face.height <= 0) continue;
    float centrality = 1.0f;
    if (refW > 0.0f && refH > 0.0f) {
      const float dx = (face.left + 0.5f * face.width) / refW - 0.5f;
      const float dy = (face.top + 0.5f * face.height) / refH - 0.5f;
      const float dist = std::min(1.0f, std::sqrt(dx * dx + dy * dy) / std::sqrt(0.5f));
      centrality = 1.0f - 0.5f * dist;
    }
    const float weight = static_cast<float>(face.width) * static_cast<float>(face.height) * centrality;
    float score = kFaceBase + eyeBonus(face.leftBlink) + eyeBonus(face.rightBlink);
    if (face.smileDegree >= kSmileBroad) score += kSmileBonus;
    sum += weight * score;
    weights += weight;
    if (weight > mainWeight) {
      mainWeight = weight;
      out.mainEyesClosed = std::max(face.leftBlink, face.rightBlink) >= kEyeOpenBelow;
    }
  }
  if (weights <= 0.0f) return out;
  out.score = std::round(sum / weights);
  return out;
}

__attribute__((no_sanitize("vptr"))) bool hasFaceRecord(const KoFrameData* f) {
  return hasBits(f, KoFrameData::EVENT_FACE) || f->mFaceData.record.frameId != 0;
}

}  // namespace

KoBestShot::KoBestShot() {}

KoBestShot::~KoBestShot() {}

__attribute__((no_sanitize("vptr"))) bool KoBestShot::scoreFrame(KoFrameHistBase* hist,
                                                                  size_t index,
                                                                  bool missingFaceDataMode,
                                                                  BSScore& out) {
  KoFrameData* f = const_cast<KoFrameData*>(frameAt(hist, index));
  if (!hasBits(f, KoFrameData::EVENT_STATS)) return false;
  const Neighbourhood nb = neighbourhood(hist, index);
  int32_t bits = 0;

  // Sharpness against the neighbourhood.
  float sharpPenalty = 0.0f;
  if (nb.sharpness > 0.0f) {
    const float deficit = 1.0f - normalisedSharpness(f) / nb.sharpness;
    sharpPenalty = quantise5((deficit - kSharpTolerance) * kSharpPointsPerUnit, kSharpMaxPenalty);
  }
  if (sharpPenalty > 0.0f) bits |= AUX_BLUR;

  // Exposure and clipping against the neighbourhood.
  float exposurePenalty = 0.0f;
  float brightening = 1.0f;
  if (nb.lumaMean > 0.0f) {
    const float ratio = std::max(f->mLumaStats.mean, 0.5f) / nb.lumaMean;
    brightening = ratio;
    exposurePenalty = quantise5((std::fabs(std::log(ratio)) - kExposureTolerance) *
                                    kExposurePointsPerUnit, kExposureMaxPenalty);
  }
  exposurePenalty += quantise5((clippedShare(f) - nb.clipped - kClipTolerance) * kClipPointsPerUnit,
                               kClipMaxPenalty);
  if (exposurePenalty > 0.0f) bits |= AUX_EXPOSURE;

  // Subject and camera motion.
  const float motionPenalty =
      quantise5((subjectMotion(hist, index) - kMotionTolerance) * kMotionPointsPerUnit, kMotionMaxPenalty);
  if (motionPenalty > 0.0f) bits |= AUX_MOTION;
  float cameraPenalty = 0.0f;
  bool shaking = false;
  if (hasBits(f, KoFrameData::EVENT_CAM_MOTION)) {
    const int32_t mode = static_cast<int32_t>(f->mCamMotion[3]);
    shaking = mode == DexCameraMotion::MODE_SHAKING;
    if (shaking) cameraPenalty = kShakePenalty;
    if (mode == DexCameraMotion::MODE_PANNING) cameraPenalty = kPanPenalty;
  }
  if (cameraPenalty > 0.0f) bits |= AUX_CAMERA_MOTION;

  const int fe = static_cast<int>(std::max(
      0.0f, 100.0f - sharpPenalty - exposurePenalty - motionPenalty - cameraPenalty));

  // Faces: the frame's own record, or while it has not arrived the nearest neighbour's.
  FacesResult faces;
  if (hasFaceRecord(f)) {
    faces = facesOf(f);
  } else if (!missingFaceDataMode) {
    for (int d = 1; d <= kFaceBorrowFrames; ++d) {
      const long before = static_cast<long>(index) - d;
      const KoFrameData* nbFrame = before >= 0 ? frameAt(hist, static_cast<size_t>(before)) : nullptr;
      if (nbFrame == nullptr || !hasFaceRecord(nbFrame)) nbFrame = frameAt(hist, index + d);
      if (nbFrame == nullptr || !hasFaceRecord(nbFrame)) continue;
      faces.score = facesOf(nbFrame).score;
      bits |= AUX_FACES_BORROWED;
      break;
    }
  }
  if (faces.mainEyesClosed) bits |= AUX_EYES_CLOSED;

  float q = 1.0f;
  if (faces.mainEyesClosed) q *= kAuxEyesClosed;
  if (exposurePenalty > 0.0f) q *= kAuxExposure * std::min(1.0f, 1.0f / brightening);
  if (motionPenalty >= kStrongMotionPenalty) q *= kAuxMotion;
  if (shaking) q *= kAuxMotion;

  out.frameId = static_cast<int32_t>(f->mFrameId);
  out.auxField = bits;
  out.feScore = static_cast<float>(fe);
  out.facesScore = faces.score;
  out.bsScore = out.feScore + out.facesScore;
  out.auxScore = f->mSobelStats.mean * kAuxMargin * q;
  out.timestampUs = f->mTimestamp;

  f->mFeScore = fe;
  f->mAuxScore = out.auxScore;
  f->mFacesScore = out.facesScore;
  f->mBsScore = out.bsScore;
  return true;
}

__attribute__((no_sanitize("vptr"))) int KoBestShot::findFrameInFG(KoSequenceData* job,
                                                                     bool missingFaceDataMode) {
  mScores.clear();
  if (job == nullptr || job->mSnapshot == nullptr) return -1;
  KoFrameHistBase* hist = job->mSnapshot;
  const size_t count = hist->mHistory.size();
  if (count == 0) return 0;
  long newest = job->mCapturedFrameIndex;
  if (newest < 0 || static_cast<size_t>(newest) >= count) newest = static_cast<long>(count) - 1;

  // Every frame looked at is scored (its scores go into the statistics record), but only one
  // that can still be reported as a best shot becomes a candidate: its ZSL buffer is held and
  // its camera metadata has arrived (unless the camera sends none at all).
  bool metadataArrives = false;
  for (size_t i = 0; i < count && !metadataArrives; ++i) {
    const KoFrameHistNode* node = hist->mHistory[i].get();
    const KoFrameData* f = node != nullptr ? node->mFrameData.get() : nullptr;
    metadataArrives = f != nullptr && hasBits(f, KoFrameData::EVENT_METADATA);
  }

  // The newest candidates, newest first. The candidate list merges a batch from its last record
  // backwards and keeps equal scores in the order they were added, so this order ranks the
  // older of two equal frames first.
  size_t taken = 0;
  size_t looked = 0;
  for (long i = newest; i >= 0 && taken < kForegroundFrames && looked < kForegroundLook; --i) {
    BSScore s;
    memset(&s, 0, sizeof(s));
    if (!scoreFrame(hist, static_cast<size_t>(i), missingFaceDataMode, s)) continue;
    ++looked;
    const KoFrameHistNode* node = hist->mHistory[static_cast<size_t>(i)].get();
    const KoFrameData* f = node->mFrameData.get();
    if (node->mZslMemory == nullptr) continue;
    if (metadataArrives && !hasBits(f, KoFrameData::EVENT_METADATA)) continue;
    mScores.push_back(s);
    ++taken;
  }
  return 0;
}

__attribute__((no_sanitize("vptr"))) int KoBestShot::findFrame(KoSequenceData* job) {
  mScores.clear();
  if (job == nullptr) return -1;
  memset(&job->mBestShotInfo[0], 0, sizeof(job->mBestShotInfo[0]));
  job->mBestShotScores.clear();
  if (job->mSnapshot == nullptr) return -1;
  KoFrameHistBase* hist = job->mSnapshot;
  const size_t count = hist->mHistory.size();

  // Face records are arriving (the frames were kept with them): a frame still without its own
  // takes its neighbour's, as in the foreground.
  const long captured = job->mCapturedFrameIndex;
  bool capturedScored = false;
  BSScore capturedScore;
  memset(&capturedScore, 0, sizeof(capturedScore));
  Vector<int32_t> indices;
  for (size_t i = 0; i < count; ++i) {
    BSScore s;
    memset(&s, 0, sizeof(s));
    if (!scoreFrame(hist, i, false, s)) continue;
    mScores.push_back(s);
    indices.push_back(static_cast<int32_t>(i));
    bestShotScores_t entry;
    entry.frameId = s.frameId;
    entry.frameIndex = static_cast<int32_t>(i);
    entry.bsScore = s.bsScore;
    entry.feScore = s.feScore;
    entry.auxScore = s.auxScore;
    entry.facesScore = s.facesScore;
    job->mBestShotScores.push_back(entry);
    if (static_cast<long>(i) == captured) {
      capturedScored = true;
      capturedScore = s;
    }
  }
  if (!capturedScored) return 0;

  // The best frame near the capture that still holds its ZSL buffer; among equals the one
  // nearest the capture.
  long best = -1;
  BSScore bestScore;
  memset(&bestScore, 0, sizeof(bestScore));
  for (size_t k = 0; k < mScores.size(); ++k) {
    const BSScore& s = mScores[k];
    const long i = indices[k];
    if (i == captured) continue;
    const int64_t dId = static_cast<int64_t>(s.frameId) - capturedScore.frameId;
    const int64_t dTs = s.timestampUs - capturedScore.timestampUs;
    if (dId < -kCaptureWindowIds || dId > kCaptureWindowIds) continue;
    if (dTs < -kCaptureWindowUs || dTs > kCaptureWindowUs) continue;
    const KoFrameHistNode* node = hist->mHistory[static_cast<size_t>(i)].get();
    if (node == nullptr || node->mZslMemory == nullptr) continue;
    const bool better = best < 0 || s.bsScore > bestScore.bsScore ||
                        (s.bsScore == bestScore.bsScore && std::labs(i - captured) < std::labs(best - captured));
    if (better) {
      best = i;
      bestScore = s;
    }
  }
  if (best < 0) return 0;
  const bool clearlyBetter = bestScore.bsScore >= capturedScore.bsScore + kClearWin &&
                             bestScore.feScore >= capturedScore.feScore &&
                             bestScore.auxScore >= capturedScore.auxScore;
  if (!clearlyBetter) return 0;
  bestShotInfo_t& info = job->mBestShotInfo[0];
  info.generated = 1;
  info.frameId = bestScore.frameId;
  info.frameIndex = static_cast<int32_t>(best);
  info.timestampUs = bestScore.timestampUs;
  info.bsScore = bestScore.bsScore;
  info.replace = 1;
  info.referenceFrameId = capturedScore.frameId;
  return 0;
}

int KoBestShot::getBestShotList(Vector<BSScore>& out) {
  out = mScores;
  return static_cast<int>(out.size());
}

__attribute__((no_sanitize("vptr"))) int KoBestShot::isFaceScene(unsigned int index,
                                                                  KoFrameHistBase* hist) {
  if (hist == nullptr || index >= hist->mHistory.size()) return 0;
  // The frame itself, else the nearest frames with a face record, earlier ones first.
  const KoFrameData* f = nullptr;
  for (int d = 0; d <= kFaceSceneSearch && f == nullptr; ++d) {
    for (int side = 0; side < (d == 0 ? 1 : 2) && f == nullptr; ++side) {
      const long j = static_cast<long>(index) + (side == 0 ? -d : d);
      if (j < 0) continue;
      const KoFrameData* c = frameAt(hist, static_cast<size_t>(j));
      if (c != nullptr && hasFaceRecord(c)) f = c;
    }
  }
  if (f == nullptr) return 0;
  float refW, refH;
  faceReference(f, refW, refH);
  const uint32_t n = f->faceCount();
  for (uint32_t k = 0; k < n; ++k) {
    const KO_cam_face_t& face = f->mFaceData.record.faces[k];
    if (face.width <= 0 || face.height <= 0) continue;
    // Without the preview size any detected face counts.
    if (refW <= 0.0f || static_cast<float>(face.width) >= kFaceSceneMinWidth * refW) return 1;
  }
  return 0;
}

}  // namespace android
