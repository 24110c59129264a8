#include "CameraSimulator.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "HostSensorFeed.h"
#include "KoEngine.h"
#include "KoEngineTypes.h"
#include "Sensor.h"

namespace kovane_replay {

using namespace android;

namespace {

// The camera reports a fixed lens position while focused: the replay has no focus motor.
constexpr int8_t kLensPosition = 50;
constexpr int16_t kCafFocused = 1;
// AE and AWB report converged on every frame.
constexpr int32_t kAeConverged = 2;
constexpr int32_t kAwbConverged = 2;
// Earth's gravity on the accelerometer of an upright phone, m/s^2.
constexpr float kGravity = 9.81f;
constexpr size_t kRecentFrames = 4;     // frames whose picture the camera still has
constexpr int64_t kTimeBaseUs = 1000000;  // the camera clock starts 1 s before the clip

double meanLuma(const Nv21Image& image) {
  // Every 4th pixel of every 4th row is plenty for a light level.
  double sum = 0.0;
  int n = 0;
  for (int y = 0; y < image.height; y += 4) {
    const uint8_t* row = image.y() + static_cast<size_t>(y) * image.width;
    for (int x = 0; x < image.width; x += 4, ++n) sum += row[x];
  }
  return n ? sum / n : 0.0;
}

uint8_t clampDegree(int v) { return static_cast<uint8_t>(std::min(100, std::max(0, v))); }

}  // namespace

CameraSimulator::CameraSimulator(const Options& options) : mOptions(options) {
  for (int i = 0; i < std::max(1, options.zslBuffers); ++i) {
    mPool.emplace_back(new Slot());
    mPool.back()->image.allocate(options.width, options.height);
  }
  mRawMeta.assign(32, 0);
}

CameraSimulator::~CameraSimulator() { stop(); }

bool CameraSimulator::start(std::string* error) {
  if (mEngine) return true;
  if (mOptions.width <= 0 || mOptions.height <= 0) {
    if (error) *error = "no preview size";
    return false;
  }
  // The "device" has an accelerometer and a gyroscope; the replay injects their events.
  HostSensorFeed::reset();
  HostSensorFeed::setSensors({ASENSOR_TYPE_ACCELEROMETER, ASENSOR_TYPE_GYROSCOPE});
  // Clips are allowed by the configuration (which also turns on the per-frame motion scores);
  // a capture asks for one when it is given a descriptor.
  KO_KoEngineConfig_t config = {mOptions.bestShot, /*videoEnable*/ true, /*auxEnable*/ true};
  mEngine = new KoEngine(this, &config);
  mEngine->registerFrameDoneCallBack(&CameraSimulator::onFrameDone);
  mEngine->registerStatisticsCallBack(&CameraSimulator::onStatistics);
  mEngine->registerBestShotDoneCallBack(&CameraSimulator::onBestShotDone);
  mEngine->registerKoEngineDoneCallBack(&CameraSimulator::onEngineDone);
  mEngine->registerVideoDoneCallBack(&CameraSimulator::onVideoDone);
  mEngine->handleStartPreview(mOptions.width, mOptions.height, 0, /*previewHist*/ true,
                              /*replaceEnable*/ true,
                              mOptions.frontCamera ? KO_CAM_POSITION_FRONT : KO_CAM_POSITION_BACK);
  return true;
}

int CameraSimulator::feedFrame(const Nv21Image& image, uint32_t frameId, int64_t timestampUs,
                               const std::vector<FaceRecord>& faces,
                               const std::vector<GyroSample>& gyro) {
  if (!mEngine) return -1;
  const int64_t cameraUs = kTimeBaseUs + timestampUs;
  for (const GyroSample& g : gyro) {
    HostSensorFeed::inject(ASENSOR_TYPE_GYROSCOPE, (kTimeBaseUs + g.timestampUs) * 1000, g.x, g.y, g.z);
  }
  HostSensorFeed::inject(ASENSOR_TYPE_ACCELEROMETER, cameraUs * 1000, 0.0f, kGravity, 0.0f);

  KO_cam_frame_len_offset_t planes = {};
  planes.numPlanes = 2;
  planes.mp[0] = {image.width * image.height, 0, image.width, image.height};
  planes.mp[1] = {image.width * image.height / 2, 0, image.width, image.height / 2};
  planes.frameLen = static_cast<uint32_t>(image.data.size());
  KO_dex_af_metadata_t af = {};
  af.lensPosition = kLensPosition;
  KO_PreviewFrameData_t preview = {};
  preview.timeStamp = cameraUs;
  preview.frameId = frameId;
  preview.streamType = KO_STREAM_TYPE_PREVIEW;
  preview.width = image.width;
  preview.height = image.height;
  preview.data = const_cast<uint8_t*>(image.y());
  preview.colorFormat = KO_COLOR_FORMAT_NV21;
  preview.planes = &planes;
  preview.orientation = 0;
  preview.cafState = kCafFocused;
  preview.afMetadata = &af;
  const int rc = mEngine->handlePreviewFrame(&preview);

  PendingMeta meta;
  meta.frameId = frameId;
  meta.timestampUs = timestampUs;
  meta.meanLuma = meanLuma(image);
  meta.faces = faces;
  mPendingMeta.push_back(std::move(meta));
  while (static_cast<int>(mPendingMeta.size()) > mOptions.metadataLagFrames) {
    sendMetadata(mPendingMeta.front());
    mPendingMeta.pop_front();
  }
  lendZsl(image, frameId);
  mRecent.emplace_back(frameId, image);
  if (mRecent.size() > kRecentFrames) mRecent.pop_front();
  return rc;
}

void CameraSimulator::flushMetadata() {
  while (!mPendingMeta.empty()) {
    if (mEngine) sendMetadata(mPendingMeta.front());
    mPendingMeta.pop_front();
  }
}

void CameraSimulator::sendMetadata(const PendingMeta& m) {
  // Light level from the frame's luma: a phone's lux index grows as the scene darkens.
  Ko_CameraMetaData_t cam = {};
  cam.luxLevel = static_cast<int32_t>(std::lround(m.meanLuma * 4.0));
  cam.aecState = kAeConverged;
  cam.awbState = kAwbConverged;
  cam.luxIdx = static_cast<float>(500.0 - 1.5 * m.meanLuma);
  cam.expTime = static_cast<float>(mOptions.frameIntervalS);
  memcpy(mRawMeta.data(), &m.frameId, sizeof(m.frameId));
  memcpy(mRawMeta.data() + 4, &cam, sizeof(cam));
  KO_MetaFrameData_t meta = {};
  meta.frameId = m.frameId;
  meta.data = mRawMeta.data();
  meta.size = static_cast<uint32_t>(mRawMeta.size());
  meta.camMeta = cam;

  KO_cam_face_detection_data_t record = {};
  record.frameId = m.frameId;
  record.numFaces = static_cast<uint32_t>(std::min<size_t>(m.faces.size(), KO_MAX_FACES));
  for (uint32_t i = 0; i < record.numFaces; ++i) {
    const FaceRecord& f = m.faces[i];
    KO_cam_face_t& o = record.faces[i];
    o.id = f.id;
    o.score = static_cast<int8_t>(std::min(100, std::max(0, f.score)));
    o.left = f.left;
    o.top = f.top;
    o.width = f.width;
    o.height = f.height;
    o.leftEyeX = f.leftEyeX;
    o.leftEyeY = f.leftEyeY;
    o.rightEyeX = f.rightEyeX;
    o.rightEyeY = f.rightEyeY;
    o.mouthX = f.mouthX;
    o.mouthY = f.mouthY;
    o.smileDegree = clampDegree(f.smile);
    o.smileConfidence = 80;
    o.leftBlink = clampDegree(f.leftBlink);
    o.rightBlink = clampDegree(f.rightBlink);
    o.blinkDetected = f.blinkDegree() >= 50 ? 1 : 0;
  }
  mEngine->handleMetadataFrame(&record, &meta);
}

void CameraSimulator::lendZsl(const Nv21Image& image, uint32_t frameId) {
  Slot* slot = nullptr;
  {
    std::lock_guard<std::mutex> lock(mLock);
    for (auto& s : mPool) {
      if (!s->out) {
        slot = s.get();
        break;
      }
    }
    if (!slot) {
      mBooks.skipped++;
      return;
    }
    slot->out = true;
    slot->frameId = frameId;
    mBooks.lent++;
    mLending = slot;
    mLendReturned = false;
  }
  memcpy(slot->image.data.data(), image.data.data(), std::min(slot->image.data.size(), image.data.size()));
  KO_ZslFrameData_t zsl = {};
  zsl.buffer = slot;
  zsl.frameId = frameId;
  mEngine->handleZslFrame(&zsl);
  std::lock_guard<std::mutex> lock(mLock);
  if (mLendReturned) mBooks.returnedAtOnce++;
  mLending = nullptr;
}

int CameraSimulator::takePicture(uint32_t frameId, int64_t timestampUs, int videoFd) {
  Job job;
  job.videoFd = videoFd;
  {
    std::lock_guard<std::mutex> lock(mLock);
    job.jobId = mNextJobId++;
  }
  job.shutterFrameId = frameId;
  // The camera's picture of the shutter frame is its full-size frame; the camera keeps it for
  // the capture whatever the engine does with the ZSL buffer.
  for (const auto& recent : mRecent) {
    if (recent.first == frameId) job.captured = recent.second;
  }
  job.pressedAt = std::chrono::steady_clock::now();
  {
    std::lock_guard<std::mutex> lock(mLock);
    mJobs.push_back(job);
  }
  if (!mEngine) return job.jobId;
  KO_TakePicture_t pic = {};
  pic.jobId = job.jobId;
  pic.frameId = static_cast<int32_t>(frameId);
  pic.timeStamp = kTimeBaseUs + timestampUs;
  pic.orientation = 0;
  pic.videoFd = videoFd;
  pic.metadataFd = -1;
  pic.config = nullptr;
  pic.configSize = 0;
  pic.bestShotEnable = mOptions.bestShot;
  pic.videoEnable = videoFd >= 0;
  pic.hdrMode = false;
  pic.exifTs.sec = static_cast<int32_t>(timestampUs / 1000000);
  pic.exifTs.nsec = static_cast<int32_t>((timestampUs % 1000000) * 1000);
  mEngine->handleTakePicture(&pic);
  return job.jobId;
}

bool CameraSimulator::waitForJobs(int timeoutMs) {
  std::unique_lock<std::mutex> lock(mLock);
  return mChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] {
    for (const Job& j : mJobs) {
      if (!j.engineDone) return false;
    }
    return true;
  });
}

bool CameraSimulator::waitForStatistics(int timeoutMs) {
  std::unique_lock<std::mutex> lock(mLock);
  return mChanged.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] {
    for (const Job& j : mJobs) {
      if (!j.statistics) return false;
    }
    return true;
  });
}

void CameraSimulator::stop() {
  if (!mEngine) return;
  flushMetadata();
  delete mEngine;
  mEngine = nullptr;
  HostSensorFeed::reset();
}

std::vector<CameraSimulator::Job> CameraSimulator::jobs() {
  std::lock_guard<std::mutex> lock(mLock);
  return mJobs;
}

CameraSimulator::Books CameraSimulator::books() {
  std::lock_guard<std::mutex> lock(mLock);
  Books b = mBooks;
  b.notReturned = 0;
  for (auto& s : mPool) b.notReturned += s->out ? 1 : 0;
  return b;
}

CameraSimulator::Job* CameraSimulator::findJob(int jobId) {
  for (Job& j : mJobs) {
    if (j.jobId == jobId) return &j;
  }
  return nullptr;
}

void CameraSimulator::onFrameDone(void* cookie, void* buffer) {
  CameraSimulator* cam = self(cookie);
  std::lock_guard<std::mutex> lock(cam->mLock);
  Slot* slot = nullptr;
  for (auto& s : cam->mPool) {
    if (s.get() == buffer) slot = s.get();
  }
  if (!slot) {
    cam->mBooks.unknownReturns++;
  } else if (!slot->out) {
    cam->mBooks.doubleReturns++;
  } else {
    slot->out = false;
    cam->mBooks.returned++;
    if (slot == cam->mLending) cam->mLendReturned = true;
  }
  cam->mChanged.notify_all();
}

void CameraSimulator::onStatistics(void* cookie, int jobId, KO_statistics_cb_t* stats) {
  CameraSimulator* cam = self(cookie);
  std::lock_guard<std::mutex> lock(cam->mLock);
  Job* job = cam->findJob(jobId);
  if (!job || !stats) return;
  job->statistics = true;
  if (stats->data && stats->size) {
    const uint8_t* p = static_cast<const uint8_t*>(stats->data);
    job->statisticsRecord.assign(p, p + stats->size);
  }
  cam->mChanged.notify_all();
}

void CameraSimulator::onBestShotDone(void* cookie, int jobId, KO_bestShotDone_cb_t* result) {
  CameraSimulator* cam = self(cookie);
  std::lock_guard<std::mutex> lock(cam->mLock);
  Job* job = cam->findJob(jobId);
  if (!job || !result) return;
  // A capture can get two results: the replace result first, then the main one. The camera
  // keeps the first result that asks to replace the picture; a later one does not undo it.
  if (job->bestShotDone && job->replace) return;
  job->bestShotDone = true;
  job->decisionMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() -
                                                              job->pressedAt).count();
  job->chosenFrameId = result->frameId;
  job->replace = result->replace;
  job->algBitField = result->algBitField;
  job->captureOffsetUs = result->captureOffsetUs;
  if (result->exifData && result->exifSize) {
    const uint8_t* p = static_cast<const uint8_t*>(result->exifData);
    job->bestShotRecord.assign(p, p + result->exifSize);
  }
  for (auto& s : cam->mPool) {
    if (s.get() == result->zslBuffer && s->out) job->chosen = s->image;
  }
  cam->mChanged.notify_all();
}

void CameraSimulator::onEngineDone(void* cookie, int jobId) {
  CameraSimulator* cam = self(cookie);
  std::lock_guard<std::mutex> lock(cam->mLock);
  Job* job = cam->findJob(jobId);
  if (job) job->engineDone = true;
  cam->mChanged.notify_all();
}

void CameraSimulator::onVideoDone(void* cookie, int jobId) {
  CameraSimulator* cam = self(cookie);
  std::lock_guard<std::mutex> lock(cam->mLock);
  Job* job = cam->findJob(jobId);
  if (job) job->videoDone = true;
  cam->mChanged.notify_all();
}

}  // namespace kovane_replay
