#include <gtest/gtest.h>

#include <atomic>

#include "ABuffer.h"
#include "AMessage.h"
#include "PlatformTestUtil.h"

using android::ABuffer;
using android::AMessage;
using android::RefBase;
using android::sp;
using android::wp;
using platform_test::Counted;

TEST(PlatformAMessageTest, ValuesRoundTripReplaceAndMissesLeaveOutputUntouched) {
  sp<AMessage> msg = new AMessage(1);
  msg->setInt32("a", -5);
  msg->setInt64("b", int64_t{1} << 40);
  msg->setObject("null", nullptr);
  int32_t a = 0;
  int64_t b = 0;
  sp<RefBase> obj = new ABuffer(1);
  EXPECT_TRUE(msg->findInt32("a", &a) && msg->findInt64("b", &b) && msg->findObject("null", &obj));
  EXPECT_EQ(a, -5);
  EXPECT_EQ(b, int64_t{1} << 40);
  EXPECT_EQ(obj, nullptr) << "a null object is stored as such";

  // Setting a name again replaces the value, also with another type.
  msg->setInt64("a", 7);
  EXPECT_EQ(msg->countEntries(), 3u);
  EXPECT_TRUE(msg->findInt64("a", &b));
  EXPECT_EQ(b, 7);
  // A miss or a type mismatch leaves the output alone.
  a = 123;
  EXPECT_FALSE(msg->findInt32("a", &a));
  EXPECT_FALSE(msg->findInt32("missing", &a));
  EXPECT_EQ(a, 123);
  sp<ABuffer> marker = new ABuffer(1);
  sp<ABuffer> buf = marker;
  EXPECT_FALSE(msg->findBuffer("null", &buf)) << "an object is not a buffer";
  EXPECT_EQ(buf, marker);
}

TEST(PlatformAMessageTest, HoldsObjectsAndBuffersUntilReplacedClearedOrDestroyed) {
  std::atomic<int> destroyed{0};
  sp<AMessage> msg = new AMessage();
  msg->setObject("x", new Counted(&destroyed));
  EXPECT_EQ(destroyed.load(), 0) << "the message must keep the object alive";
  msg->setObject("x", new Counted(&destroyed));  // replacing releases the first object
  EXPECT_EQ(destroyed.load(), 1);
  msg->setInt32("x", 0);  // so does replacing with a plain value
  EXPECT_EQ(destroyed.load(), 2);

  msg->setObject("y", new Counted(&destroyed));
  sp<ABuffer> buffer = new ABuffer(16);
  msg->setBuffer("b", buffer);
  wp<ABuffer> weakBuffer = buffer;
  buffer.clear();
  EXPECT_NE(weakBuffer.promote(), nullptr);

  sp<AMessage> copy = msg->dup();
  EXPECT_EQ(copy->countEntries(), msg->countEntries());
  msg.clear();
  EXPECT_EQ(destroyed.load(), 2) << "the copy still shares the object";
  copy->clear();
  EXPECT_EQ(copy->countEntries(), 0u);
  EXPECT_EQ(destroyed.load(), 3);
  EXPECT_EQ(weakBuffer.promote(), nullptr);
}
