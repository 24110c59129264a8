#pragma once
// No-reference blur measure of a frame. It compares the energy of the finest detail (second
// differences) with that of all edges (central differences), at the picture's scale and at a
// further 2x reduction: a sharp picture keeps at its finest scale about what its coarser scale
// predicts, a blurred one much less. Sensor noise, estimated from the flattest parts of the
// picture, is subtracted from both energies so that it does not pass as detail. It is a ratio
// of energies and therefore does not depend on contrast or brightness.
#include <cstdint>

namespace android {

class DexBlurDetect {
 public:
  // Size of the images the detector will usually see (the 320x180 small image, stride 320).
  DexBlurDetect(int width, int height, int stride);
  ~DexBlurDetect();

  // coeff: measure on the whole width x height image (row stride `stride`); subCoeff: measure
  // on the central half (in each direction) of the analysis view, analysisWidth wide with the
  // same aspect ratio as the image, row stride analysisWidth (pass null to skip it; subCoeff is
  // then left as it is); the centre is reduced 2x before it is measured, so that both figures
  // are taken at the scale of the small image and compare. Both lie in [0, 1], small meaning
  // blurred. Calibrated on real photographs measured on the 2x reduction of their 640x360
  // view: sharp ones score about 0.75 and more, with or without Gaussian noise of 4 grey
  // levels added to the view; the same pictures blurred at the view by a Gaussian of sigma
  // 1.5 pixels or a 7-pixel linear motion streak score 0.14 or less (centre: about 0.17 or
  // less; the engine's threshold is 0.17), noisy or not; a real whip-pan frame about 0.14; a
  // soft but unblurred picture (a 400x300 webcam picture scaled up to 640x480) 0.2 and more.
  // An image without texture (RMS neighbour difference below one grey level once the noise
  // is discounted) or smaller than 8x8 yields -1.
  // scratch1 and scratch2 hold width * height values each. Returns 0, or -1 (logged, coeff and
  // subCoeff untouched) for null pointers or bad sizes.
  int calcBlurMeasure(unsigned char* image, int width, int height, int stride, float& coeff,
                      short* scratch1, short* scratch2, unsigned char* analysisImage,
                      int analysisWidth, float& subCoeff);

  // The measure of one image, for callers that have no analysis view: the coefficient in
  // [0, 1], or -1 as above. scratch1 holds at least (w / 2) * (h / 2) values; scratch2 is
  // not used (kept for the callers' convenience).
  static float measure(const uint8_t* image, int width, int height, int stride, int16_t* scratch1,
                       int16_t* scratch2);

 private:
  int mWidth;
  int mHeight;
  int mStride;
};

}  // namespace android
