#pragma once
// Faces of one picture from dlib: the HOG frontal face detector finds the face rectangles and
// the 68-point shape predictor places the landmarks in each. The result is the geometry a
// phone's face detector reports (rectangle, eye and mouth centres, a 0..100 score) plus the raw
// eye and mouth measurements the blink and smile degrees are later derived from.
//
// Left and right are the subject's: the "left eye" is the person's own left eye, which appears
// on the RIGHT side of the picture (landmarks 42..47); the "right eye" is landmarks 36..41 on the
// picture's left side.
//
// One FaceDetector is not safe to use from two threads at once (dlib's detector keeps scratch
// state). Give each thread its own copy; copying shares nothing.
#include <array>
#include <memory>
#include <string>
#include <vector>

#include "ReplayTypes.h"

namespace kovane_replay {

struct LandmarkPoint {
  float x = 0.f;
  float y = 0.f;
};

// One face found in a picture, in pixels of the picture handed to detect().
struct DetectedFace {
  float left = 0.f, top = 0.f, width = 0.f, height = 0.f;
  double confidence = 0.0;  // the detector's own margin; 0 is its decision threshold
  int score = 0;            // confidence mapped to 0..100, see FaceDetector::scoreFromConfidence
  std::array<LandmarkPoint, 68> landmarks;  // dlib's 68-point layout
};

class FaceDetector {
 public:
  // The picture is reduced (area average of the luma) so that its longer side is at most this
  // many pixels before detection; the HOG detector finds faces from about 80 pixels up, and a
  // preview-sized face is far larger than that, so detail beyond 640 pixels only costs time.
  static constexpr int kMaxDetectSide = 640;
  // The landmarks are the mean of the shape predictor's answers for kLandmarkBoxes boxes: the
  // detector's box and that box shifted left, right, up and down by kLandmarkJitter of the
  // face size. One answer comes in whole pixels of the detection picture and follows the
  // detector box's coarse scale steps, and an eye is only a few pixels high in a preview-sized
  // face, so a single answer moves the eye aspect ratio by a fifth from frame to frame. On the
  // webcam test clips the mean of 5 boxes at 4 % separated hand-labelled closed eyes from open
  // ones (see FaceTracker) where a single box did not; each box costs a few milliseconds.
  static constexpr int kLandmarkBoxes = 5;
  static constexpr double kLandmarkJitter = 0.04;
  // Detector margin that maps to score 100; margin 0 (the detector's threshold) maps to 50.
  // Frontal faces in the webcam test clips give margins of about 0.9..2.3.
  static constexpr double kFullScoreMargin = 2.0;

  // Where the shape predictor is read from: $KOVANE_DLIB_PREDICTOR when set and not empty,
  // else Debian's libdlib-data file.
  static std::string predictorPath();
  static constexpr const char* kDefaultPredictorPath =
      "/usr/share/dlib/shape_predictor_68_face_landmarks.dat";

  FaceDetector();
  ~FaceDetector();
  FaceDetector(const FaceDetector& other);
  FaceDetector& operator=(const FaceDetector&) = delete;

  // Reads the shape predictor (about 100 MB, a second or two). False with a one-line reason.
  bool load(const std::string& predictorFile, std::string* error);
  bool loaded() const;

  // Faces of the picture (its luma is all that is used), largest first.
  std::vector<DetectedFace> detect(const Nv21Image& image);
  // The same on a bare 8-bit grey picture, row stride = width.
  std::vector<DetectedFace> detectGrey(const uint8_t* grey, int width, int height);

  // The record a phone would report for the face: rectangle, score, eye and mouth centres and
  // the measurements (leftEar, rightEar, mouthRatio). Id and degrees are left 0; FaceTracker
  // fills them in.
  static FaceRecord toRecord(const DetectedFace& face);

  // Eye aspect ratio of the six landmarks of one eye starting at `first` (36 or 42):
  // (|p1-p5| + |p2-p4|) / (2 |p0-p3|), with p0 and p3 the eye corners. About 0.24..0.35 for an
  // open eye, falling to about 0.15 when the lids close (dlib's lid points never quite meet).
  static float eyeAspectRatio(const std::array<LandmarkPoint, 68>& p, int first);
  // Mouth width (outer corners 48, 54) divided by the distance between the eye centres. It
  // grows as the mouth corners are pulled apart in a smile and changes by only a few per cent
  // while talking (an open mouth is, if anything, narrower). About 0.75..0.8 for a neutral face.
  static float mouthRatio(const std::array<LandmarkPoint, 68>& p);
  static int scoreFromConfidence(double confidence);

 private:
  bool placeLandmarks(double scaleX, double scaleY, DetectedFace& face);

  struct Models;
  std::unique_ptr<Models> mModels;
};

}  // namespace kovane_replay
