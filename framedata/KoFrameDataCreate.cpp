#include "KoFrameDataCreate.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include <libyuv.h>
#include <log/log.h>

#include "DexFrameMetaData.h"
#include "KoEngineContext.h"
#include "KoFrameReducer.h"
#include "KoMemory.h"
#include "SensorManager.h"
#include "fastcv.h"

#undef LOG_TAG
#define LOG_TAG "KoFrameData"

namespace android {

namespace {

// Engine feature and sensor-selection bits used here.
const uint32_t kFeatureSensors = 0x10;
const uint32_t kSensorAccel = 0x1;
const uint32_t kSensorGyro = 0x2;
const uint32_t kSensorMagnetic = 0x4;
const uint32_t kSensorOrientation = 0x8;
const nsecs_t kSensorRateNs = 30000000;  // 30 ms

// Sensor types in the order of the enabled flags and samples.
const int kSensorTypes[4] = {ASENSOR_TYPE_ACCELEROMETER, ASENSOR_TYPE_GYROSCOPE,
                             ASENSOR_TYPE_ORIENTATION, ASENSOR_TYPE_MAGNETIC_FIELD};
const uint32_t kSensorBits[4] = {kSensorAccel, kSensorGyro, kSensorOrientation, kSensorMagnetic};

const char kNewFrameSignature[] =
    "android::status_t android::KoFrameDataCreate::newFrame(KO_PreviewFrameData_t*, "
    "android::sp<android::KoFrameData>&)";
const char kNewFaceSignature[] =
    "android::status_t android::KoFrameDataCreate::newFaceData(KO_cam_face_detection_data_t*, "
    "android::sp<android::KoFaceMetaData>&)";

// An image of `bytes` bytes from `recycler`, or null when memory runs out.
sp<ABuffer> takeImage(KoRecycler<KoImageBuffer>* recycler, size_t bytes) {
  sp<KoImageBuffer> image = recycler->obtain(bytes);
  if (image == nullptr || image->base() == nullptr) return nullptr;
  return image;
}

}  // namespace

KoFrameDataCreate::KoFrameDataCreate(KoEngineContext* engine)
    : mEngine(engine),
      mSensorEnabled{0, 0, 0, 0},
      mLastAccelSample(),
      mLastGyroSample(),
      mLastOrientSample(),
      mLastMagneticSample(),
      mFrameRecycler(new KoRecycler<KoFrameData>(kKeptFrames)),
      mImageRecycler(new KoRecycler<KoImageBuffer>(kKeptImages)),
      mSmallRecycler(new KoRecycler<KoImageBuffer>(kKeptImages)),
      mSobelRecycler(new KoRecycler<KoImageBuffer>(2 * kKeptImages)) {
  setup();
}

KoFrameDataCreate::~KoFrameDataCreate() {
  fcvMemFree(mScaleTemp);
  if (mSensorQueue != nullptr) {
    cleanup();
    mSensorQueue.clear();
  }
}

status_t KoFrameDataCreate::setup() {
  if (!mEngine || !(mEngine->featureMask() & kFeatureSensors)) return 0;
  SensorManager& manager = SensorManager::getInstance();
  const uint32_t selection = mEngine->sensorMask();
  Sensor const* sensors[4] = {nullptr, nullptr, nullptr, nullptr};
  for (int i = 0; i < 4; ++i) {
    if (selection & kSensorBits[i]) sensors[i] = manager.getDefaultSensor(kSensorTypes[i]);
  }
  if (mSensorQueue != nullptr) {
    cleanup();
    mSensorQueue.clear();
  }
  mSensorQueue = manager.createEventQueue();
  if (mSensorQueue == nullptr) return 0;
  for (int i = 0; i < 4; ++i) {
    if (!sensors[i]) continue;
    mSensorQueue->enableSensor(sensors[i]);
    mSensorQueue->setEventRate(sensors[i], kSensorRateNs);
    mSensorEnabled[i] = 1;
  }
  return 0;
}

status_t KoFrameDataCreate::cleanup() {
  if (mSensorQueue == nullptr) return 0;
  SensorManager& manager = SensorManager::getInstance();
  for (int i = 0; i < 4; ++i) {
    if (!mSensorEnabled[i]) continue;
    Sensor const* sensor = manager.getDefaultSensor(kSensorTypes[i]);
    if (sensor) mSensorQueue->disableSensor(sensor);
  }
  return 0;
}

status_t KoFrameDataCreate::newFrame(KO_PreviewFrameData_t* preview, sp<KoFrameData>& out) {
  if (!preview) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: failed to add history frame", kNewFrameSignature);
    return 0;
  }
  sp<KoFrameData> frame = mFrameRecycler->obtain();
  if (frame == nullptr) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: failed to add history frame", kNewFrameSignature);
    return 0;
  }
  frame->mRecycledImages = true;
  frame->mStreamType = preview->streamType;
  const bool knownStream =
      preview->streamType == KO_STREAM_TYPE_PREVIEW || preview->streamType == KO_STREAM_TYPE_VIDEO;
  if (!knownStream || preview->colorFormat != KO_COLOR_FORMAT_NV21) {
    ALOG(LOG_ERROR, LOG_TAG, "Unknown: stream=%d, format=%d", static_cast<int>(preview->streamType),
         static_cast<int>(preview->colorFormat));
    ALOG(LOG_ERROR, LOG_TAG, "%s: failed to add history frame", kNewFrameSignature);
    return 0;
  }
  frame->mTimestamp = preview->timeStamp;
  frame->mFrameId = preview->frameId;
  frame->mZoom = preview->zoom;
  frame->mCafState = preview->cafState;
  getDexCustomAFMetadata(frame, preview->afMetadata);
  frame->mOrientation = preview->orientation;
  frame->mPreviewWidth = static_cast<uint32_t>(preview->width);
  frame->mPreviewHeight = static_cast<uint32_t>(preview->height);
  if (preview->streamType == KO_STREAM_TYPE_PREVIEW) {
    frame->mFaceRefWidth = static_cast<uint32_t>(preview->width);
    frame->mFaceRefHeight = static_cast<uint32_t>(preview->height);
  }
  if (downscaleImage(preview->planes, frame, preview->data, preview->width, preview->height) != 0) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: failed to add history frame", kNewFrameSignature);
    return 0;
  }
  getSensorData(frame);
  frame->mHistogramBins = KoFrameData::HISTOGRAM_BINS;
  if (!frame->mHistogram) {
    frame->mHistogram = static_cast<uint32_t*>(malloc(KoFrameData::HISTOGRAM_BINS * sizeof(uint32_t)));
  }
  out = frame;
  return 0;
}

status_t KoFrameDataCreate::newFaceData(KO_cam_face_detection_data_t* face, sp<KoFaceMetaData>& out) {
  sp<KoFaceMetaData> faceData = new (std::nothrow) KoFaceMetaData();
  if (faceData == nullptr) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: failed to add face frame", kNewFaceSignature);
    return NO_MEMORY;
  }
  if (face) {
    faceData->mValid = 1;
    memcpy(&faceData->mFaceData.record, face, sizeof(KO_cam_face_detection_data_t));
  }
  out = faceData;
  return 0;
}

status_t KoFrameDataCreate::newZslFrame(KO_ZslFrameData_t* zsl, sp<KoMemoryBuffer>& out) {
  if (!zsl || !mEngine || !mEngine->memory()) return 0;
  sp<KoMemoryBuffer> memory;
  if (mEngine->memory()->addZslBuffer(static_cast<uint8_t*>(zsl->buffer), &memory)) out = memory;
  return 0;
}

status_t KoFrameDataCreate::getDexCustomAFMetadata(sp<KoFrameData>& frame, KO_dex_af_metadata_t* af) {
  if (!af) return 0;
  // The window is stored unaligned; copy the record out before reading it.
  KO_dex_af_metadata_t meta;
  memcpy(&meta, af, sizeof(meta));
  frame->mLensPos = static_cast<int16_t>(meta.lensPosition);
  frame->mAfRoiType = meta.roiType;
  frame->mAfNumRoi = 1;
  frame->mAfWindow[0] = meta.roiX;
  frame->mAfWindow[1] = meta.roiY;
  frame->mAfWindow[2] = meta.roiDx;
  frame->mAfWindow[3] = meta.roiDy;
  return 0;
}

status_t KoFrameDataCreate::getSensorData(sp<KoFrameData>& frame) {
  if (mSensorQueue == nullptr) return 0;
  Sensor const* const* list = nullptr;
  ssize_t count = SensorManager::getInstance().getSensorList(&list);
  size_t room = count > 0 ? static_cast<size_t>(count) : 1;
  // The read buffer is kept between frames: this runs for every preview frame.
  if (mSensorEvents.size() < room) mSensorEvents.resize(room);
  ASensorEvent* events = mSensorEvents.data();
  KoSensorSample* frameSamples[4] = {&frame->mAccelSample, &frame->mGyroSample, &frame->mOrientSample,
                                     &frame->mMagneticSample};
  KoSensorSample* lastSamples[4] = {&mLastAccelSample, &mLastGyroSample, &mLastOrientSample,
                                    &mLastMagneticSample};
  bool seen[4] = {false, false, false, false};
  for (;;) {
    ssize_t n = mSensorQueue->read(events, room);
    if (n < 1) break;
    for (ssize_t e = 0; e < n; ++e) {
      const ASensorEvent& ev = events[static_cast<size_t>(e)];
      for (int i = 0; i < 4; ++i) {
        if (ev.type != kSensorTypes[i]) continue;
        *frameSamples[i] = KoSensorSample{ev.timestamp, ev.data[0], ev.data[1], ev.data[2]};
        seen[i] = true;
      }
    }
  }
  for (int i = 0; i < 4; ++i) {
    if (seen[i]) {
      *lastSamples[i] = *frameSamples[i];
    } else {
      *frameSamples[i] = *lastSamples[i];
    }
    frame->mSensorEnabled[i] = mSensorEnabled[i];
  }
  return 0;
}

status_t KoFrameDataCreate::downscaleImage(KO_cam_frame_len_offset_t* planes, sp<KoFrameData>& frame,
                                           const uint8_t* data, int width, int height) {
  if (!planes || !data || width <= 0 || height <= 0) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: no image (data %p, planes %p, %dx%d)", "downscaleImage", data,
         static_cast<const void*>(planes), width, height);
    return BAD_VALUE;
  }
  const double pixels = static_cast<double>(width) * height;
  const double target = static_cast<double>(width) / height < 1.4 ? 307200.0 : 230400.0;
  const double s = pixels > target ? std::sqrt(pixels / target) : 1.0;
  const uint32_t outW = static_cast<uint32_t>(width / s + 15) & ~15u;
  const uint32_t outH = static_cast<uint32_t>(height / s + 7) & ~7u;
  // Reduction only: a source whose rounded size would grow (narrower than 16 or not a
  // multiple of 16 below the target) cannot be reduced.
  if (outW == 0 || outH == 0 || outW > static_cast<uint32_t>(width) || outH > static_cast<uint32_t>(height)) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: source %dx%d cannot be reduced to %ux%u", "downscaleImage", width,
         height, outW, outH);
    return BAD_VALUE;
  }
  const bool fixedSize = (width == 1280 && height == 720) || (width == 1920 && height == 1080) ||
                         (width == 1440 && height == 1080);
  const int lumaStride = fixedSize ? width : planes->mp[0].stride;
  if (lumaStride < width || planes->mp[1].stride < (width / 2) * 2) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: strides %d/%d too small for width %d", "downscaleImage",
         planes->mp[0].stride, planes->mp[1].stride, width);
    return BAD_VALUE;
  }
  // Every row read must lie inside the frame the camera handed over: the luma rows from the
  // start, the interleaved chroma rows after the luma plane and the chroma plane's offset.
  const int64_t lumaEnd = static_cast<int64_t>(height - 1) * lumaStride + width;
  const int64_t chromaStart = static_cast<int64_t>(planes->mp[0].len) + planes->mp[1].offset;
  const int64_t chromaEnd =
      chromaStart + static_cast<int64_t>(height / 2 - 1) * planes->mp[1].stride + (width / 2) * 2;
  if (planes->numPlanes < 2 || planes->mp[0].len < 0 || planes->mp[1].offset < 0 ||
      chromaStart < lumaEnd || chromaEnd > static_cast<int64_t>(planes->frameLen)) {
    ALOG(LOG_ERROR, LOG_TAG, "%s: %dx%d does not fit the frame's %u bytes as its %u planes lay it out",
         "downscaleImage", width, height, planes->frameLen, planes->numPlanes);
    return BAD_VALUE;
  }
  frame->mWidth = outW;
  frame->mHeight = outH;

  // Each kind of image comes from its own recycler: the recycled records let their images go,
  // since the preview encoder may still hold the analysis copy.
  const size_t outBytes = static_cast<size_t>(outW) * outH * 3 / 2;
  frame->mDownscaledImage = takeImage(mImageRecycler.get(), outBytes);
  if (frame->mDownscaledImage == nullptr) return NO_MEMORY;
  frame->mSmallImage = takeImage(mSmallRecycler.get(), KoFrameData::SMALL_IMAGE_BYTES);
  frame->mSobelBuffer1 = takeImage(mSobelRecycler.get(), KoFrameData::SOBEL_BUFFER_BYTES);
  frame->mSobelBuffer2 = takeImage(mSobelRecycler.get(), KoFrameData::SOBEL_BUFFER_BYTES);
  // A frame that lacks any of them is lost; what it got goes back with the record.
  if (frame->mSmallImage == nullptr || frame->mSobelBuffer1 == nullptr || frame->mSobelBuffer2 == nullptr) {
    return NO_MEMORY;
  }

  uint8_t* out = frame->mDownscaledImage->base();
  uint8_t* planeA = out + static_cast<size_t>(outW) * outH;
  uint8_t* planeB = planeA + static_cast<size_t>(outW / 2) * (outH / 2);
  const uint8_t* chroma = data + planes->mp[0].len + planes->mp[1].offset;
  const int chromaStride = planes->mp[1].stride;
  const int cw = static_cast<int>(outW / 2);
  const int ch = static_cast<int>(outH / 2);

  // The three common camera sizes are reduced in one pass that also makes the 320x180 image of
  // the analysis band (the frame is read once, from memory); they read the luma with the frame
  // width as stride. Every other size takes the general reducers with the layout's stride, and
  // its small image is made by the foreground.
  const int bandTop = static_cast<int>(outH) - static_cast<int>(KoFrameData::ANALYSIS_HEIGHT);
  if (fixedSize && outW == 2 * KoFrameData::SMALL_WIDTH && bandTop >= 0) {
    if (KoFrameReducer::reduceNv21(data, width, chroma, chromaStride, width, height, out,
                                   static_cast<int>(outW), static_cast<int>(outH),
                                   frame->mSmallImage->data(), bandTop / 2,
                                   static_cast<int>(KoFrameData::SMALL_HEIGHT)) != 0) {
      return BAD_VALUE;
    }
    frame->mSmallImageReady = true;
  } else {
    fcvScaleDownMNu8(data, width, height, planes->mp[0].stride, out, outW, outH, outW);
    // The interleaved reduction goes through a scratch block kept for the next frames.
    const size_t tempBytes = static_cast<size_t>(outW) * outH / 2;
    if (mScaleTempBytes < tempBytes) {
      fcvMemFree(mScaleTemp);
      mScaleTemp = static_cast<uint8_t*>(fcvMemAlloc(static_cast<unsigned int>(tempBytes), 16));
      mScaleTempBytes = mScaleTemp != nullptr ? tempBytes : 0;
      if (!mScaleTemp) return NO_MEMORY;
    }
    uint8_t* temp = mScaleTemp;
    fcvScaleDownMNInterleaveu8(chroma, width / 2, height / 2, chromaStride, temp, outW / 2, outH / 2, outW);
    // Source pairs are V,U: the first byte of each pair goes to plane B, the second to plane A.
    libyuv::SplitUVPlane(temp, static_cast<int>(outW), planeB, cw, planeA, cw, cw, ch);
  }

  frame->mAnalysisWidth = KoFrameData::ANALYSIS_WIDTH;
  frame->mAnalysisHeight = KoFrameData::ANALYSIS_HEIGHT;
  frame->mAnalysisImageSize = KoFrameData::ANALYSIS_IMAGE_BYTES;
  frame->mSmallWidth = KoFrameData::SMALL_WIDTH;
  frame->mSmallHeight = KoFrameData::SMALL_HEIGHT;
  // The 640x360 analysis view is the band centred vertically. A reduced image that cannot hold
  // it gets no view, so that the analysis steps skip the frame instead of reading outside it.
  if (outW >= KoFrameData::ANALYSIS_WIDTH && outH >= KoFrameData::ANALYSIS_HEIGHT) {
    frame->mAnalysisImage = out + static_cast<size_t>(outW) * ((outH - KoFrameData::ANALYSIS_HEIGHT) / 2);
  } else {
    ALOG(LOG_WARN, LOG_TAG, "%s: %ux%u holds no %ux%u analysis view", "downscaleImage", outW, outH,
         static_cast<unsigned>(KoFrameData::ANALYSIS_WIDTH), static_cast<unsigned>(KoFrameData::ANALYSIS_HEIGHT));
  }
  return 0;
}

}  // namespace android
