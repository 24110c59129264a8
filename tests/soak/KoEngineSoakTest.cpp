// Soak: a seeded random camera drives many engine lifetimes through the public interface only,
// and keeps the books of everything that comes back.
//
// Per lifetime it picks a preview size and configuration, then feeds real frames (the test
// pictures, a block moving over them so that consecutive frames differ) from its own thread,
// face and metadata records from a second thread (late, missing, duplicated, swapped), ZSL
// buffers from a third (missing, duplicated frame ids), and asks handleGetParameters from a
// fourth. Frame ids jump now and then; shutter presses come alone or back to back, with and
// without a clip or a best shot; a statistics consumer stalls now and then for longer than the
// engine's late threshold, so that frames pile up behind it. The engine is destroyed at a random
// point: mid-capture, right after a press, or in a quiet moment.
//
// It checks: every ZSL buffer comes back exactly once and only buffers that were lent; no more
// than seven are held after any call returns; each job gets its callbacks in order (best shot and
// clip before the end, at most one end) and only jobs that were pressed get any; no callback
// comes after the engine is deleted; no destruction takes longer than a bound, and a watchdog
// reports a run that stops making progress, with the seed.
//
// Environment: KOVANE_SOAK_SEED (default: from the clock), KOVANE_SOAK_FRAMES (default no
// limit), KOVANE_SOAK_SECONDS (default 20; 0: no limit), KOVANE_SOAK_FRAME_US (the camera's
// frame interval, default 1000: thirty times a real camera's pace, with bursts of frames that
// do not wait at all). `make soak` runs 10^6 frames.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "KoEngine.h"
#include "TestData.h"

using namespace android;

namespace {

constexpr int kZslPool = 12;
constexpr size_t kMaxHeld = 7;
constexpr int64_t kFrameUs = 33333;
constexpr int kDestroySeconds = 60;
constexpr int kWatchdogSeconds = 120;
// A job still open this long after its press, with frames coming all the while, was not
// waiting for its frames.
constexpr std::chrono::seconds kStuckAge(3);

int64_t envInt(const char* name, int64_t fallback) {
  const char* v = std::getenv(name);
  return v != nullptr && *v != '\0' ? std::strtoll(v, nullptr, 10) : fallback;
}

// The camera's side: its ZSL pool and the books of every callback.
class SoakCamera {
 public:
  SoakCamera() : mPool(kZslPool) {
    for (auto& b : mPool) mFree.insert(&b);
  }

  struct JobBooks {
    int statistics = 0;
    int bestShots = 0;
    int videos = 0;
    int ends = 0;
  };

  // Lends a free buffer for frame `id`; false when all are out.
  bool lend(uint32_t id, KO_ZslFrameData_t* out) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mFree.empty()) return false;
    uint64_t* b = *mFree.begin();
    mFree.erase(mFree.begin());
    mOut.insert(b);
    ++mLent;
    out->buffer = b;
    out->frameId = id;
    return true;
  }
  // After a lending call has returned: whether the buffer came back during it, and the count
  // held by the engine checked against the limit.
  bool afterLend(void* buffer) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mOut.size() > kMaxHeld) fault("more than seven ZSL buffers held: " + std::to_string(mOut.size()));
    return mOut.count(static_cast<uint64_t*>(buffer)) == 0;
  }

  void pressed(int jobId) {
    std::lock_guard<std::mutex> lock(mLock);
    mJobs[jobId];
  }

  void setAlive(bool alive) { mAlive = alive; }
  size_t held() {
    std::lock_guard<std::mutex> lock(mLock);
    return mOut.size();
  }
  std::map<int, JobBooks> takeJobs() {
    std::lock_guard<std::mutex> lock(mLock);
    std::map<int, JobBooks> jobs;
    jobs.swap(mJobs);
    return jobs;
  }
  std::vector<std::string> faults() {
    std::lock_guard<std::mutex> lock(mLock);
    return mFaults;
  }
  void fault(const std::string& what) {  // with mLock held
    if (mFaults.size() < 20) mFaults.push_back(what);
    ++mFaultCount;
  }
  int faultCount() {
    std::lock_guard<std::mutex> lock(mLock);
    return mFaultCount;
  }
  int64_t lent() {
    std::lock_guard<std::mutex> lock(mLock);
    return mLent;
  }

  std::atomic<int> statisticsStallMs{0};

  void attach(KoEngine* engine, std::mt19937& rng) {
    engine->registerFrameDoneCallBack(&SoakCamera::onFrameDone);
    engine->registerKoEngineDoneCallBack(&SoakCamera::onEngineDone);
    engine->registerStatisticsCallBack(&SoakCamera::onStatistics);
    // Now and then the camera does not care for best shots or clips.
    if (rng() % 8 != 0) engine->registerBestShotDoneCallBack(&SoakCamera::onBestShotDone);
    if (rng() % 8 != 0) engine->registerVideoDoneCallBack(&SoakCamera::onVideoDone);
  }

 private:
  static SoakCamera* self(void* cookie) { return static_cast<SoakCamera*>(cookie); }

  // A callback for a job: counted, and checked for order against the job's end.
  JobBooks* jobLocked(int jobId, const char* what) {
    if (!mAlive) fault(std::string(what) + " after the engine was deleted");
    auto it = mJobs.find(jobId);
    if (it == mJobs.end()) {
      fault(std::string(what) + " for job " + std::to_string(jobId) + " that was never pressed");
      return nullptr;
    }
    if (it->second.ends > 0) fault(std::string(what) + " after the end of job " + std::to_string(jobId));
    return &it->second;
  }

  static void onFrameDone(void* cookie, void* buffer) {
    SoakCamera* cam = self(cookie);
    std::lock_guard<std::mutex> lock(cam->mLock);
    if (!cam->mAlive) cam->fault("ZSL buffer handed back after the engine was deleted");
    uint64_t* b = static_cast<uint64_t*>(buffer);
    if (cam->mOut.erase(b) == 1) {
      cam->mFree.insert(b);
    } else if (b >= cam->mPool.data() && b < cam->mPool.data() + cam->mPool.size()) {
      cam->fault("ZSL buffer handed back twice");
    } else {
      cam->fault("foreign ZSL buffer handed back");
    }
  }
  static void onStatistics(void* cookie, int jobId, KO_statistics_cb_t* stats) {
    SoakCamera* cam = self(cookie);
    if (const int ms = cam->statisticsStallMs.exchange(0)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(ms));  // a slow consumer
    }
    std::lock_guard<std::mutex> lock(cam->mLock);
    if (JobBooks* job = cam->jobLocked(jobId, "statistics")) {
      if (stats == nullptr || stats->data == nullptr || stats->size == 0) cam->fault("empty statistics record");
      if (++job->statistics > 1) cam->fault("statistics twice for job " + std::to_string(jobId));
    }
  }
  static void onBestShotDone(void* cookie, int jobId, KO_bestShotDone_cb_t* result) {
    SoakCamera* cam = self(cookie);
    std::lock_guard<std::mutex> lock(cam->mLock);
    if (JobBooks* job = cam->jobLocked(jobId, "best shot")) {
      ++job->bestShots;
      if (result == nullptr) {
        cam->fault("best shot without a record");
      } else if (result->zslBuffer != nullptr &&
                 cam->mOut.count(static_cast<uint64_t*>(result->zslBuffer)) == 0) {
        cam->fault("best shot names a ZSL buffer the engine does not hold");
      }
    }
  }
  static void onVideoDone(void* cookie, int jobId) {
    SoakCamera* cam = self(cookie);
    std::lock_guard<std::mutex> lock(cam->mLock);
    if (JobBooks* job = cam->jobLocked(jobId, "video")) {
      if (++job->videos > 1) cam->fault("video done twice for job " + std::to_string(jobId));
    }
  }
  static void onEngineDone(void* cookie, int jobId) {
    SoakCamera* cam = self(cookie);
    std::lock_guard<std::mutex> lock(cam->mLock);
    if (JobBooks* job = cam->jobLocked(jobId, "end")) ++job->ends;
  }

  std::vector<uint64_t> mPool;
  std::mutex mLock;
  std::set<uint64_t*> mFree;
  std::set<uint64_t*> mOut;
  std::map<int, JobBooks> mJobs;
  std::vector<std::string> mFaults;
  int mFaultCount = 0;
  int64_t mLent = 0;
  std::atomic<bool> mAlive{true};
};

// A queue of frame ids from the preview thread to a feeder thread.
class IdQueue {
 public:
  void push(uint32_t id) {
    std::lock_guard<std::mutex> lock(mLock);
    mIds.push_back(id);
    mCond.notify_one();
  }
  // Swaps the two newest entries (records that overtake each other).
  void swapNewest() {
    std::lock_guard<std::mutex> lock(mLock);
    if (mIds.size() >= 2) std::swap(mIds[mIds.size() - 1], mIds[mIds.size() - 2]);
  }
  // The next id; false once closed and drained of nothing (remaining ids are dropped).
  bool pop(uint32_t* id) {
    std::unique_lock<std::mutex> lock(mLock);
    mCond.wait(lock, [this] { return mClosed || !mIds.empty(); });
    if (mClosed) return false;
    *id = mIds.front();
    mIds.pop_front();
    return true;
  }
  void close() {
    std::lock_guard<std::mutex> lock(mLock);
    mClosed = true;
    mCond.notify_all();
  }

 private:
  std::mutex mLock;
  std::condition_variable mCond;
  std::deque<uint32_t> mIds;
  bool mClosed = false;
};

// The preview pictures of one size, and a working frame that changes from frame to frame.
struct PreviewSource {
  int width = 0;
  int height = 0;
  std::vector<std::vector<uint8_t>> pictures;
  std::vector<uint8_t> frame;
  KO_cam_frame_len_offset_t planes = {};

  bool load(int w, int h, const std::vector<std::string>& names) {
    width = w;
    height = h;
    for (const std::string& n : names) {
      std::vector<uint8_t> p = kovane_test::readNv21(n, w, h);
      if (p.empty()) return false;
      pictures.push_back(std::move(p));
    }
    frame = pictures[0];
    planes.numPlanes = 2;
    planes.mp[0] = {w * h, 0, w, h};
    planes.mp[1] = {w * h / 2, 0, w, h / 2};
    planes.frameLen = static_cast<uint32_t>(frame.size());
    return true;
  }

  // Frame `id`: a picture of the set (changing every 45 frames) with a bright 96x96 block that
  // moves across it.
  KO_PreviewFrameData_t preview(uint32_t id, std::mt19937& rng) {
    const size_t picture = (id / 45) % pictures.size();
    if (id % 45 == 0 || rng() % 50 == 0) frame = pictures[picture];
    const int bx = static_cast<int>((id * 24) % static_cast<uint32_t>(width - 96));
    const int by = static_cast<int>((id * 7) % static_cast<uint32_t>(height - 96));
    for (int y = by; y < by + 96; ++y) {
      uint8_t* row = &frame[static_cast<size_t>(y) * width + bx];
      for (int x = 0; x < 96; ++x) row[x] = static_cast<uint8_t>(row[x] + 37);
    }
    KO_PreviewFrameData_t p = {};
    p.timeStamp = 1000000 + static_cast<int64_t>(id) * kFrameUs;
    p.frameId = id;
    p.streamType = rng() % 20 == 0 ? KO_STREAM_TYPE_VIDEO : KO_STREAM_TYPE_PREVIEW;
    p.width = width;
    p.height = height;
    p.data = frame.data();
    p.colorFormat = KO_COLOR_FORMAT_NV21;
    p.planes = &planes;
    p.zoom = rng() % 200 == 0 ? 2 : 1;
    p.orientation = 0;
    return p;
  }
};

struct Totals {
  int64_t frames = 0;
  int lifetimes = 0;
  int presses = 0;
  int finished = 0;
  int abandoned = 0;
  int stuck = 0;
  int bestShots = 0;
  int clips = 0;
  int stalls = 0;
  int destroyedMidCapture = 0;
  int destroyedAfterPress = 0;
  int64_t refusedAtOnce = 0;
  int64_t paramsCalls = 0;
  double slowestDestroyS = 0;
};

class Soak {
 public:
  Soak(uint32_t seed, int64_t maxFrames, int64_t maxSeconds, int64_t frameUs)
      : mSeed(seed), mRng(seed), mMaxFrames(maxFrames), mMaxSeconds(maxSeconds), mFrameUs(frameUs) {}

  bool loadPictures() {
    return m720.load(1280, 720,
                     {"cockatoo_f005_1280x720.nv21", "cockatoo_f100_1280x720.nv21",
                      "cockatoo_f155_1280x720.nv21"}) &&
           m1080.load(1920, 1080, {"solvay_1920x1080.nv21"});
  }

  void run() {
    mDevNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    ASSERT_GE(mDevNull, 0);
    const auto start = std::chrono::steady_clock::now();
    std::thread watchdog([this] { watch(); });
    while ((mMaxFrames <= 0 || mTotals.frames < mMaxFrames) &&
           (mMaxSeconds <= 0 || std::chrono::steady_clock::now() - start < std::chrono::seconds(mMaxSeconds)) &&
           mCam.faultCount() == 0) {
      lifetime();
    }
    {
      std::lock_guard<std::mutex> lock(mWatchLock);
      mDone = true;
    }
    mWatchCond.notify_all();
    watchdog.join();
    close(mDevNull);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    printf("soak seed %u: %lld frames in %.1f s, %d lifetimes, %d presses (%d finished, %d "
           "abandoned by destruction, %d of them pressed over 3 s before it; %d best shots, %d clips saved), %d consumer stalls, %lld "
           "ZSL buffers lent (%lld handed back at once), %lld parameter reads, destroyed %d times "
           "mid-capture and %d right after a press, slowest destruction %.3f s, %d faults\n",
           mSeed, static_cast<long long>(mTotals.frames), seconds, mTotals.lifetimes,
           mTotals.presses, mTotals.finished, mTotals.abandoned, mTotals.stuck, mTotals.bestShots, mTotals.clips,
           mTotals.stalls, static_cast<long long>(mCam.lent()),
           static_cast<long long>(mTotals.refusedAtOnce), static_cast<long long>(mTotals.paramsCalls),
           mTotals.destroyedMidCapture, mTotals.destroyedAfterPress, mTotals.slowestDestroyS,
           mCam.faultCount());
    fflush(stdout);
    const std::vector<std::string> faults = mCam.faults();
    for (const std::string& f : faults) ADD_FAILURE() << "seed " << mSeed << ": " << f;
  }

 private:
  uint32_t pick(uint32_t n) { return mRng() % n; }
  bool chance(double p) { return std::uniform_real_distribution<double>(0, 1)(mRng) < p; }

  void lifetime() {
    PreviewSource& src = pick(3) == 0 ? m1080 : m720;
    KO_KoEngineConfig_t config = {pick(6) != 0, pick(3) != 0, pick(2) != 0};
    mCam.setAlive(true);
    KoEngine* engine = new KoEngine(&mCam, &config);
    mCam.attach(engine, mRng);
    engine->handleStartPreview(src.width, src.height, 0, pick(2) != 0, pick(4) != 0,
                               pick(4) == 0 ? KO_CAM_POSITION_FRONT : KO_CAM_POSITION_BACK);
    ++mTotals.lifetimes;

    IdQueue metaQueue, zslQueue;
    std::atomic<bool> stop{false};
    std::atomic<int64_t> refused{0}, params{0};
    const uint32_t feederSeed = static_cast<uint32_t>(mRng());
    std::thread meta([&] { feedMetadata(engine, metaQueue, feederSeed); });
    std::thread zsl([&] { feedZsl(engine, zslQueue, feederSeed + 1, refused); });
    std::thread reader([&] {
      while (!stop) {
        KO_getParams_t p;
        engine->handleGetParameters(&p);
        ++params;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // a settings screen polling
      }
    });

    const int frames = 30 + static_cast<int>(pick(1500));
    const int lag = static_cast<int>(pick(4));
    bool justPressed = false;
    int burst = 0;  // frames still to come without waiting for the clock
    auto next = std::chrono::steady_clock::now();
    for (int k = 0; k < frames; ++k) {
      if (chance(0.01)) mId += 2 + pick(40);  // ids jump
      const uint32_t id = mId++;
      KO_PreviewFrameData_t p = src.preview(id, mRng);
      engine->handlePreviewFrame(&p);
      if (chance(0.98)) metaQueue.push(id > static_cast<uint32_t>(lag) ? id - lag : id);
      if (chance(0.03)) metaQueue.push(id);  // a duplicate
      if (chance(0.03)) metaQueue.swapNewest();
      if (chance(0.95)) zslQueue.push(id);
      if (chance(0.02)) zslQueue.push(id);  // a second buffer for the same frame
      justPressed = false;
      if (chance(0.02)) {
        press(engine, id);
        if (chance(0.3)) press(engine, id + (chance(0.5) ? 0 : 1));  // back to back
        justPressed = true;
      }
      if (chance(0.002)) {
        mCam.statisticsStallMs = 700;  // the next statistics callback stalls the foreground
        ++mTotals.stalls;
      }
      if (chance(0.001)) engine->handleStartRecording();
      if (chance(0.001)) engine->handleStopRecording();
      if (chance(0.0005)) engine->setEnableModes(static_cast<int>(pick(3)) - 1, static_cast<int>(pick(3)) - 1);
      ++mTotals.frames;
      mProgress.fetch_add(1);
      // The camera's frame clock, many times faster than a real one (bursts excepted).
      if (!burst) std::this_thread::sleep_until(next);
      next += std::chrono::microseconds(mFrameUs);
      if (burst > 0) --burst;
      if (chance(0.002)) burst = 30 + static_cast<int>(pick(100));
      if (justPressed && chance(0.05)) break;  // destroyed right after a press
    }

    // The camera stops calling before it deletes the engine.
    metaQueue.close();
    zslQueue.close();
    stop = true;
    meta.join();
    zsl.join();
    reader.join();
    mTotals.refusedAtOnce += refused.load();
    mTotals.paramsCalls += params.load();

    // Destruction on another thread, within a bound.
    const auto t0 = std::chrono::steady_clock::now();
    auto done = std::async(std::launch::async, [engine] { delete engine; });
    if (done.wait_for(std::chrono::seconds(kDestroySeconds)) != std::future_status::ready) {
      fprintf(stderr, "soak seed %u: engine destruction did not end within %d s (lifetime %d)\n",
              mSeed, kDestroySeconds, mTotals.lifetimes);
      fflush(stderr);
      std::abort();
    }
    mTotals.slowestDestroyS = std::max(
        mTotals.slowestDestroyS,
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    mCam.setAlive(false);

    const size_t held = mCam.held();
    std::map<int, SoakCamera::JobBooks> jobs = mCam.takeJobs();
    bool midCapture = false;
    for (const auto& j : jobs) {
      if (j.second.ends == 1) {
        ++mTotals.finished;
      } else {
        ++mTotals.abandoned;
        midCapture = true;
        // Pressed long before the end and still not finished although frames kept coming.
        if (t0 - mPressedAt[j.first] > kStuckAge) ++mTotals.stuck;
      }
      if (j.second.ends > 1) ADD_FAILURE() << "seed " << mSeed << ": job " << j.first << " ended " << j.second.ends << " times";
      mTotals.bestShots += j.second.bestShots;
      mTotals.clips += j.second.videos;
    }
    mPressedAt.clear();
    if (midCapture) ++mTotals.destroyedMidCapture;
    if (justPressed) ++mTotals.destroyedAfterPress;
    if (held != 0) {
      ADD_FAILURE() << "seed " << mSeed << ": " << held << " ZSL buffers not handed back after lifetime "
                    << mTotals.lifetimes;
      mMaxFrames = mTotals.frames;  // stop here: the pool is short
    }
  }

  void press(KoEngine* engine, uint32_t frameId) {
    static uint8_t config[24] = {7, 7, 7};
    KO_TakePicture_t pic = {};
    pic.jobId = ++mJobId;
    pic.frameId = static_cast<int32_t>(frameId);
    pic.timeStamp = 1000000 + static_cast<int64_t>(frameId) * kFrameUs;
    pic.orientation = 90 * static_cast<int32_t>(pick(4));
    pic.videoFd = chance(0.3) ? mDevNull : -1;
    pic.metadataFd = -1;
    pic.config = config;
    pic.configSize = sizeof(config);
    pic.bestShotEnable = chance(0.85);
    pic.videoEnable = chance(0.5);
    pic.hdrMode = chance(0.1);
    mCam.pressed(pic.jobId);  // before the call: its callbacks may come at once
    mPressedAt[pic.jobId] = std::chrono::steady_clock::now();
    engine->handleTakePicture(&pic);
    ++mTotals.presses;
  }

  // Face and metadata records, as the queue gives them, some dropped, some twice.
  void feedMetadata(KoEngine* engine, IdQueue& queue, uint32_t seed) {
    std::mt19937 rng(seed);
    uint8_t raw[48] = {1, 2, 3};
    uint32_t id;
    while (queue.pop(&id)) {
      if (rng() % 40 == 0) continue;  // missing
      KO_cam_face_detection_data_t face = {};
      face.frameId = rng() % 10 == 0 ? 0 : id;  // sometimes no face record
      face.numFaces = rng() % 3;
      for (uint32_t f = 0; f < face.numFaces; ++f) {
        KO_cam_face_t& c = face.faces[f];
        c.id = static_cast<int32_t>(f + 1);
        c.score = 90;
        c.left = 300 + 400 * static_cast<int32_t>(f);
        c.top = 200;
        c.width = c.height = 160;
        c.smileDegree = static_cast<uint8_t>(rng() % 100);
        const bool blink = rng() % 12 == 0;
        c.blinkDetected = blink;
        c.leftBlink = c.rightBlink = static_cast<uint8_t>(blink ? 90 : rng() % 20);
      }
      KO_MetaFrameData_t meta = {};
      meta.frameId = id;
      meta.data = raw;
      meta.size = sizeof(raw);
      meta.camMeta = {static_cast<int32_t>(rng() % 400), 1, 2, 3.5f, 0.02f};
      engine->handleMetadataFrame(&face, rng() % 30 == 0 ? nullptr : &meta);
    }
  }

  // ZSL buffers for the frames the queue gives, while the pool has any.
  void feedZsl(KoEngine* engine, IdQueue& queue, uint32_t seed, std::atomic<int64_t>& refused) {
    std::mt19937 rng(seed);
    uint32_t id;
    while (queue.pop(&id)) {
      if (rng() % 25 == 0) continue;  // missing
      KO_ZslFrameData_t z;
      if (!mCam.lend(id, &z)) continue;
      engine->handleZslFrame(&z);
      if (mCam.afterLend(z.buffer)) ++refused;
    }
  }

  // Reports a run that stops making progress, with its seed.
  void watch() {
    std::unique_lock<std::mutex> lock(mWatchLock);
    int64_t last = -1;
    auto lastChange = std::chrono::steady_clock::now();
    while (!mDone) {
      mWatchCond.wait_for(lock, std::chrono::milliseconds(500));
      const int64_t now = mProgress.load();
      if (now != last) {
        last = now;
        lastChange = std::chrono::steady_clock::now();
      } else if (std::chrono::steady_clock::now() - lastChange > std::chrono::seconds(kWatchdogSeconds)) {
        fprintf(stderr, "soak seed %u: no progress for %d s (after frame %lld): a hang\n", mSeed,
                kWatchdogSeconds, static_cast<long long>(now));
        fflush(stderr);
        std::abort();
      }
    }
  }

  const uint32_t mSeed;
  std::mt19937 mRng;
  int64_t mMaxFrames;
  const int64_t mMaxSeconds;
  const int64_t mFrameUs;
  SoakCamera mCam;
  PreviewSource m720, m1080;
  Totals mTotals;
  uint32_t mId = 1;
  int mJobId = 0;
  std::map<int, std::chrono::steady_clock::time_point> mPressedAt;  // job id -> time of its press
  int mDevNull = -1;
  std::atomic<int64_t> mProgress{0};
  std::mutex mWatchLock;
  std::condition_variable mWatchCond;
  bool mDone = false;
};

}  // namespace

TEST(KoEngineSoak, RandomCameraManyLifetimes) {
  const uint32_t seed = static_cast<uint32_t>(envInt(
      "KOVANE_SOAK_SEED", std::chrono::steady_clock::now().time_since_epoch().count() & 0x7fffffff));
  Soak soak(seed, envInt("KOVANE_SOAK_FRAMES", 0), envInt("KOVANE_SOAK_SECONDS", 20),
            envInt("KOVANE_SOAK_FRAME_US", 1000));
  ASSERT_TRUE(soak.loadPictures());
  soak.run();
}
