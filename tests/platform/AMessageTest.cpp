#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>

#include "ABuffer.h"
#include "AMessage.h"
#include "PlatformTestUtil.h"

using android::ABuffer;
using android::AMessage;
using android::RefBase;
using android::sp;
using android::wp;
using platform_test::Counted;

TEST(PlatformAMessageTest, WhatAndTarget) {
  sp<AMessage> msg = new AMessage(7, 3);
  EXPECT_EQ(msg->what(), 7u);
  EXPECT_EQ(msg->target(), 3);
  msg->setWhat(9);
  msg->setTarget(11);
  EXPECT_EQ(msg->what(), 9u);
  EXPECT_EQ(msg->target(), 11);
  sp<AMessage> empty = new AMessage();
  EXPECT_EQ(empty->what(), 0u);
  EXPECT_EQ(empty->target(), 0);
  EXPECT_EQ(empty->countEntries(), 0u);
}

TEST(PlatformAMessageTest, ValuesRoundTripAndReplace) {
  sp<AMessage> msg = new AMessage(1);
  msg->setInt32("a", -5);
  msg->setInt64("b", int64_t{1} << 40);
  msg->setFloat("f", 0.25f);
  msg->setDouble("d", -1.5);
  msg->setSize("s", 12345);
  int dummy = 0;
  msg->setPointer("p", &dummy);
  EXPECT_EQ(msg->countEntries(), 6u);

  int32_t a = 0;
  int64_t b = 0;
  float f = 0;
  double d = 0;
  size_t s = 0;
  void* p = nullptr;
  EXPECT_TRUE(msg->findInt32("a", &a));
  EXPECT_TRUE(msg->findInt64("b", &b));
  EXPECT_TRUE(msg->findFloat("f", &f));
  EXPECT_TRUE(msg->findDouble("d", &d));
  EXPECT_TRUE(msg->findSize("s", &s));
  EXPECT_TRUE(msg->findPointer("p", &p));
  EXPECT_EQ(a, -5);
  EXPECT_EQ(b, int64_t{1} << 40);
  EXPECT_EQ(f, 0.25f);
  EXPECT_EQ(d, -1.5);
  EXPECT_EQ(s, 12345u);
  EXPECT_EQ(p, &dummy);

  // Setting a name again replaces the value, also with another type.
  msg->setInt32("a", 99);
  EXPECT_TRUE(msg->findInt32("a", &a));
  EXPECT_EQ(a, 99);
  msg->setInt64("a", 7);
  EXPECT_EQ(msg->countEntries(), 6u);
  EXPECT_TRUE(msg->findInt64("a", &b));
  EXPECT_EQ(b, 7);
  a = 123;
  EXPECT_FALSE(msg->findInt32("a", &a));
  EXPECT_EQ(a, 123);
}

TEST(PlatformAMessageTest, MissAndTypeMismatchLeaveOutputUntouched) {
  std::atomic<int> destroyed{0};
  sp<AMessage> msg = new AMessage();
  msg->setInt32("n", 1);
  msg->setObject("o", new Counted(&destroyed));

  int32_t i32 = 42;
  int64_t i64 = 43;
  EXPECT_FALSE(msg->findInt32("missing", &i32));
  EXPECT_FALSE(msg->findInt64("n", &i64));
  EXPECT_EQ(i32, 42);
  EXPECT_EQ(i64, 43);

  sp<ABuffer> marker = new ABuffer(1);
  sp<ABuffer> buf = marker;
  EXPECT_FALSE(msg->findBuffer("o", &buf));  // an object is not a buffer
  EXPECT_EQ(buf, marker);
  sp<RefBase> obj = marker;
  EXPECT_FALSE(msg->findObject("n", &obj));
  EXPECT_EQ(obj, marker);

  EXPECT_TRUE(msg->contains("n"));
  EXPECT_TRUE(msg->contains("o"));
  EXPECT_FALSE(msg->contains("missing"));
}

TEST(PlatformAMessageTest, NullObjectAndBufferAreStored) {
  sp<AMessage> msg = new AMessage();
  msg->setObject("obj", nullptr);
  msg->setBuffer("buf", nullptr);
  sp<RefBase> obj = new ABuffer(1);
  sp<ABuffer> buf = new ABuffer(1);
  EXPECT_TRUE(msg->findObject("obj", &obj));
  EXPECT_TRUE(msg->findBuffer("buf", &buf));
  EXPECT_EQ(obj, nullptr);
  EXPECT_EQ(buf, nullptr);
  EXPECT_EQ(msg->countEntries(), 2u);
}

TEST(PlatformAMessageTest, HoldsObjectsAndBuffersUntilReplacedOrDestroyed) {
  std::atomic<int> destroyed{0};
  sp<AMessage> msg = new AMessage();
  {
    sp<Counted> a = new Counted(&destroyed);
    msg->setObject("x", a);
  }
  EXPECT_EQ(destroyed.load(), 0) << "the message must keep the object alive";
  sp<RefBase> found;
  ASSERT_TRUE(msg->findObject("x", &found));
  EXPECT_NE(found, nullptr);
  found.clear();

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
  int32_t x = -1;
  EXPECT_TRUE(copy->findInt32("x", &x));
  EXPECT_EQ(x, 0);
  EXPECT_EQ(copy->countEntries(), msg->countEntries());

  msg.clear();
  EXPECT_EQ(destroyed.load(), 2) << "the copy still shares the object";
  copy.clear();
  EXPECT_EQ(destroyed.load(), 3);
  EXPECT_EQ(weakBuffer.promote(), nullptr);
}

TEST(PlatformAMessageTest, ClearRemovesValues) {
  std::atomic<int> destroyed{0};
  sp<AMessage> msg = new AMessage(5, 6);
  msg->setObject("o", new Counted(&destroyed));
  msg->setInt32("i", 1);
  msg->clear();
  EXPECT_EQ(msg->countEntries(), 0u);
  EXPECT_EQ(destroyed.load(), 1);
  EXPECT_EQ(msg->what(), 5u);
  EXPECT_EQ(msg->target(), 6);
}

TEST(PlatformAMessageTest, PostToUnknownTargetFails) {
  std::atomic<int> destroyed{0};
  sp<AMessage> msg = new AMessage(1, 0);
  msg->setObject("o", new Counted(&destroyed));
  EXPECT_EQ(msg->post(), -ENOENT);
  msg->setTarget(0x7ffffff0);
  EXPECT_EQ(msg->post(1000), -ENOENT);
  msg.clear();
  EXPECT_EQ(destroyed.load(), 1);
}
