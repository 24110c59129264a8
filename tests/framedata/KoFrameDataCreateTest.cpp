// Frame creation from camera inputs: the downscaled analysis image of real pictures on every
// size path, camera values, motion-sensor samples, and bad input.
#include <gtest/gtest.h>

#include <iterator>

#include "DexFrameMetaData.h"
#include "FrameTestSupport.h"
#include "HostSensorFeed.h"
#include "KoFrameDataCreate.h"
#include "StderrCapture.h"
#include "TestData.h"
#include "../platform/PlatformTestUtil.h"

using namespace android;
using kovane_test::TestEngineContext;

namespace {

// A camera frame: NV21 with the given luma and chroma stride, cut from the 1920x1080 picture;
// its padding (0xEE) is never read.
struct CameraFrame {
  int width = 0, height = 0, stride = 0;
  std::vector<uint8_t> bytes;
  KO_cam_frame_len_offset_t planes = {};
  KO_PreviewFrameData_t preview = {};
};

CameraFrame cut(const std::vector<uint8_t>& src, int x0, int y0, int w, int h, int stride) {
  const int srcW = 1920;
  const uint8_t* srcUV = src.data() + srcW * 1080;
  CameraFrame f{w, h, stride, std::vector<uint8_t>(static_cast<size_t>(stride) * h * 3 / 2, 0xEE), {}, {}};
  uint8_t* uv = f.bytes.data() + static_cast<size_t>(stride) * h;
  for (int y = 0; y < h; ++y) {
    memcpy(&f.bytes[static_cast<size_t>(y) * stride], &src[static_cast<size_t>(y0 + y) * srcW + x0], w);
    if (y >= h / 2) continue;
    uint8_t* row = uv + static_cast<size_t>(y) * stride;
    memcpy(row, srcUV + static_cast<size_t>(y0 / 2 + y) * srcW + (x0 / 2) * 2, w);
    // The group photograph is almost grey, so U and V would be alike; inverting V keeps the
    // picture's structure and makes a swap of the two planes visible.
    for (int x = 0; x < w; x += 2) row[x] = static_cast<uint8_t>(255 - row[x]);
  }
  f.planes.numPlanes = 2;
  f.planes.mp[0] = {stride * h, 0, stride, h};
  f.planes.mp[1] = {stride * h / 2, 0, stride, h / 2};
  f.planes.frameLen = static_cast<uint32_t>(f.bytes.size());
  KO_PreviewFrameData_t& p = f.preview;
  p.timeStamp = 123456789, p.frameId = 42, p.streamType = KO_STREAM_TYPE_PREVIEW, p.zoom = 3;
  p.width = w, p.height = h, p.data = f.bytes.data(), p.colorFormat = KO_COLOR_FORMAT_NV21, p.planes = &f.planes;
  return f;
}

// Checks the three planes of a frame's downscaled image against the area-average reference;
// plane A must be U (the second byte of each V,U pair), plane B V.
void expectMatchesReference(const CameraFrame& cam, const sp<KoFrameData>& frame, double maxAbs, double meanAbs) {
  using platform_test::areaReference;
  const int w = static_cast<int>(frame->mWidth), h = static_cast<int>(frame->mHeight), cw = w / 2, ch = h / 2;
  const uint8_t *out = frame->mDownscaledImage->data(), *vu = cam.bytes.data() + cam.planes.mp[0].len;
  const uint8_t* planes[3] = {out, out + w * h, out + w * h + cw * ch};
  const std::vector<double> refs[3] = {
      areaReference(cam.bytes.data(), cam.width, cam.height, cam.stride, 1, w, h),
      areaReference(vu + 1, cam.width / 2, cam.height / 2, cam.stride, 2, cw, ch),
      areaReference(vu, cam.width / 2, cam.height / 2, cam.stride, 2, cw, ch)};
  for (int i = 0; i < 3; ++i) {
    const platform_test::Diff d = platform_test::diffTo(planes[i], i ? cw : w, 1, refs[i], i ? cw : w, i ? ch : h);
    EXPECT_LE(d.maxAbs, maxAbs) << i;
    EXPECT_LE(d.meanAbs, meanAbs) << i;
    if (i > 0) {  // swapped chroma would match the other reference instead
      EXPECT_LT(d.meanAbs, platform_test::diffTo(planes[i], cw, 1, refs[3 - i], cw, ch).meanAbs) << i;
    }
  }
}

class FrameCreation : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(solvay.empty()); }
  void TearDown() override { HostSensorFeed::reset(); }
  const std::vector<uint8_t> solvay = kovane_test::readNv21("solvay_1920x1080.nv21", 1920, 1080);
};

}  // namespace

TEST_F(FrameCreation, EverySizeTakesItsPathToAnI420AnalysisImageMatchingTheAreaAverage) {
  TestEngineContext engine;
  KoFrameDataCreate factory(&engine);
  struct Case { int w, h, stride; uint32_t outW, outH; double maxAbs, meanAbs; };
  // 1920x1080 (a preview frame, with focus metadata), 1280x720 and 1440x1080 take the fixed
  // reducers; 1600x900 with a padded stride and 640x480 the general ones (640x480 is not
  // reduced at all, only copied through). All but the first are video frames.
  const Case cases[] = {
      {1920, 1080, 1920, 640, 360, 1.0, 0.5}, {1280, 720, 1280, 640, 360, 1.0, 0.5},
      {1440, 1080, 1440, 640, 480, 1.0, 0.5}, {1600, 900, 1664, 640, 360, 1.0, 0.5},
      {640, 480, 640, 640, 480, 0.0, 0.0},
  };
  KO_dex_af_metadata_t af = {-5, 100, 200, 300, 400, 2};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.w << "x" << c.h);
    const bool fullHd = c.w == 1920;
    CameraFrame cam = cut(solvay, fullHd ? 0 : 40, fullHd ? 0 : 20, c.w, c.h, c.stride);
    cam.preview.afMetadata = fullHd ? &af : nullptr;
    cam.preview.streamType = fullHd ? KO_STREAM_TYPE_PREVIEW : KO_STREAM_TYPE_VIDEO;
    sp<KoFrameData> frame;
    ASSERT_EQ(factory.newFrame(&cam.preview, frame), 0);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->mWidth, c.outW);
    EXPECT_EQ(frame->mHeight, c.outH);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(frame->mDownscaledImage->data()) % 16, 0u);
    EXPECT_EQ(frame->mFaceRefWidth, fullHd ? 1920u : 0u);  // faces refer to the preview stream only
    EXPECT_EQ(frame->mAnalysisImage, frame->mDownscaledImage->data() + c.outW * ((c.outH - 360) / 2));
    expectMatchesReference(cam, frame, c.maxAbs, c.meanAbs);
    if (!fullHd) continue;
    // The fixed reducer's pass also made the 2x2 reduction of the analysis view, as the portable
    // reduction does.
    std::vector<uint8_t> small(KoFrameData::SMALL_IMAGE_BYTES);
    DexFrameMetaData::downScaleLuma2x(small.data(), frame->mAnalysisImage, 640, 320, 180);
    EXPECT_TRUE(frame->mSmallImageReady);
    EXPECT_EQ(0, memcmp(small.data(), frame->mSmallImage->data(), small.size()));
    EXPECT_EQ(frame->mZoom, 3u);
    EXPECT_EQ(frame->mAfWindow[3], 400);
  }
}

TEST_F(FrameCreation, BadInputLosesTheFrameWithoutCrashing) {
  TestEngineContext engine;
  KoFrameDataCreate factory(&engine);
  CameraFrame cam = cut(solvay, 0, 0, 640, 480, 640);
  sp<KoFrameData> frame;
  // An unknown stream or format (logged), null image, null layout, zero and tiny sizes, a stride
  // narrower than the width; layouts that would read past the frame handed over: a frame shorter
  // than its size needs, a larger size than the buffer holds, chroma placed beyond the end or
  // over the luma, one plane only.
  kovane_test::StderrCapture capture;
  using Fault = void (*)(KO_PreviewFrameData_t&, KO_cam_frame_len_offset_t&);
  const Fault faults[] = {
      [](KO_PreviewFrameData_t& p, KO_cam_frame_len_offset_t&) { p.streamType = 2; },
      [](KO_PreviewFrameData_t& p, KO_cam_frame_len_offset_t&) { p.colorFormat = 7; },
      [](KO_PreviewFrameData_t& p, KO_cam_frame_len_offset_t&) { p.data = nullptr; },
      [](KO_PreviewFrameData_t& p, KO_cam_frame_len_offset_t&) { p.planes = nullptr; },
      [](KO_PreviewFrameData_t& p, KO_cam_frame_len_offset_t&) { p.width = 0; },
      [](KO_PreviewFrameData_t& p, KO_cam_frame_len_offset_t&) { p.width = p.height = 8; },
      [](KO_PreviewFrameData_t&, KO_cam_frame_len_offset_t& t) { t.mp[0].stride = 320; },
      [](KO_PreviewFrameData_t&, KO_cam_frame_len_offset_t& t) { t.frameLen -= 1; },
      [](KO_PreviewFrameData_t& p, KO_cam_frame_len_offset_t&) { p.width = 1280, p.height = 2880; },
      [](KO_PreviewFrameData_t&, KO_cam_frame_len_offset_t& t) { t.mp[1].offset = 64; },
      [](KO_PreviewFrameData_t&, KO_cam_frame_len_offset_t& t) { t.mp[0].len = 1920 * 1000; },
      [](KO_PreviewFrameData_t&, KO_cam_frame_len_offset_t& t) { t.numPlanes = 1; },
  };
  for (size_t n = 0; n < std::size(faults); ++n) {
    KO_PreviewFrameData_t bad = cam.preview;
    KO_cam_frame_len_offset_t table = cam.planes;
    bad.planes = &table;
    faults[n](bad, table);
    EXPECT_EQ(factory.newFrame(&bad, frame), 0) << n;
    EXPECT_EQ(frame, nullptr) << n;
  }
  EXPECT_EQ(factory.newFrame(nullptr, frame), 0);
  EXPECT_EQ(frame, nullptr);
  // A size whose reduced image cannot hold the analysis view keeps the frame without a view.
  CameraFrame wide = cut(solvay, 0, 0, 1920, 960, 1920);
  EXPECT_EQ(factory.newFrame(&wide.preview, frame), 0);
  const std::string log = capture.finish();
  EXPECT_NE(log.find("Unknown: stream=2, format=2"), std::string::npos) << log;
  EXPECT_NE(log.find("Unknown: stream=1, format=7"), std::string::npos) << log;
  ASSERT_NE(frame, nullptr);
  EXPECT_EQ(frame->mAnalysisImage, nullptr);
}

TEST_F(FrameCreation, SensorSamplesAreTheNewestAndRepeatWhenNothingArrives) {
  HostSensorFeed::setSensors({ASENSOR_TYPE_ACCELEROMETER, ASENSOR_TYPE_GYROSCOPE, ASENSOR_TYPE_MAGNETIC_FIELD});
  TestEngineContext engine;
  KoFrameDataCreate factory(&engine);
  EXPECT_EQ(factory.mSensorEnabled[3], 0);  // not selected by the sensor mask
  CameraFrame cam = cut(solvay, 0, 0, 640, 480, 640);
  HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, 1000, 0.1f, 9.8f, 0.2f);
  HostSensorFeed::inject(ASENSOR_TYPE_GYROSCOPE, 1500, 0.01f, 0.02f, 0.03f);
  HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, 2000, 0.3f, 9.7f, 0.1f);
  HostSensorFeed::inject(ASENSOR_TYPE_MAGNETIC_FIELD, 2500, 30.f, 0.f, 0.f);  // not enabled
  sp<KoFrameData> first, second;
  ASSERT_EQ(factory.newFrame(&cam.preview, first), 0);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->mAccelSample.mTimestamp, 2000);  // the newest wins
  EXPECT_FLOAT_EQ(first->mAccelSample.mX, 0.3f);
  EXPECT_EQ(first->mGyroSample.mTimestamp, 1500);
  EXPECT_EQ(first->mMagneticSample.mTimestamp, 0);
  EXPECT_EQ(first->mSensorEnabled[1], 1);
  HostSensorFeed::inject(ASENSOR_TYPE_GYROSCOPE, 3000, 0.5f, 0.f, 0.f);
  ASSERT_EQ(factory.newFrame(&cam.preview, second), 0);
  EXPECT_EQ(second->mAccelSample.mTimestamp, 2000);  // repeated, time stamp included
  EXPECT_EQ(second->mGyroSample.mTimestamp, 3000);
}
