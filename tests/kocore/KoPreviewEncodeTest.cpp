// The preview encoder's rolling frame buffer and its completion plumbing, on 640x360 planar
// frames derived from the real cockatoo frames.
#include <gtest/gtest.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>
#include <utils/Vector.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "KoPreviewEncode.h"
#include "StderrCapture.h"
#include "TestData.h"
#include "TestWait.h"

namespace android {
namespace {

constexpr int kW = 640;
constexpr int kH = 360;
constexpr size_t kBytes = static_cast<size_t>(kW) * kH * 3 / 2;
constexpr int64_t kBaseUs = 1000000000;  // an arbitrary monotonic-clock stamp

// A planar 4:2:0 frame, rows packed.
struct Frame {
  int w = 0;
  int h = 0;
  std::vector<uint8_t> px;
  uint8_t* data() { return px.data(); }
};

// Halves a 1280x720 NV21 frame into a 640x360 planar frame (2x2 means; chroma de-interleaved).
Frame planarFromNv21(const std::string& name) {
  const int fw = 1280, fh = 720;
  const std::vector<uint8_t> src = kovane_test::readNv21(name, fw, fh);
  Frame f;
  if (src.empty()) return f;
  f.w = fw / 2;
  f.h = fh / 2;
  f.px.resize(static_cast<size_t>(f.w) * f.h * 3 / 2);
  for (int y = 0; y < f.h; ++y) {
    for (int x = 0; x < f.w; ++x) {
      const uint8_t* p = &src[static_cast<size_t>(2 * y) * fw + 2 * x];
      f.px[static_cast<size_t>(y) * f.w + x] = static_cast<uint8_t>((p[0] + p[1] + p[fw] + p[fw + 1] + 2) / 4);
    }
  }
  // NV21 chroma of 640x360 V,U pairs reduced to 320x180 U and V planes.
  const uint8_t* vu = src.data() + static_cast<size_t>(fw) * fh;
  const int cw = f.w / 2, ch = f.h / 2;
  uint8_t* u = f.px.data() + static_cast<size_t>(f.w) * f.h;
  uint8_t* v = u + static_cast<size_t>(cw) * ch;
  for (int y = 0; y < ch; ++y) {
    for (int x = 0; x < cw; ++x) {
      const uint8_t* r0 = vu + static_cast<size_t>(2 * y) * fw + 4 * x;
      const uint8_t* r1 = r0 + fw;
      v[static_cast<size_t>(y) * cw + x] = static_cast<uint8_t>((r0[0] + r0[2] + r1[0] + r1[2] + 2) / 4);
      u[static_cast<size_t>(y) * cw + x] = static_cast<uint8_t>((r0[1] + r0[3] + r1[1] + r1[3] + 2) / 4);
    }
  }
  return f;
}

// The four real frames, loaded once.
const std::vector<Frame>& realFrames() {
  static const std::vector<Frame> frames = [] {
    std::vector<Frame> out;
    for (const char* n : {"cockatoo_f005_1280x720.nv21", "cockatoo_f006_1280x720.nv21",
                          "cockatoo_f100_1280x720.nv21", "cockatoo_f155_1280x720.nv21"}) {
      out.push_back(planarFromNv21(n));
    }
    return out;
  }();
  return frames;
}

class KoPreviewEncodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const Frame& f : realFrames()) ASSERT_EQ(f.px.size(), kBytes);
    mFrames = realFrames();
  }
  // Frame i of a sequence: a real frame with its index stamped into the first luma bytes, so
  // that every frame of a sequence is distinguishable.
  Frame& frame(int i) {
    Frame& f = mFrames[static_cast<size_t>(i) % mFrames.size()];
    memcpy(f.data(), &i, sizeof(i));
    return f;
  }
  void add(KoPreviewEncode& enc, int i, int64_t ts) {
    enc.addFrame(frame(i).data(), kW, kH, ts);
  }
  // Reads back the frame stamped exactly ts and compares it with frame(i).
  void expectFrame(const KoPreviewEncode& enc, int i, int64_t ts) {
    std::vector<uint8_t> out(kBytes);
    int w = 0, h = 0;
    int64_t got = 0;
    ASSERT_EQ(enc.copyFrame(ts, out.data(), out.size(), w, h, got), OK);
    EXPECT_EQ(got, ts);
    EXPECT_EQ(w, kW);
    EXPECT_EQ(h, kH);
    EXPECT_TRUE(out == frame(i).px) << "frame " << i;
  }
  std::vector<Frame> mFrames;
};

TEST_F(KoPreviewEncodeTest, KeepsFramesInArrivalOrder) {
  KoPreviewEncode enc(true, true);
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.oldestTimestampUs(), -1);
  EXPECT_EQ(enc.newestTimestampUs(), -1);
  Vector<int64_t> times;
  EXPECT_FALSE(enc.getFrameTimes(times));

  for (int i = 0; i < 10; ++i) add(enc, i, kBaseUs + i * 33333);
  EXPECT_EQ(enc.frameCount(), 10u);
  EXPECT_EQ(enc.oldestTimestampUs(), kBaseUs);
  EXPECT_EQ(enc.newestTimestampUs(), kBaseUs + 9 * 33333);
  ASSERT_TRUE(enc.getFrameTimes(times));
  ASSERT_EQ(times.size(), 10u);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(times[i], kBaseUs + i * 33333);
  for (int i = 0; i < 10; ++i) expectFrame(enc, i, kBaseUs + i * 33333);
  EXPECT_EQ(enc.memoryBytes(), 10 * kBytes);
}

TEST_F(KoPreviewEncodeTest, CopyFrameWalksARange) {
  KoPreviewEncode enc(true, false);
  for (int i = 0; i < 5; ++i) add(enc, i, kBaseUs + i * 100000);
  std::vector<uint8_t> out(kBytes);
  int w = 0, h = 0;
  int64_t ts = 0;
  // The oldest frame at or after a stamp between two frames.
  ASSERT_EQ(enc.copyFrame(kBaseUs + 150000, out.data(), out.size(), w, h, ts), OK);
  EXPECT_EQ(ts, kBaseUs + 200000);
  // Walking from the start visits every frame once.
  int n = 0;
  for (int64_t from = 0; enc.copyFrame(from, out.data(), out.size(), w, h, ts) == OK; from = ts + 1) {
    EXPECT_EQ(ts, kBaseUs + n * 100000);
    ++n;
  }
  EXPECT_EQ(n, 5);
  EXPECT_EQ(enc.copyFrame(kBaseUs + 400001, out.data(), out.size(), w, h, ts), NAME_NOT_FOUND);
  // Too small or null: the size and stamp are reported, nothing is copied.
  w = h = 0;
  std::vector<uint8_t> small(kBytes - 1, 0xAB);
  EXPECT_EQ(enc.copyFrame(0, small.data(), small.size(), w, h, ts), BAD_VALUE);
  EXPECT_EQ(w, kW);
  EXPECT_EQ(h, kH);
  EXPECT_EQ(ts, kBaseUs);
  EXPECT_TRUE(std::all_of(small.begin(), small.end(), [](uint8_t b) { return b == 0xAB; }));
  EXPECT_EQ(enc.copyFrame(0, nullptr, kBytes, w, h, ts), BAD_VALUE);
}

TEST_F(KoPreviewEncodeTest, DropsOldestBeyondTimeSpan) {
  KoPreviewEncode enc(true, true);
  // 10 fps for 6 seconds: 61 frames, about 21 MB, under the memory bound.
  for (int i = 0; i <= 60; ++i) {
    add(enc, i, kBaseUs + i * 100000);
    EXPECT_LE(enc.newestTimestampUs() - enc.oldestTimestampUs(), KoPreviewEncode::kMaxSpanUs);
  }
  // Frames 20 (at 2.0 s) to 60 (at 6.0 s): exactly 4 seconds apart are still kept.
  EXPECT_EQ(enc.frameCount(), 41u);
  EXPECT_EQ(enc.oldestTimestampUs(), kBaseUs + 2000000);
  EXPECT_EQ(enc.newestTimestampUs(), kBaseUs + 6000000);
  expectFrame(enc, 20, kBaseUs + 2000000);
  expectFrame(enc, 60, kBaseUs + 6000000);
  // A gap longer than the span leaves only the new frame.
  add(enc, 61, kBaseUs + 11000000);
  EXPECT_EQ(enc.frameCount(), 1u);
  expectFrame(enc, 61, kBaseUs + 11000000);
  EXPECT_LE(enc.memoryBytes(), (1 + KoPreviewEncode::kMaxPooledBuffers) * kBytes);
}

TEST_F(KoPreviewEncodeTest, DropsOldestBeyondMemoryBound) {
  KoPreviewEncode enc(true, true);
  const size_t fit = KoPreviewEncode::kMaxMemoryBytes / kBytes;  // 97 frames of 640x360
  ASSERT_LT(fit * 33333, static_cast<size_t>(KoPreviewEncode::kMaxSpanUs));
  const int total = static_cast<int>(fit) + 30;
  for (int i = 0; i < total; ++i) {
    add(enc, i, kBaseUs + i * 33333);
    EXPECT_LE(enc.memoryBytes(), KoPreviewEncode::kMaxMemoryBytes);
  }
  EXPECT_EQ(enc.frameCount(), fit);
  EXPECT_EQ(enc.newestTimestampUs(), kBaseUs + (total - 1) * 33333);
  const int first = total - static_cast<int>(fit);
  EXPECT_EQ(enc.oldestTimestampUs(), kBaseUs + first * 33333);
  expectFrame(enc, first, kBaseUs + first * 33333);
  expectFrame(enc, total - 1, kBaseUs + (total - 1) * 33333);
  Vector<int64_t> times;
  ASSERT_TRUE(enc.getFrameTimes(times));
  for (size_t k = 1; k < times.size(); ++k) EXPECT_EQ(times[k] - times[k - 1], 33333);
}

TEST_F(KoPreviewEncodeTest, MemoryStaysFlatOnceWarm) {
  for (int64_t periodUs : {33333, 100000}) {  // bound by memory, bound by time span
    KoPreviewEncode enc(true, true);
    int i = 0;
    for (; i < 200; ++i) add(enc, i, kBaseUs + i * periodUs);
    const size_t warm = enc.memoryBytes();
    const size_t count = enc.frameCount();
    EXPECT_GT(warm, 0u);
    for (; i < 400; ++i) {
      add(enc, i, kBaseUs + i * periodUs);
      ASSERT_EQ(enc.memoryBytes(), warm) << "period " << periodUs << " frame " << i;
      ASSERT_EQ(enc.frameCount(), count);
    }
    expectFrame(enc, 399, kBaseUs + 399 * periodUs);
  }
}

TEST_F(KoPreviewEncodeTest, FrameSizeChangeStaysBounded) {
  KoPreviewEncode enc(true, true);
  // 640x480 frames built from the real luma with flat chroma.
  const size_t big = static_cast<size_t>(640) * 480 * 3 / 2;
  std::vector<uint8_t> tall(big, 128);
  memcpy(tall.data(), frame(0).data(), static_cast<size_t>(kW) * kH);
  int i = 0;
  for (; i < 120; ++i) add(enc, i, kBaseUs + i * 33333);
  for (; i < 240; ++i) {
    enc.addFrame(tall.data(), 640, 480, kBaseUs + i * 33333);
    EXPECT_LE(enc.memoryBytes(), KoPreviewEncode::kMaxMemoryBytes);
  }
  EXPECT_EQ(enc.frameCount(), KoPreviewEncode::kMaxMemoryBytes / big);
  std::vector<uint8_t> out(big);
  int w = 0, h = 0;
  int64_t ts = 0;
  ASSERT_EQ(enc.copyFrame(0, out.data(), out.size(), w, h, ts), OK);
  EXPECT_EQ(w, 640);
  EXPECT_EQ(h, 480);
  EXPECT_TRUE(out == tall);
  // And back to the smaller size: larger free buffers are reused, the bound still holds.
  for (; i < 300; ++i) {
    add(enc, i, kBaseUs + i * 33333);
    EXPECT_LE(enc.memoryBytes(), KoPreviewEncode::kMaxMemoryBytes);
  }
  expectFrame(enc, 299, kBaseUs + 299 * 33333);
}

TEST_F(KoPreviewEncodeTest, RepeatedStampKeptOlderStampDropped) {
  KoPreviewEncode enc(true, true);
  add(enc, 0, kBaseUs);
  add(enc, 1, kBaseUs + 33333);
  add(enc, 2, kBaseUs + 33333);  // repeated stamp: kept after the first
  {
    kovane_test::StderrCapture quiet;
    add(enc, 3, kBaseUs + 10000);  // goes back a little: dropped
    quiet.finish();
  }
  Vector<int64_t> times;
  ASSERT_TRUE(enc.getFrameTimes(times));
  ASSERT_EQ(times.size(), 3u);
  EXPECT_EQ(times[1], kBaseUs + 33333);
  EXPECT_EQ(times[2], kBaseUs + 33333);
  expectFrame(enc, 1, kBaseUs + 33333);  // the first of the two with that stamp
  // Far back: the clock restarted; the buffer starts anew with this frame.
  {
    kovane_test::StderrCapture quiet;
    add(enc, 4, 5000);
    quiet.finish();
  }
  EXPECT_EQ(enc.frameCount(), 1u);
  expectFrame(enc, 4, 5000);
}

TEST_F(KoPreviewEncodeTest, RecordingKeepsNoFrames) {
  KoPreviewEncode enc(true, true);
  for (int i = 0; i < 5; ++i) add(enc, i, kBaseUs + i * 33333);
  EXPECT_FALSE(enc.isRecording());
  enc.startRecording();
  EXPECT_TRUE(enc.isRecording());
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  for (int i = 5; i < 10; ++i) add(enc, i, kBaseUs + i * 33333);
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  enc.stopRecording();
  EXPECT_FALSE(enc.isRecording());
  add(enc, 10, kBaseUs + 10 * 33333);
  EXPECT_EQ(enc.frameCount(), 1u);
  expectFrame(enc, 10, kBaseUs + 10 * 33333);
}

TEST_F(KoPreviewEncodeTest, FlushDropsEverything) {
  KoPreviewEncode enc(true, true);
  for (int i = 0; i < 8; ++i) add(enc, i, kBaseUs + i * 33333);
  enc.flush();
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  EXPECT_EQ(enc.oldestTimestampUs(), -1);
  Vector<int64_t> times;
  times.push_back(7);
  EXPECT_FALSE(enc.getFrameTimes(times));
  EXPECT_EQ(times.size(), 0u);
  // Frames are kept again afterwards, even with earlier stamps.
  add(enc, 20, kBaseUs);
  EXPECT_EQ(enc.frameCount(), 1u);
  enc.flush();
  enc.flush();
  EXPECT_EQ(enc.frameCount(), 0u);
}

TEST_F(KoPreviewEncodeTest, VideoDisabledKeepsNothing) {
  KoPreviewEncode enc(false, true);
  EXPECT_FALSE(enc.videoEnabled());
  EXPECT_TRUE(enc.auxEnabled());
  for (int i = 0; i < 5; ++i) add(enc, i, kBaseUs + i * 33333);
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
}

TEST_F(KoPreviewEncodeTest, BadInputIgnoredAndLogged) {
  KoPreviewEncode enc(true, true);
  kovane_test::StderrCapture capture;
  enc.addFrame(nullptr, kW, kH, kBaseUs);
  enc.addFrame(frame(0).data(), 0, kH, kBaseUs);
  enc.addFrame(frame(0).data(), kW, -2, kBaseUs);
  enc.addFrame(frame(0).data(), 639, kH, kBaseUs);
  enc.addFrame(frame(0).data(), kW, 359, kBaseUs);
  enc.addFrame(frame(0).data(), 1 << 20, 1 << 20, kBaseUs);
  const std::string log = capture.finish();
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  EXPECT_NE(log.find("KoPreviewEncode"), std::string::npos) << log;
  EXPECT_NE(log.find("addFrame"), std::string::npos) << log;
  // A good frame still goes in afterwards.
  add(enc, 1, kBaseUs);
  EXPECT_EQ(enc.frameCount(), 1u);
}

TEST_F(KoPreviewEncodeTest, CopyIsIndependentOfCallersBuffer) {
  KoPreviewEncode enc(true, true);
  std::vector<uint8_t> src = frame(3).px;
  const std::vector<uint8_t> original = src;
  enc.addFrame(src.data(), kW, kH, kBaseUs);
  std::fill(src.begin(), src.end(), 0);
  src.clear();
  src.shrink_to_fit();
  std::vector<uint8_t> out(kBytes);
  int w = 0, h = 0;
  int64_t ts = 0;
  ASSERT_EQ(enc.copyFrame(kBaseUs, out.data(), out.size(), w, h, ts), OK);
  EXPECT_TRUE(out == original);
}

// A small owner of the shape the engine's foreground handler has.
class TestOwner : public RefBase {
 public:
  static void encodeCompleteCb(sp<TestOwner>& owner, int jobId, bool saved) {
    std::lock_guard<std::mutex> lock(owner->mLock);
    owner->mCalls.push_back({jobId, saved});
    owner->mThread = std::this_thread::get_id();
  }
  std::vector<std::pair<int, bool>> calls() {
    std::lock_guard<std::mutex> lock(mLock);
    return mCalls;
  }
  std::thread::id thread() {
    std::lock_guard<std::mutex> lock(mLock);
    return mThread;
  }

 private:
  std::mutex mLock;
  std::vector<std::pair<int, bool>> mCalls;
  std::thread::id mThread;
};

TEST(KoPreviewEncodeComplete, ReachesBoundOwnerFromEncodingThread) {
  sp<TestOwner> owner = new TestOwner();
  auto enc = std::make_unique<KoPreviewEncode>(owner, TestOwner::encodeCompleteCb, true, false);
  EXPECT_FALSE(enc->auxEnabled());
  EXPECT_EQ(owner->getStrongCount(), 2);  // the encoder holds its owner

  std::thread::id encoder;
  std::thread t([&] {
    encoder = std::this_thread::get_id();
    enc->notifyEncodeComplete(7, true);
    enc->notifyEncodeComplete(8, false);
  });
  ASSERT_TRUE(kovane_test::waitUntil([&] { return owner->calls().size() == 2; }));
  t.join();
  const auto calls = owner->calls();
  EXPECT_EQ(calls[0], std::make_pair(7, true));
  EXPECT_EQ(calls[1], std::make_pair(8, false));
  EXPECT_EQ(owner->thread(), encoder);

  enc.reset();
  EXPECT_EQ(owner->getStrongCount(), 1);  // released with the encoder
}

TEST(KoPreviewEncodeComplete, SafeWithoutOwner) {
  kovane_test::StderrCapture quiet;
  KoPreviewEncode plain(true, true);
  plain.notifyEncodeComplete(3, true);
  sp<TestOwner> none;
  KoPreviewEncode nullOwner(none, TestOwner::encodeCompleteCb, true, true);
  nullOwner.notifyEncodeComplete(4, false);
  sp<TestOwner> owner = new TestOwner();
  KoPreviewEncode nullCb(owner, static_cast<void (*)(sp<TestOwner>&, int, bool)>(nullptr), true,
                         true);
  nullCb.notifyEncodeComplete(5, true);
  quiet.finish();
  EXPECT_TRUE(owner->calls().empty());
  EXPECT_EQ(owner->getStrongCount(), 1);
}

TEST_F(KoPreviewEncodeTest, ConcurrentAddAndFlush) {
  KoPreviewEncode enc(true, true);
  std::atomic<bool> stop{false};
  std::atomic<int> added{0};
  // The foreground thread adds frames; the camera thread flushes and toggles recording; a
  // reader walks the buffer.
  std::thread fg([&] {
    std::vector<uint8_t> buf = frame(0).px;
    for (int i = 0; !stop.load(); ++i) {
      enc.addFrame(buf.data(), kW, kH, kBaseUs + static_cast<int64_t>(i) * 33333);
      added.fetch_add(1);
    }
  });
  std::thread reader([&] {
    std::vector<uint8_t> out(kBytes);
    int w = 0, h = 0;
    int64_t ts = 0;
    Vector<int64_t> times;
    while (!stop.load()) {
      enc.getFrameTimes(times);
      enc.copyFrame(enc.oldestTimestampUs(), out.data(), out.size(), w, h, ts);
      (void)enc.memoryBytes();
    }
  });
  for (int k = 0; k < 50; ++k) {
    const int target = added.load() + 5;
    ASSERT_TRUE(kovane_test::waitUntil([&] { return added.load() >= target; }));
    if (k % 10 == 9) {
      enc.startRecording();
      enc.stopRecording();
    } else {
      enc.flush();
    }
  }
  stop.store(true);
  fg.join();
  reader.join();
  EXPECT_LE(enc.memoryBytes(), KoPreviewEncode::kMaxMemoryBytes);
  enc.flush();
  EXPECT_EQ(enc.frameCount(), 0u);
}

}  // namespace
}  // namespace android
