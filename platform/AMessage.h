#pragma once
// A message: a "what" code, the id of the handler it goes to, and named values. Setting a
// name again replaces its value (and type). find* return false and leave the output alone
// when the name is missing or holds another type. Objects and buffers are held by strong
// reference until replaced or until the message dies. A message is not meant to be changed
// by two threads at once.
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include <utils/Errors.h>
#include <utils/RefBase.h>

#include "ABuffer.h"
#include "ALooper.h"

namespace android {

class AMessage : public RefBase {
 public:
  explicit AMessage(uint32_t what = 0, ALooper::handler_id target = 0);

  uint32_t what() const { return mWhat; }
  void setWhat(uint32_t what) { mWhat = what; }
  ALooper::handler_id target() const { return mTarget; }
  void setTarget(ALooper::handler_id target) { mTarget = target; }

  void setInt32(const char* name, int32_t value);
  void setInt64(const char* name, int64_t value);
  void setSize(const char* name, size_t value);
  void setFloat(const char* name, float value);
  void setDouble(const char* name, double value);
  void setPointer(const char* name, void* value);
  void setObject(const char* name, const sp<RefBase>& obj);
  void setBuffer(const char* name, const sp<ABuffer>& buffer);

  bool findInt32(const char* name, int32_t* value) const;
  bool findInt64(const char* name, int64_t* value) const;
  bool findSize(const char* name, size_t* value) const;
  bool findFloat(const char* name, float* value) const;
  bool findDouble(const char* name, double* value) const;
  bool findPointer(const char* name, void** value) const;
  bool findObject(const char* name, sp<RefBase>* obj) const;
  bool findBuffer(const char* name, sp<ABuffer>* buffer) const;

  bool contains(const char* name) const;
  size_t countEntries() const { return mItems.size(); }
  // Removes every value (what and target stay).
  void clear() { mItems.clear(); }
  // A copy with the same what, target and values (objects and buffers are shared, not copied).
  sp<AMessage> dup() const;

  // Queues the message for its target handler, delivered after delayUs (0: as soon as the
  // messages posted before it). Returns -ENOENT when no looper has the target registered.
  status_t post(int64_t delayUs = 0);

 protected:
  virtual ~AMessage();

 private:
  enum Type { kInt32, kInt64, kSize, kFloat, kDouble, kPointer, kObject, kBuffer };
  struct Item {
    Type type;
    union {
      int32_t int32Value;
      int64_t int64Value;
      size_t sizeValue;
      float floatValue;
      double doubleValue;
      void* ptrValue;
    } u;
    sp<RefBase> object;  // kObject
    sp<ABuffer> buffer;  // kBuffer
  };

  Item& allocateItem(const char* name, Type type);
  const Item* findItem(const char* name, Type type) const;

  uint32_t mWhat;
  ALooper::handler_id mTarget;
  std::map<std::string, Item> mItems;

  AMessage(const AMessage&) = delete;
  AMessage& operator=(const AMessage&) = delete;
};

}  // namespace android
