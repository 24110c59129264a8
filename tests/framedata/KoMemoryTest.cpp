// ZSL buffer tracking: the seven-buffer limit, the status bookkeeping and, above all, that every
// borrowed buffer goes back to the camera exactly once whoever drops the last reference.
#include <gtest/gtest.h>

#include <thread>

#include "FrameTestSupport.h"
#include "KoFrameHist.h"
#include "KoFrameHistSnapshot.h"
#include "KoMemoryBuffer.h"
#include "StderrCapture.h"

using namespace android;
using kovane_test::TestEngineContext;
using kovane_test::zslAddress;

TEST(KoMemory, SevenBuffersOutAtMostAndEachReturnedOnce) {
  TestEngineContext engine;
  KoMemory* memory = engine.memory();
  std::vector<sp<KoMemoryBuffer>> held;
  for (uintptr_t i = 0; i < 7; ++i) {
    sp<KoMemoryBuffer> buffer;
    ASSERT_TRUE(memory->addZslBuffer(zslAddress(i), &buffer));
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->address(), zslAddress(i));
    held.push_back(buffer);
  }
  EXPECT_EQ(memory->count(), 7u);

  sp<KoMemoryBuffer> refused = held[0];  // must stay untouched by a refusal
  EXPECT_FALSE(memory->addZslBuffer(zslAddress(7), &refused));
  EXPECT_EQ(refused, held[0]);
  EXPECT_TRUE(engine.returned().empty());

  held.erase(held.begin() + 3);  // the last reference goes: the buffer is handed back
  ASSERT_EQ(engine.returned().size(), 1u);
  EXPECT_EQ(engine.returned()[0], zslAddress(3));
  EXPECT_EQ(memory->count(), 6u);

  sp<KoMemoryBuffer> again;
  EXPECT_TRUE(memory->addZslBuffer(zslAddress(8), &again));
  held.push_back(again);
  held.clear();
  again.clear();
  refused.clear();
  for (uintptr_t i : {0, 1, 2, 3, 4, 5, 6, 8}) EXPECT_EQ(engine.timesReturned(zslAddress(i)), 1u) << i;
  EXPECT_EQ(engine.timesReturned(zslAddress(7)), 0u);
  EXPECT_EQ(memory->count(), 0u);
}

TEST(KoMemory, StatusBookkeepingKeepsItsAsymmetries) {
  TestEngineContext engine;
  KoMemory* memory = engine.memory();
  sp<KoMemoryBuffer> buffer;
  ASSERT_TRUE(memory->addZslBuffer(zslAddress(1), &buffer));
  // The status word and the lock count of the buffer, after applying `ops`.
  using St = std::pair<uint32_t, int32_t>;
  auto after = [&](std::initializer_list<int> ops) {
    for (int op : ops) buffer->updateStatus(static_cast<KOMEMORY_STATUS_T>(op));
    uint32_t status = 0xdead;
    int32_t locks = -1;
    EXPECT_TRUE(memory->getStatus(zslAddress(1), &status, &locks));
    return St{status, locks};
  };
  EXPECT_EQ(after({}).first, static_cast<uint32_t>(KoMemory::STATUS_REGISTERED));
  EXPECT_EQ(after({KOMEMORY_IN_HISTORY, KOMEMORY_SNAPSHOT_LOCK, KOMEMORY_SNAPSHOT_LOCK}),
            St(KoMemory::STATUS_IN_HISTORY | KoMemory::STATUS_SNAPSHOT, 2));
  // One unlock clears the snapshot bit although a lock remains.
  EXPECT_EQ(after({KOMEMORY_SNAPSHOT_UNLOCK}), St(KoMemory::STATUS_IN_HISTORY, 1));
  // "In history" replaces the whole word, dropping a snapshot's bit.
  EXPECT_EQ(after({KOMEMORY_SNAPSHOT_LOCK, KOMEMORY_IN_HISTORY}).first, static_cast<uint32_t>(KoMemory::STATUS_IN_HISTORY));
  // Out of the history clears the word; an unknown operation changes nothing.
  EXPECT_EQ(after({KOMEMORY_OUT_OF_HISTORY, 9}), St(0, 2));
}

TEST(KoMemory, UnknownAddressesOnlyLog) {
  TestEngineContext engine;
  KoMemory* memory = engine.memory();
  sp<KoMemoryBuffer> buffer;
  ASSERT_TRUE(memory->addZslBuffer(zslAddress(1), &buffer));
  kovane_test::StderrCapture capture;
  memory->updateStatus(zslAddress(5), KOMEMORY_IN_HISTORY);
  memory->returnZslBuffer(zslAddress(1));
  memory->returnZslBuffer(zslAddress(1));  // second return of the same address
  std::string log = capture.finish();
  EXPECT_NE(log.find("updateStatus BUFFER NOT FOUND"), std::string::npos) << log;
  EXPECT_NE(log.find("returnZslBuffer RETURNED BUFFER NOT FOUND"), std::string::npos) << log;
  EXPECT_EQ(engine.timesReturned(zslAddress(1)), 1u);
  {
    kovane_test::StderrCapture quiet;
    buffer.clear();  // its own return now finds nothing and hands nothing back twice
    quiet.finish();
  }
  EXPECT_EQ(engine.timesReturned(zslAddress(1)), 1u);
}

TEST(KoMemory, BuffersStillOutAreHandedBackWhenTrackingEnds) {
  TestEngineContext engine;
  KoMemory* memory = new KoMemory(&engine);
  sp<KoMemoryBuffer> a, b;
  ASSERT_TRUE(memory->addZslBuffer(zslAddress(1), &a));
  ASSERT_TRUE(memory->addZslBuffer(zslAddress(2), &b));
  a.clear();
  // A handle that outlives its tracker must not reach it; the tracker hands its buffer back.
  b->mMemory = nullptr;
  delete memory;
  b.clear();
  std::vector<void*> returned = engine.returned();
  ASSERT_EQ(returned.size(), 2u);
  EXPECT_EQ(returned[0], zslAddress(1));
  EXPECT_EQ(returned[1], zslAddress(2));
}
