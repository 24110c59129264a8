#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "ABuffer.h"

using android::ABuffer;
using android::sp;

TEST(PlatformABufferTest, SetRangeMovesDataAndSizeWithinCapacity) {
  sp<ABuffer> buf = new ABuffer(64);
  EXPECT_EQ(buf->size(), 64u);
  EXPECT_EQ(buf->data(), buf->base());
  for (size_t i = 0; i < 64; ++i) buf->base()[i] = static_cast<uint8_t>(i);  // checked by ASan
  buf->setRange(10, 20);
  EXPECT_EQ(buf->offset(), 10u);
  EXPECT_EQ(buf->size(), 20u);
  EXPECT_EQ(buf->capacity(), 64u);
  EXPECT_EQ(buf->data()[0], 10);
  buf->setRange(64, 0);  // empty range at the very end is valid
  EXPECT_EQ(buf->size(), 0u);
}

TEST(PlatformABufferDeathTest, SetRangeOutsideCapacityAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  sp<ABuffer> buf = new ABuffer(16);
  EXPECT_DEATH(buf->setRange(10, 7), "");
  EXPECT_DEATH(buf->setRange(17, 0), "");
}

TEST(PlatformABufferTest, WrappingBufferUsesCallersMemoryAndDoesNotFreeIt) {
  std::vector<uint8_t> storage(32, 7);
  {
    sp<ABuffer> buf = new ABuffer(storage.data(), storage.size());
    EXPECT_EQ(buf->base(), storage.data());
    EXPECT_EQ(buf->capacity(), 32u);
    buf->setRange(4, 8);
    buf->data()[0] = 42;
  }
  // Still ours after the buffer died (a free of vector memory would trip ASan/the allocator).
  EXPECT_EQ(storage[4], 42);
  storage.assign(64, 1);
}
