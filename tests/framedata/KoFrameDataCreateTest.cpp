// Frame creation from camera inputs: the downscaled analysis image of real pictures on every
// size path, camera values, motion-sensor samples, face and ZSL records, and bad input.
#include <gtest/gtest.h>

#include <iterator>
#include <thread>

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

// A camera frame: NV21 with the given luma and chroma strides, cut from a larger NV21 picture.
struct CameraFrame {
  int width = 0, height = 0, stride = 0;
  std::vector<uint8_t> bytes;
  KO_cam_frame_len_offset_t planes = {};
  KO_PreviewFrameData_t preview = {};

  const uint8_t* luma() const { return bytes.data(); }
  const uint8_t* chroma() const { return bytes.data() + planes.mp[0].len + planes.mp[1].offset; }
};

CameraFrame cut(const std::vector<uint8_t>& src, int srcW, int srcH, int x0, int y0, int w, int h,
                int stride) {
  CameraFrame f{w, h, stride, {}, {}, {}};
  f.bytes.assign(static_cast<size_t>(stride) * h * 3 / 2, 0xEE);  // padding is never read
  const uint8_t* srcUV = src.data() + static_cast<size_t>(srcW) * srcH;
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
  p.timeStamp = 123456789;
  p.frameId = 42;
  p.streamType = KO_STREAM_TYPE_PREVIEW;
  p.width = w;
  p.height = h;
  p.data = f.bytes.data();
  p.colorFormat = KO_COLOR_FORMAT_NV21;
  p.planes = &f.planes;
  p.zoom = 3;
  p.orientation = 90;
  p.cafState = 4;
  return f;
}

// Checks the three planes of a frame's downscaled image against the area-average reference;
// plane A must be U (the second byte of each V,U pair), plane B V.
void expectMatchesReference(const CameraFrame& cam, const sp<KoFrameData>& frame, double maxAbs, double meanAbs) {
  using platform_test::areaReference;
  const int w = static_cast<int>(frame->mWidth), h = static_cast<int>(frame->mHeight);
  const int cw = cam.width / 2, ch = cam.height / 2;
  const uint8_t *out = frame->mDownscaledImage->data(), *planeA = out + w * h, *planeB = planeA + (w / 2) * (h / 2);
  auto diff = [&](const uint8_t* got, const std::vector<double>& ref, int dw, int dh) {
    return platform_test::diffTo(got, dw, 1, ref, dw, dh);
  };
  const std::vector<double> refU = areaReference(cam.chroma() + 1, cw, ch, cam.stride, 2, w / 2, h / 2);
  const std::vector<double> refV = areaReference(cam.chroma(), cw, ch, cam.stride, 2, w / 2, h / 2);
  const platform_test::Diff planes[] = {
      diff(out, areaReference(cam.luma(), cam.width, cam.height, cam.stride, 1, w, h), w, h),
      diff(planeA, refU, w / 2, h / 2), diff(planeB, refV, w / 2, h / 2)};
  for (const platform_test::Diff& d : planes) {
    EXPECT_LE(d.maxAbs, maxAbs);
    EXPECT_LE(d.meanAbs, meanAbs);
  }
  // Swapped chroma would match the other reference instead.
  EXPECT_LT(planes[1].meanAbs, diff(planeA, refV, w / 2, h / 2).meanAbs);
  EXPECT_LT(planes[2].meanAbs, diff(planeB, refU, w / 2, h / 2).meanAbs);
}

class FrameCreation : public ::testing::Test {
 protected:
  void SetUp() override {
    HostSensorFeed::reset();
    solvay = kovane_test::readNv21("solvay_1920x1080.nv21", 1920, 1080);
    ASSERT_FALSE(solvay.empty());
  }
  void TearDown() override { HostSensorFeed::reset(); }
  std::vector<uint8_t> solvay;
};

}  // namespace

TEST_F(FrameCreation, EverySizeTakesItsPathToAnI420AnalysisImageMatchingTheAreaAverage) {
  TestEngineContext engine;
  KoFrameDataCreate factory(&engine);
  struct Case {
    int w, h, stride;
    uint32_t outW, outH;
    double maxAbs, meanAbs;
  };
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
    CameraFrame cam = cut(solvay, 1920, 1080, fullHd ? 0 : 40, fullHd ? 0 : 20, c.w, c.h, c.stride);
    if (fullHd) {
      cam.preview.afMetadata = &af;
    } else {
      cam.preview.streamType = KO_STREAM_TYPE_VIDEO;
    }
    sp<KoFrameData> frame;
    ASSERT_EQ(factory.newFrame(&cam.preview, frame), 0);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->mWidth, c.outW);
    EXPECT_EQ(frame->mHeight, c.outH);
    EXPECT_EQ(frame->mDownscaledImage->size(), c.outW * c.outH * 3 / 2);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(frame->mDownscaledImage->data()) % 16, 0u);
    // Faces refer to the preview stream only.
    EXPECT_EQ(frame->mFaceRefWidth, fullHd ? 1920u : 0u);
    EXPECT_EQ(frame->mFaceRefHeight, fullHd ? 1080u : 0u);
    EXPECT_EQ(frame->mPreviewWidth, static_cast<uint32_t>(c.w));
    EXPECT_EQ(frame->mAfNumRoi, fullHd ? 1 : 0);
    EXPECT_EQ(frame->mAnalysisImage, frame->mDownscaledImage->data() + c.outW * ((c.outH - 360) / 2));
    expectMatchesReference(cam, frame, c.maxAbs, c.meanAbs);
    if (!fullHd) continue;
    EXPECT_EQ(frame->mTimestamp, 123456789);
    EXPECT_EQ(frame->mFrameId, 42u);
    EXPECT_EQ(frame->mZoom, 3u);
    EXPECT_EQ(frame->mOrientation, 90);
    EXPECT_EQ(frame->mCafState, 4);
    EXPECT_EQ(frame->mLensPos, -5);
    EXPECT_EQ(frame->mAfRoiType, 2);
    EXPECT_EQ(frame->mAfWindow[0], 100);
    EXPECT_EQ(frame->mAfWindow[3], 400);
    EXPECT_EQ(frame->mAnalysisWidth, 640u);
    EXPECT_EQ(frame->mAnalysisImageSize, 345600u);
    EXPECT_EQ(frame->mSmallImage->size(), 57600u);
    EXPECT_EQ(frame->mSobelBuffer1->size(), 115200u);
    EXPECT_EQ(frame->mSobelBuffer2->size(), 115200u);
    EXPECT_EQ(frame->mHistogramBins, 32u);
    EXPECT_NE(frame->mHistogram, nullptr);
  }
}

TEST_F(FrameCreation, BadInputLosesTheFrameWithoutCrashing) {
  TestEngineContext engine;
  KoFrameDataCreate factory(&engine);
  CameraFrame cam = cut(solvay, 1920, 1080, 0, 0, 640, 480, 640);
  sp<KoFrameData> frame;

  cam.preview.streamType = 2;
  kovane_test::StderrCapture capture;
  EXPECT_EQ(factory.newFrame(&cam.preview, frame), 0);
  cam.preview.streamType = KO_STREAM_TYPE_PREVIEW;
  cam.preview.colorFormat = 7;
  EXPECT_EQ(factory.newFrame(&cam.preview, frame), 0);
  std::string log = capture.finish();
  EXPECT_EQ(frame, nullptr);
  EXPECT_NE(log.find("Unknown: stream=2, format=2"), std::string::npos) << log;
  EXPECT_NE(log.find("Unknown: stream=1, format=7"), std::string::npos) << log;
  EXPECT_NE(log.find("KoFrameDataCreate::newFrame(KO_PreviewFrameData_t*, android::sp<android::KoFrameData>&): "
                     "failed to add history frame"),
            std::string::npos)
      << log;

  // Null image, null layout, zero and tiny sizes, a stride narrower than the width; layouts that
  // would read past the frame handed over: a frame shorter than its size needs, a larger size
  // than the buffer holds, chroma placed beyond the end or over the luma, one plane only.
  cam.preview.colorFormat = KO_COLOR_FORMAT_NV21;
  kovane_test::StderrCapture quiet;
  using Fault = void (*)(KO_PreviewFrameData_t&, KO_cam_frame_len_offset_t&);
  const Fault faults[] = {
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
  quiet.finish();
  EXPECT_EQ(frame, nullptr);

  // A size whose reduced image cannot hold the analysis view keeps the frame without a view.
  CameraFrame wide = cut(solvay, 1920, 1080, 0, 0, 1920, 960, 1920);
  kovane_test::StderrCapture warn;
  EXPECT_EQ(factory.newFrame(&wide.preview, frame), 0);
  warn.finish();
  ASSERT_NE(frame, nullptr);
  EXPECT_LT(frame->mHeight, 360u);
  EXPECT_EQ(frame->mAnalysisImage, nullptr);
}

TEST_F(FrameCreation, FacesAndZslRecordsAtMostSevenBuffersEachReturnedOnce) {
  TestEngineContext engine;
  KoFrameDataCreate factory(&engine);
  sp<KoFaceMetaData> face;
  ASSERT_EQ(factory.newFaceData(nullptr, face), 0);
  ASSERT_NE(face, nullptr);
  EXPECT_EQ(face->mValid, 0u);

  KO_cam_face_detection_data_t rec = {};
  rec.frameId = 9;
  rec.numFaces = 1;
  rec.faces[0].leftBlink = 90;
  rec.reserved = 0x5A5A;
  ASSERT_EQ(factory.newFaceData(&rec, face), 0);
  EXPECT_EQ(face->mValid, 1u);
  EXPECT_EQ(face->mFaceData.record.faces[0].leftBlink, 90);
  EXPECT_EQ(face->mFaceData.record.reserved, 0x5A5A);
  EXPECT_EQ(face->mFaceData.numBlinkedPredicted, 0);

  // At most seven ZSL buffers out; each goes back to the camera exactly once.
  std::vector<sp<KoMemoryBuffer>> held(7);
  for (uintptr_t i = 0; i < 7; ++i) {
    KO_ZslFrameData_t zsl = {kovane_test::zslAddress(i), static_cast<uint32_t>(i)};
    ASSERT_EQ(factory.newZslFrame(&zsl, held[i]), 0);
    ASSERT_NE(held[i], nullptr);
    EXPECT_EQ(held[i]->address(), kovane_test::zslAddress(i));
  }
  EXPECT_EQ(engine.memory()->count(), 7u);
  KO_ZslFrameData_t eighth = {kovane_test::zslAddress(7), 7};
  sp<KoMemoryBuffer> out = held[2];
  EXPECT_EQ(factory.newZslFrame(&eighth, out), 0);
  EXPECT_EQ(out, held[2]);  // refused: the reference stays as it was
  EXPECT_FALSE(engine.memory()->addZslBuffer(kovane_test::zslAddress(7), &out));
  EXPECT_EQ(out, held[2]);
  EXPECT_TRUE(engine.returned().empty());

  held.erase(held.begin() + 3);  // the last reference goes: the buffer is handed back
  EXPECT_EQ(engine.returned(), std::vector<void*>{kovane_test::zslAddress(3)});
  EXPECT_EQ(engine.memory()->count(), 6u);
  held.push_back(kovane_test::lendZsl(engine, 8));
  held.clear();
  out.clear();
  for (uintptr_t i : {0, 1, 2, 3, 4, 5, 6, 8}) EXPECT_EQ(engine.timesReturned(kovane_test::zslAddress(i)), 1u) << i;
  EXPECT_EQ(engine.timesReturned(kovane_test::zslAddress(7)), 0u);
  EXPECT_EQ(engine.memory()->count(), 0u);
}

TEST_F(FrameCreation, SensorSamplesAreTheNewestAndRepeatWhenNothingArrives) {
  HostSensorFeed::setSensors({ASENSOR_TYPE_ACCELEROMETER, ASENSOR_TYPE_GYROSCOPE, ASENSOR_TYPE_MAGNETIC_FIELD});
  TestEngineContext engine(0x1F, 0x3);
  KoFrameDataCreate factory(&engine);
  ASSERT_NE(factory.mSensorQueue, nullptr);
  EXPECT_EQ(factory.mSensorEnabled[0], 1);
  EXPECT_EQ(factory.mSensorEnabled[1], 1);
  EXPECT_EQ(factory.mSensorEnabled[3], 0);  // not selected by the sensor mask
  CameraFrame cam = cut(solvay, 1920, 1080, 0, 0, 640, 480, 640);

  HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, 1000, 0.1f, 9.8f, 0.2f);
  HostSensorFeed::inject(ASENSOR_TYPE_GYROSCOPE, 1500, 0.01f, 0.02f, 0.03f);
  HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, 2000, 0.3f, 9.7f, 0.1f);
  HostSensorFeed::inject(ASENSOR_TYPE_MAGNETIC_FIELD, 2500, 30.f, 0.f, 0.f);  // not enabled
  sp<KoFrameData> first;
  ASSERT_EQ(factory.newFrame(&cam.preview, first), 0);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->mAccelSample.mTimestamp, 2000);  // the newest wins
  EXPECT_FLOAT_EQ(first->mAccelSample.mX, 0.3f);
  EXPECT_EQ(first->mGyroSample.mTimestamp, 1500);
  EXPECT_FLOAT_EQ(first->mGyroSample.mZ, 0.03f);
  EXPECT_EQ(first->mMagneticSample.mTimestamp, 0);
  EXPECT_EQ(first->mSensorEnabled[0], 1);
  EXPECT_EQ(first->mSensorEnabled[1], 1);

  HostSensorFeed::inject(ASENSOR_TYPE_GYROSCOPE, 3000, 0.5f, 0.f, 0.f);
  sp<KoFrameData> second;
  ASSERT_EQ(factory.newFrame(&cam.preview, second), 0);
  EXPECT_EQ(second->mAccelSample.mTimestamp, 2000);  // repeated, time stamp included
  EXPECT_FLOAT_EQ(second->mAccelSample.mY, 9.7f);
  EXPECT_EQ(second->mGyroSample.mTimestamp, 3000);

  // Without the sensor feature bit no queue is opened and samples stay zero.
  TestEngineContext noSensors(0x0F, 0x3);
  KoFrameDataCreate plain(&noSensors);
  EXPECT_EQ(plain.mSensorQueue, nullptr);
  HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, 4000, 1.f, 1.f, 1.f);
  sp<KoFrameData> third;
  ASSERT_EQ(plain.newFrame(&cam.preview, third), 0);
  EXPECT_EQ(third->mAccelSample.mTimestamp, 0);
  EXPECT_EQ(third->mSensorEnabled[0], 0);
}

TEST_F(FrameCreation, SmallImageComesWithTheFrameAndRecordsAreReused) {
  TestEngineContext engine;
  KoFrameDataCreate* factory = new KoFrameDataCreate(&engine);
  CameraFrame cam = cut(solvay, 1920, 1080, 0, 0, 1920, 1080, 1920);
  sp<KoFrameData> first;
  ASSERT_EQ(factory->newFrame(&cam.preview, first), 0);
  ASSERT_NE(first, nullptr);
  // The pass over the camera frame also made the 2x2 reduction of the analysis view.
  std::vector<uint8_t> want(KoFrameData::SMALL_IMAGE_BYTES);
  DexFrameMetaData::downScaleLuma2x(want.data(), first->mAnalysisImage, 640, 320, 180);
  EXPECT_TRUE(first->mSmallImageReady);
  EXPECT_EQ(0, memcmp(want.data(), first->mSmallImage->data(), want.size()));
  // A size on the general path has no small image yet: the foreground makes it.
  CameraFrame vga = cut(solvay, 1920, 1080, 0, 0, 640, 480, 640);
  sp<KoFrameData> general;
  ASSERT_EQ(factory->newFrame(&vga.preview, general), 0);
  EXPECT_FALSE(general->mSmallImageReady);

  // A frame released on another thread comes back as the next frame's record, with its images
  // but nothing else of its past: values cleared, the ZSL handle it held let go.
  KoFrameData* firstRecord = first.get();
  uint8_t* firstImage = first->mDownscaledImage->base();
  sp<ABuffer> handle = new ABuffer(4);
  first->setZslBuffer(handle);
  first->mBsScore = 7.5f;
  first->setProcessedEvents(KoFrameData::EVENT_STATS | KoFrameData::EVENT_IN_HISTORY);
  std::thread([&first] { first.clear(); }).join();
  EXPECT_EQ(handle->getStrongCount(), 1);
  sp<KoFrameData> second;
  cam.preview.frameId = 43;
  ASSERT_EQ(factory->newFrame(&cam.preview, second), 0);
  EXPECT_EQ(second.get(), firstRecord);
  EXPECT_EQ(second->mDownscaledImage->base(), firstImage);
  EXPECT_EQ(second->mFrameId, 43u);
  EXPECT_EQ(second->mBsScore, 0.0f);
  EXPECT_EQ(second->processedEvents(), 0u);
  EXPECT_EQ(second->zslBuffer(), nullptr);
  EXPECT_TRUE(second->mSmallImageReady);
  EXPECT_EQ(0, memcmp(want.data(), second->mSmallImage->data(), want.size()));

  // An image still held after its record went (the preview encoder shares analysis copies) is
  // never handed to a later frame; images of another size are not handed out either.
  sp<KoFrameData> third;
  ASSERT_EQ(factory->newFrame(&cam.preview, third), 0);
  sp<ABuffer> held = third->mDownscaledImage;
  const std::vector<uint8_t> heldPixels(held->data(), held->data() + held->size());
  third.clear();
  CameraFrame moved = cut(solvay, 1920, 1080, 64, 32, 1920, 1080, 1920);
  for (int i = 0; i < 6; ++i) {
    sp<KoFrameData> f;
    ASSERT_EQ(factory->newFrame(i % 2 == 0 ? &moved.preview : &vga.preview, f), 0);
    EXPECT_NE(f->mDownscaledImage.get(), held.get());
    EXPECT_EQ(f->mDownscaledImage->capacity(), i % 2 == 0 ? 640u * 360 * 3 / 2 : 640u * 480 * 3 / 2);
  }
  EXPECT_EQ(0, memcmp(heldPixels.data(), held->data(), heldPixels.size()));
  held.clear();
  // More frames at once than the pool keeps, all released; then the factory goes while a
  // frame still lives: that frame's memory is freed with it (the leak checker would say).
  std::vector<sp<KoFrameData>> many(12);
  for (sp<KoFrameData>& f : many) ASSERT_EQ(factory->newFrame(&cam.preview, f), 0);
  many.clear();
  delete factory;
  EXPECT_EQ(second->mFrameId, 43u);
  second.clear();
}
