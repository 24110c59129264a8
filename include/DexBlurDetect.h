#pragma once
// No-reference blur measure of a frame. The measure compares the picture with a re-blurred copy
// of itself: fine detail that a small extra blur destroys exists only in a sharp picture, while
// a blurred picture hardly changes. It is a ratio of gradient energies and therefore does not
// depend on contrast or brightness.
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
  // then left as it is). Both lie in [0, 1], small meaning blurred: sharp photographs score
  // about 0.5 and more, a picture blurred by a Gaussian of 1.5 pixels or a 7-pixel motion
  // streak below 0.17. A textureless image (RMS gradient below one grey level) yields -1.
  // scratch1 and scratch2 hold width * height values each. Returns 0, or -1 (logged, coeff and
  // subCoeff untouched) for null pointers or bad sizes.
  int calcBlurMeasure(unsigned char* image, int width, int height, int stride, float& coeff,
                      short* scratch1, short* scratch2, unsigned char* analysisImage,
                      int analysisWidth, float& subCoeff);

  // The measure of one image, for callers that have no analysis view: the raw re-blur ratio
  // mapped to [0, 1], or -1 for a textureless image. Scratch as above (w * h values each).
  static float measure(const uint8_t* image, int width, int height, int stride, int16_t* scratch1,
                       int16_t* scratch2);

 private:
  int mWidth;
  int mHeight;
  int mStride;
};

}  // namespace android
