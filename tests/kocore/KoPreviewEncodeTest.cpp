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

#include "DexFrameMetaData.h"
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

// The four real 1280x720 NV21 frames as 640x360 planar 4:2:0 frames (Y, U, V planes), reduced
// with the library's reducers; loaded once.
const std::vector<std::vector<uint8_t>>& realFrames() {
  static const std::vector<std::vector<uint8_t>> frames = [] {
    std::vector<std::vector<uint8_t>> out;
    for (const char* n : {"cockatoo_f005_1280x720.nv21", "cockatoo_f006_1280x720.nv21",
                          "cockatoo_f100_1280x720.nv21", "cockatoo_f155_1280x720.nv21"}) {
      const std::vector<uint8_t> src = kovane_test::readNv21(n, 2 * kW, 2 * kH);
      if (src.empty()) return out;
      std::vector<uint8_t> f(kBytes);
      uint8_t* u = f.data() + kW * kH;
      DexFrameMetaData::downScaleLuma2x(f.data(), src.data(), 2 * kW, kW, kH);
      DexFrameMetaData::decimateChroma2x(u, u + kW * kH / 4, src.data() + 4 * kW * kH, 2 * kW,
                                         kW / 2, kH / 2, 1);
      out.push_back(f);
    }
    return out;
  }();
  return frames;
}

class KoPreviewEncodeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mFrames = realFrames();
    ASSERT_EQ(mFrames.size(), 4u);
  }
  // Frame i of a sequence: a real frame with its index stamped into the first luma bytes, so
  // that every frame of a sequence is distinguishable.
  std::vector<uint8_t>& frame(int i) {
    std::vector<uint8_t>& f = mFrames[static_cast<size_t>(i) % mFrames.size()];
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
    EXPECT_TRUE(out == frame(i)) << "frame " << i;
  }
  std::vector<std::vector<uint8_t>> mFrames;
};

TEST_F(KoPreviewEncodeTest, KeepsArrivalOrderAndCopiesByStamp) {
  KoPreviewEncode enc(true, true);
  Vector<int64_t> times;
  EXPECT_FALSE(enc.getFrameTimes(times));
  EXPECT_EQ(enc.oldestTimestampUs(), -1);
  // The caller's buffer is overwritten after every add: the kept copies must not change.
  std::vector<uint8_t> src;
  for (int i = 0; i < 5; ++i) {
    src = frame(i);
    enc.addFrame(src.data(), kW, kH, kBaseUs + i * 100000);
    std::fill(src.begin(), src.end(), 0);
  }
  add(enc, 5, kBaseUs + 400000);  // repeated stamp: kept after the first
  {
    kovane_test::StderrCapture quiet;
    add(enc, 6, kBaseUs + 350000);  // goes back a little: dropped
    quiet.finish();
  }
  ASSERT_TRUE(enc.getFrameTimes(times));
  ASSERT_EQ(times.size(), 6u);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(times[i], kBaseUs + i * 100000);
  EXPECT_EQ(times[5], kBaseUs + 400000);
  for (int i = 0; i < 5; ++i) expectFrame(enc, i, kBaseUs + i * 100000);  // 4: the first of two
  EXPECT_EQ(enc.memoryBytes(), 6 * kBytes);

  std::vector<uint8_t> out(kBytes);
  int w = 0, h = 0;
  int64_t ts = 0;
  // The oldest frame at or after a stamp between two frames; none after the newest.
  ASSERT_EQ(enc.copyFrame(kBaseUs + 150000, out.data(), out.size(), w, h, ts), OK);
  EXPECT_EQ(ts, kBaseUs + 200000);
  EXPECT_EQ(enc.copyFrame(kBaseUs + 400001, out.data(), out.size(), w, h, ts), NAME_NOT_FOUND);
  // Too small or null: the size and stamp are reported, nothing is copied.
  w = h = 0;
  std::vector<uint8_t> small(kBytes - 1, 0xAB);
  EXPECT_EQ(enc.copyFrame(0, small.data(), small.size(), w, h, ts), BAD_VALUE);
  EXPECT_EQ(w, kW);
  EXPECT_EQ(ts, kBaseUs);
  EXPECT_TRUE(std::all_of(small.begin(), small.end(), [](uint8_t b) { return b == 0xAB; }));
  EXPECT_EQ(enc.copyFrame(0, nullptr, kBytes, w, h, ts), BAD_VALUE);

  // Far back: the clock restarted; the buffer starts anew with this frame.
  {
    kovane_test::StderrCapture quiet;
    add(enc, 7, 5000);
    quiet.finish();
  }
  EXPECT_EQ(enc.frameCount(), 1u);
  expectFrame(enc, 7, 5000);
}

TEST_F(KoPreviewEncodeTest, BoundedByTimeSpanAndMemoryAndFlatOnceWarm) {
  const size_t fit = KoPreviewEncode::kMaxMemoryBytes / kBytes;  // 97 frames of 640x360
  ASSERT_LT(fit * 33333, static_cast<size_t>(KoPreviewEncode::kMaxSpanUs));
  // At 10 fps the span bounds the buffer (41 frames 4 s apart); at 30 fps the memory does.
  for (int64_t periodUs : {100000, 33333}) {
    SCOPED_TRACE(periodUs);
    const size_t expected = periodUs == 100000 ? 41 : fit;
    KoPreviewEncode enc(true, true);
    size_t warm = 0;
    for (int i = 0; i < 400; ++i) {
      add(enc, i, kBaseUs + i * periodUs);
      ASSERT_LE(enc.newestTimestampUs() - enc.oldestTimestampUs(), KoPreviewEncode::kMaxSpanUs);
      ASSERT_LE(enc.memoryBytes(), KoPreviewEncode::kMaxMemoryBytes);
      if (i == 200) warm = enc.memoryBytes();
      ASSERT_TRUE(i <= 200 || enc.memoryBytes() == warm) << "memory grew at frame " << i;
    }
    ASSERT_EQ(enc.frameCount(), expected);
    const int first = 400 - static_cast<int>(expected);
    EXPECT_EQ(enc.oldestTimestampUs(), kBaseUs + first * periodUs);
    expectFrame(enc, first, kBaseUs + first * periodUs);
    expectFrame(enc, 399, kBaseUs + 399 * periodUs);

    // Larger frames keep the memory bound; their size is reported back.
    std::vector<uint8_t> tall(static_cast<size_t>(640) * 480 * 3 / 2, 128);
    memcpy(tall.data(), frame(0).data(), static_cast<size_t>(kW) * kH);
    for (int i = 400; i < 500; ++i) {
      enc.addFrame(tall.data(), 640, 480, kBaseUs + i * periodUs);
      ASSERT_LE(enc.memoryBytes(), KoPreviewEncode::kMaxMemoryBytes);
    }
    std::vector<uint8_t> out(tall.size());
    int w = 0, h = 0;
    int64_t ts = 0;
    ASSERT_EQ(enc.copyFrame(kBaseUs + 499 * periodUs, out.data(), out.size(), w, h, ts), OK);
    EXPECT_EQ(h, 480);
    EXPECT_TRUE(out == tall);
  }
  // A gap longer than the span leaves only the new frame.
  KoPreviewEncode enc(true, true);
  add(enc, 0, kBaseUs);
  add(enc, 1, kBaseUs + KoPreviewEncode::kMaxSpanUs + 1);
  EXPECT_EQ(enc.frameCount(), 1u);
}

TEST_F(KoPreviewEncodeTest, RecordingFlushAndDisabledVideoKeepNothing) {
  KoPreviewEncode enc(true, true);
  for (int i = 0; i < 5; ++i) add(enc, i, kBaseUs + i * 33333);
  enc.startRecording();
  EXPECT_TRUE(enc.isRecording());
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  for (int i = 5; i < 10; ++i) add(enc, i, kBaseUs + i * 33333);
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  enc.stopRecording();
  for (int i = 10; i < 13; ++i) add(enc, i, kBaseUs + i * 33333);
  EXPECT_EQ(enc.frameCount(), 3u);

  enc.flush();
  EXPECT_EQ(enc.frameCount(), 0u);
  EXPECT_EQ(enc.memoryBytes(), 0u);
  EXPECT_EQ(enc.oldestTimestampUs(), -1);
  Vector<int64_t> times;
  times.push_back(7);
  EXPECT_FALSE(enc.getFrameTimes(times));
  EXPECT_EQ(times.size(), 0u);
  add(enc, 20, kBaseUs);  // kept again afterwards, even with an earlier stamp
  expectFrame(enc, 20, kBaseUs);

  KoPreviewEncode off(false, true);
  for (int i = 0; i < 5; ++i) add(off, i, kBaseUs + i * 33333);
  EXPECT_EQ(off.frameCount(), 0u);
  EXPECT_EQ(off.memoryBytes(), 0u);
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
  add(enc, 1, kBaseUs);  // a good frame still goes in afterwards
  EXPECT_EQ(enc.frameCount(), 1u);
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

TEST(KoPreviewEncodeComplete, ReachesBoundOwnerFromEncodingThreadAndIsSafeWithoutOne) {
  sp<TestOwner> owner = new TestOwner();
  auto enc = std::make_unique<KoPreviewEncode>(owner, TestOwner::encodeCompleteCb, true, false);
  EXPECT_EQ(owner->getStrongCount(), 2);  // the encoder holds its owner
  std::thread::id encoder;
  std::thread t([&] {
    encoder = std::this_thread::get_id();
    enc->notifyEncodeComplete(7, true);
    enc->notifyEncodeComplete(8, false);
  });
  t.join();
  const auto calls = owner->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0], std::make_pair(7, true));
  EXPECT_EQ(calls[1], std::make_pair(8, false));
  EXPECT_EQ(owner->thread(), encoder);
  enc.reset();
  EXPECT_EQ(owner->getStrongCount(), 1);  // released with the encoder

  kovane_test::StderrCapture quiet;
  KoPreviewEncode plain(true, true);
  plain.notifyEncodeComplete(3, true);
  sp<TestOwner> none;
  KoPreviewEncode nullOwner(none, TestOwner::encodeCompleteCb, true, true);
  nullOwner.notifyEncodeComplete(4, false);
  KoPreviewEncode nullCb(owner, static_cast<void (*)(sp<TestOwner>&, int, bool)>(nullptr), true,
                         true);
  nullCb.notifyEncodeComplete(5, true);
  quiet.finish();
  EXPECT_EQ(owner->calls().size(), 2u);
}

TEST_F(KoPreviewEncodeTest, ConcurrentAddAndFlush) {
  KoPreviewEncode enc(true, true);
  std::atomic<bool> stop{false};
  std::atomic<int> added{0};
  // The foreground thread adds frames; the camera thread flushes and toggles recording; a
  // reader walks the buffer.
  std::thread fg([&] {
    std::vector<uint8_t> buf = frame(0);
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
