// The engine's public entry points driven by the input: each step is one call, with records that
// may be null, empty, huge, of unknown kinds, or describe planes that do not fit the frame. The
// engine must neither crash nor read outside what it was given, and once it is deleted every ZSL
// buffer it was lent must have come back exactly once, and none it was not.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include <sanitizer/asan_interface.h>  // its poisoning macros do nothing without the sanitizer

#include "FuzzTargets.h"
#include "KoEngine.h"

namespace kovane_fuzz {

namespace {

using namespace android;

constexpr int kPool = 9;
constexpr uint32_t kMaxFrameBytes = 1920 * 1088 * 3 / 2;

struct Camera {
  std::mutex lock;
  uint64_t pool[kPool] = {};
  std::set<void*> out;
  bool fault = false;

  static void onFrameDone(void* cookie, void* buffer) {
    Camera* cam = static_cast<Camera*>(cookie);
    std::lock_guard<std::mutex> l(cam->lock);
    if (cam->out.erase(buffer) != 1) {
      fprintf(stderr, "ZSL buffer %p handed back that was not out\n", buffer);
      cam->fault = true;
    }
  }
  static void onJob(void*, int) {}
  static void onStatistics(void*, int, KO_statistics_cb_t*) {}
  static void onBestShot(void* cookie, int, KO_bestShotDone_cb_t* r) {
    Camera* cam = static_cast<Camera*>(cookie);
    std::lock_guard<std::mutex> l(cam->lock);
    if (r == nullptr || (r->zslBuffer != nullptr && cam->out.count(r->zslBuffer) == 0)) {
      fprintf(stderr, "best shot names a ZSL buffer the engine does not hold\n");
      cam->fault = true;
    }
  }
};

// The camera frame of a preview call. One block for every call of the process: a fresh
// allocation of up to 3 MB per frame made the program spend most of its time faulting in pages.
// The frame is placed at the end of the block and everything of the block around it is
// poisoned under the address sanitizer, so that a read past its stated length or before its start
// is caught as with an allocation of its own. The frame starts on an 8-byte boundary (the
// sanitizer poisons the space before it exactly only up to such a boundary); the few bytes after
// it are poisoned up to the block's end. The engine reads the frame only during the call.
class FrameBlock {
 public:
  uint8_t* place(uint32_t len) {
    uint8_t* block = mBlock.get();
    ASAN_UNPOISON_MEMORY_REGION(block, kCapacity);
    const size_t start = (kCapacity - len) & ~size_t{7};
    ASAN_POISON_MEMORY_REGION(block, start);
    ASAN_POISON_MEMORY_REGION(block + start + len, kCapacity - start - len);
    return block + start;
  }

  static constexpr size_t kCapacity = kMaxFrameBytes + 8;

 private:
  std::unique_ptr<uint8_t[]> mBlock{new uint8_t[kCapacity]};
};

// A size the engine may meet: a usual one, or anything.
int32_t sizeOf(Bytes& in, int32_t usual) {
  switch (in.below(4)) {
    case 0:
      return usual;
    case 1:
      return static_cast<int32_t>(in.below(64));
    case 2:
      return in.i32();
    default:
      return static_cast<int32_t>(in.below(4096));
  }
}

void preview(KoEngine* engine, Bytes& in, uint32_t frameId) {
  static const int32_t kSizes[][2] = {{1920, 1080}, {1440, 1080}, {1280, 720}, {640, 480}};
  const auto& usual = kSizes[in.below(4)];
  KO_PreviewFrameData_t p = {};
  p.timeStamp = static_cast<int64_t>(frameId) * 33333 + (in.flag() ? in.i32() : 0);
  p.frameId = frameId;
  p.streamType = in.flag() ? static_cast<uint32_t>(KO_STREAM_TYPE_PREVIEW) : in.u32();
  p.width = sizeOf(in, usual[0]);
  p.height = sizeOf(in, usual[1]);
  p.colorFormat = in.below(8) != 0 ? static_cast<uint32_t>(KO_COLOR_FORMAT_NV21) : in.u32();
  p.zoom = in.below(3);
  p.orientation = in.i32();
  p.cafState = static_cast<int16_t>(in.u32());
  KO_dex_af_metadata_t af = {static_cast<int8_t>(in.u8()), 0, 0, 0, 0, in.u8()};
  if (in.flag()) p.afMetadata = &af;

  // The frame as the camera lays it out, or a table that does not fit it.
  const uint64_t natural = static_cast<uint64_t>(static_cast<uint32_t>(usual[0])) * usual[1] * 3 / 2;
  const uint32_t frameLen = in.flag() ? static_cast<uint32_t>(natural) : in.below(kMaxFrameBytes + 1);
  KO_cam_frame_len_offset_t planes = {};
  planes.numPlanes = in.flag() ? 2 : in.below(5);
  planes.frameLen = frameLen;  // the one size the engine cannot check
  const int32_t w = p.width, h = p.height;
  const int32_t area = static_cast<int32_t>(static_cast<int64_t>(w) * h);
  planes.mp[0] = {area, 0, w, h};
  planes.mp[1] = {area / 2, 0, w, h / 2};
  if (in.flag()) {
    KO_cam_plane_t& m = planes.mp[in.below(3)];
    m = {in.i32(), in.i32(), sizeOf(in, w), sizeOf(in, h)};
  }
  if (in.below(8) != 0) p.planes = &planes;  // without its table a frame cannot be read
  if (in.below(10) != 0) {
    static FrameBlock block;
    uint8_t* frame = block.place(frameLen == 0 ? 1 : frameLen);
    memset(frame, in.u8(), frameLen);
    p.data = frame;
  }
  engine->handlePreviewFrame(in.below(20) != 0 ? &p : nullptr);
}

void metadata(KoEngine* engine, Bytes& in, uint32_t frameId) {
  KO_cam_face_detection_data_t face = {};
  face.frameId = in.flag() ? frameId : in.u32();
  face.numFaces = in.flag() ? in.below(KO_MAX_FACES + 1) : in.u32();
  for (int k = 0; k < KO_MAX_FACES; ++k) {
    KO_cam_face_t& c = face.faces[k];
    c.id = in.i32();
    c.score = static_cast<int8_t>(in.u8());
    c.left = in.i32();
    c.top = in.i32();
    c.width = in.i32();
    c.height = in.i32();
    c.smileDegree = in.u8();
    c.leftBlink = in.u8();
    c.rightBlink = in.u8();
  }
  uint8_t raw[256];
  memset(raw, in.u8(), sizeof raw);
  KO_MetaFrameData_t meta = {};
  meta.frameId = in.flag() ? frameId : in.u32();
  meta.size = in.below(sizeof raw + 1);
  meta.data = in.below(8) != 0 ? raw : nullptr;
  meta.camMeta = {in.i32(), in.i32(), in.i32(), in.f32(), in.f32()};
  engine->handleMetadataFrame(in.below(8) != 0 ? &face : nullptr, in.below(8) != 0 ? &meta : nullptr);
}

void zsl(KoEngine* engine, Camera& cam, Bytes& in, uint32_t frameId) {
  KO_ZslFrameData_t z = {};
  z.frameId = in.flag() ? frameId : in.u32();
  if (in.below(16) == 0) {
    engine->handleZslFrame(nullptr);
    return;
  }
  if (in.below(8) != 0) {
    std::lock_guard<std::mutex> l(cam.lock);
    for (uint64_t& b : cam.pool) {
      if (cam.out.count(&b) == 0) {
        z.buffer = &b;
        cam.out.insert(&b);
        break;
      }
    }
    if (z.buffer == nullptr) return;  // all out
  }
  engine->handleZslFrame(&z);
}

void press(KoEngine* engine, Bytes& in, uint32_t frameId, int devNull) {
  uint8_t config[64] = {};
  KO_TakePicture_t pic = {};
  pic.jobId = in.i32();
  pic.frameId = in.flag() ? static_cast<int32_t>(frameId) : in.i32();
  pic.timeStamp = in.flag() ? static_cast<int64_t>(frameId) * 33333 : in.i32();
  pic.orientation = in.i32();
  static const int32_t kFds[] = {-1, -7, 1000};  // none, a bad one, one that is not open
  pic.videoFd = in.flag() ? devNull : kFds[in.below(3)];
  pic.metadataFd = in.flag() ? -1 : devNull;
  pic.configSize = in.below(sizeof config + 1);
  pic.config = in.below(8) != 0 ? config : nullptr;
  pic.bestShotEnable = in.flag();
  pic.videoEnable = in.flag();
  pic.hdrMode = in.flag();
  engine->handleTakePicture(in.below(16) != 0 ? &pic : nullptr);
}

}  // namespace

int engineCalls(const uint8_t* data, size_t size) {
  static const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
  Bytes in(data, size);
  Camera cam;
  KO_KoEngineConfig_t config = {in.flag(), in.flag(), in.flag()};
  KoEngine* engine = new KoEngine(&cam, in.below(16) != 0 ? &config : nullptr);
  engine->registerFrameDoneCallBack(&Camera::onFrameDone);
  engine->registerKoEngineDoneCallBack(&Camera::onJob);
  engine->registerVideoDoneCallBack(&Camera::onJob);
  engine->registerStatisticsCallBack(&Camera::onStatistics);
  engine->registerBestShotDoneCallBack(&Camera::onBestShot);
  uint32_t frameId = 1;
  for (int step = 0; step < 400 && !in.empty(); ++step) {
    switch (in.below(12)) {
      case 0:
      case 1:
      case 2:
        preview(engine, in, frameId);
        break;
      case 3:
      case 4:
        metadata(engine, in, frameId);
        break;
      case 5:
      case 6:
        zsl(engine, cam, in, frameId);
        break;
      case 7:
        press(engine, in, frameId, devNull);
        break;
      case 8:
        engine->handleStartPreview(sizeOf(in, 1920), sizeOf(in, 1080), in.u32(), in.flag(), in.flag(),
                                   static_cast<KO_cam_position_t>(in.below(3)));
        break;
      case 9: {
        KO_getParams_t params;
        engine->handleGetParameters(in.flag() ? &params : nullptr);
        engine->setEnableModes(static_cast<int>(in.below(3)) - 1, static_cast<int>(in.below(3)) - 1);
        break;
      }
      case 10:
        switch (in.below(4)) {
          case 0: engine->handleStartRecording(); break;
          case 1: engine->handleStopRecording(); break;
          case 2: engine->handleFlushVideo(); break;
          default: engine->handleZslChannelCb(); break;
        }
        break;
      default:
        frameId += in.flag() ? 1 : in.below(1000);  // the next frame, or a jump
        break;
    }
  }
  delete engine;
  std::lock_guard<std::mutex> l(cam.lock);
  if (!cam.out.empty()) {
    fprintf(stderr, "%zu ZSL buffers not handed back\n", cam.out.size());
    abort();
  }
  if (cam.fault) abort();
  return 0;
}

}  // namespace kovane_fuzz

KOVANE_FUZZ_ENTRY(engineCalls)
