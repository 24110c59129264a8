// Clips of captures through the public interface: the clip the engine writes to the caller's
// descriptor holds the preview frames it was fed around the shutter, video-done comes once and
// only for a saved clip, before engine-done; captures without a clip, or whose clip fails or is
// cancelled, still finish.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "ClipProbe.h"
#include "EngineTestSupport.h"
#include "KoPreviewEncode.h"
#include "StderrCapture.h"
#include "TempFile.h"

using namespace android;
using kovane_test::SimulatedCamera;
using kovane_test::picture;
using kovane_test::waitUntil;

namespace {

using Event = SimulatedCamera::Event;
using kovane_test::TempFile;

// An engine on a simulated camera that hands frames over at the engine's pace and keeps a copy
// of every 640x360 frame the engine fed its clip encoder, by stamp.
class VideoRun {
 public:
  VideoRun() {
    KO_KoEngineConfig_t config = {true, true, true};
    cam.movingSubject = true;  // a scene worth a clip
    engine = new KoEngine(&cam, &config);
    cam.attach(engine);
    engine->handleStartPreview(1920, 1080, 0, false, true, KO_CAM_POSITION_BACK);
  }
  ~VideoRun() { delete engine; }

  // Hands frame `id` over (see handOver: frames shed on a slow build are simply missing from
  // the clips) and keeps the frame the encoder got.
  void frame(uint32_t id) {
    kovane_test::handOver(cam, engine, id);
    std::vector<uint8_t> copy(640 * 360 * 3 / 2);
    int w = 0, h = 0;
    int64_t ts = 0;
    if (engine->mPreviewEncode->copyFrame(SimulatedCamera::timestampOf(id), copy.data(), copy.size(), w, h, ts) ==
            OK &&
        ts == SimulatedCamera::timestampOf(id)) {
      fed[ts] = std::move(copy);
    }
    for (int job : {1, 2}) {
      int64_t first = -1, newest = -1;
      if (engine->mPreviewEncode->clipSpan(job, first, newest) && first >= 0) clipFirst[job] = first;
    }
  }
  // Runs the preview on until every job in `jobs` has finished (at most `limit` frames more).
  void until(const std::vector<int>& jobs, uint32_t& id, uint32_t limit = 150) {
    for (uint32_t n = 0; n < limit && cam.engineDone().size() < jobs.size(); ++n) frame(++id);
    ASSERT_TRUE(waitUntil([&] { return cam.engineDone().size() >= jobs.size(); }, 20000));
  }
  std::vector<Event::Kind> eventsOf(int job) {
    std::vector<Event::Kind> kinds;
    for (const Event& e : cam.events()) {
      if (e.jobId == job && e.kind != Event::kBestShotDone) kinds.push_back(e.kind);
    }
    return kinds;
  }

  SimulatedCamera cam;
  KoEngine* engine = nullptr;
  std::map<int64_t, std::vector<uint8_t>> fed;
  std::map<int, int64_t> clipFirst;  // stamp of each clip's first frame, seen while it was open
};

TEST(KoEngineVideo, ClipsHoldTheFedFramesAroundTheShutterAndVideoDoneComesOnceBeforeTheEnd) {
  VideoRun run;
  ASSERT_TRUE(run.cam.ready());
  TempFile a, b;
  uint32_t id = 0;
  while (id < 60) run.frame(++id);
  // Two captures three frames apart, both with clips: both are served after each frame.
  KO_TakePicture_t first = picture(1, 60, true, a.fd);
  ASSERT_EQ(run.engine->handleTakePicture(&first), 0);
  for (int n = 0; n < 3; ++n) run.frame(++id);
  KO_TakePicture_t second = picture(2, 63, true, b.fd);
  ASSERT_EQ(run.engine->handleTakePicture(&second), 0);
  run.until({1, 2}, id);

  for (int job : {1, 2}) {
    SCOPED_TRACE(job);
    EXPECT_EQ(run.eventsOf(job), (std::vector<Event::Kind>{Event::kVideoDone, Event::kEngineDone}));
    const uint32_t shutter = job == 1 ? 60 : 63;
    const kovane_test::ProbedClip clip = kovane_test::probeClip(job == 1 ? a.path : b.path);
    ASSERT_TRUE(clip.ok) << clip.error;
    EXPECT_EQ(clip.videoStreams, 1);
    EXPECT_EQ(clip.codec, "h264");
    ASSERT_EQ(clip.width, 640);
    ASSERT_EQ(clip.height, 360);
    EXPECT_GE(clip.durationUs(), 1000000);
    EXPECT_LE(clip.durationUs(), 3500000);
    // Frames at the preview's rate (a frame the engine shed leaves a gap of whole periods), each
    // the frame fed at its time; the shutter frame among them.
    for (size_t k = 1; k < clip.ptsUs.size(); ++k) {
      const int64_t d = clip.ptsUs[k] - clip.ptsUs[k - 1];
      const int64_t periods = (d + SimulatedCamera::kFrameUs / 2) / SimulatedCamera::kFrameUs;
      EXPECT_GE(periods, 1) << k;
      EXPECT_NEAR(static_cast<double>(d), static_cast<double>(periods * SimulatedCamera::kFrameUs), 2.0) << k;
    }
    ASSERT_EQ(run.clipFirst.count(job), 1u);
    const int64_t shutterTs = SimulatedCamera::timestampOf(shutter);
    bool shutterSeen = false;
    size_t compared = 0;
    for (size_t k = 0; k < clip.ptsUs.size(); ++k) {
      const int64_t ts = run.clipFirst[job] + clip.ptsUs[k];
      shutterSeen |= ts == shutterTs;
      auto it = run.fed.find(ts);
      if (it == run.fed.end()) continue;  // shed while the camera went on
      EXPECT_GE(kovane_test::planePsnr(clip.frames[k].data(), it->second.data(), 640, 360), 35.0) << k;
      ++compared;
    }
    EXPECT_GE(compared, clip.ptsUs.size() / 2);
    // (On a slow instrumented build the shutter frame itself may have been shed.)
    if (run.fed.count(shutterTs) != 0) {
      EXPECT_TRUE(shutterSeen);
    }
  }
  EXPECT_NE(fcntl(a.fd, F_GETFD), -1) << "the caller's descriptor stays open";
}

TEST(KoEngineVideo, CapturesWithoutAClipOrWithAFailedOrCancelledOneStillFinishWithoutVideoDone) {
  kovane_test::StderrCapture quiet;
  VideoRun run;
  ASSERT_TRUE(run.cam.ready());
  uint32_t id = 0;
  while (id < 60) run.frame(++id);
  const int full = open("/dev/full", O_WRONLY);
  ASSERT_GE(full, 0);
  KO_TakePicture_t noFd = picture(1, 60, true, -1);          // no descriptor
  KO_TakePicture_t notAsked = picture(2, 60, false, full);   // clip not asked for
  KO_TakePicture_t diskFull = picture(3, 60, true, full);    // every write fails
  for (KO_TakePicture_t* p : {&noFd, &notAsked, &diskFull}) ASSERT_EQ(run.engine->handleTakePicture(p), 0);
  run.until({1, 2, 3}, id);
  for (int job : {1, 2, 3}) EXPECT_EQ(run.eventsOf(job), std::vector<Event::Kind>{Event::kEngineDone}) << job;

  // The host starts recording right after the shutter: the clip ends where the preview stopped
  // reaching it, or is cancelled when that leaves less than a second; either way the job ends.
  TempFile c;
  KO_TakePicture_t recorded = picture(4, id, true, c.fd);
  ASSERT_EQ(run.engine->handleTakePicture(&recorded), 0);
  run.frame(++id);
  run.engine->handleStartRecording();
  run.until({1, 2, 3, 4}, id);
  const std::vector<Event::Kind> events = run.eventsOf(4);
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back(), Event::kEngineDone);
  if (events.size() == 2) {
    EXPECT_TRUE(kovane_test::probeClip(c.path).ok);
  }
  run.engine->handleStopRecording();

  // The next capture's clip works.
  TempFile d;
  for (int n = 0; n < 10; ++n) run.frame(++id);
  KO_TakePicture_t next = picture(5, id, true, d.fd);
  ASSERT_EQ(run.engine->handleTakePicture(&next), 0);
  run.until({1, 2, 3, 4, 5}, id);
  EXPECT_EQ(run.eventsOf(5), (std::vector<Event::Kind>{Event::kVideoDone, Event::kEngineDone}));

  // The engine destroyed while a clip is being written: no callback afterwards, every buffer
  // back, the descriptor still the caller's.
  TempFile e;
  KO_TakePicture_t last = picture(6, id, true, e.fd);
  ASSERT_EQ(run.engine->handleTakePicture(&last), 0);
  for (int n = 0; n < 60 && run.engine->mPreviewEncode->openClips() == 0; ++n) run.frame(++id);
  ASSERT_EQ(run.engine->mPreviewEncode->openClips(), 1u);
  run.frame(++id);
  const size_t before = run.cam.events().size();
  delete run.engine;
  run.engine = nullptr;
  EXPECT_EQ(run.cam.events().size(), before);
  run.cam.expectAllReturned();
  EXPECT_NE(fcntl(e.fd, F_GETFD), -1);
  close(full);
  quiet.finish();
}

}  // namespace
