#include "AMessage.h"

#include <cerrno>

namespace android {

AMessage::AMessage(uint32_t what, ALooper::handler_id target) : mWhat(what), mTarget(target) {}

AMessage::~AMessage() = default;

AMessage::Item& AMessage::allocateItem(const char* name, Type type) {
  Item& item = mItems[name];
  // A replaced value gives up the references it held.
  item.object.clear();
  item.buffer.clear();
  item.type = type;
  item.u.int64Value = 0;
  return item;
}

const AMessage::Item* AMessage::findItem(const char* name, Type type) const {
  if (name == nullptr) return nullptr;
  auto it = mItems.find(name);
  if (it == mItems.end() || it->second.type != type) return nullptr;
  return &it->second;
}

void AMessage::setInt32(const char* name, int32_t value) { allocateItem(name, kInt32).u.int32Value = value; }
void AMessage::setInt64(const char* name, int64_t value) { allocateItem(name, kInt64).u.int64Value = value; }
void AMessage::setSize(const char* name, size_t value) { allocateItem(name, kSize).u.sizeValue = value; }
void AMessage::setFloat(const char* name, float value) { allocateItem(name, kFloat).u.floatValue = value; }
void AMessage::setDouble(const char* name, double value) { allocateItem(name, kDouble).u.doubleValue = value; }
void AMessage::setPointer(const char* name, void* value) { allocateItem(name, kPointer).u.ptrValue = value; }
void AMessage::setObject(const char* name, const sp<RefBase>& obj) { allocateItem(name, kObject).object = obj; }
void AMessage::setBuffer(const char* name, const sp<ABuffer>& buffer) { allocateItem(name, kBuffer).buffer = buffer; }

bool AMessage::findInt32(const char* name, int32_t* value) const {
  const Item* item = findItem(name, kInt32);
  if (item == nullptr) return false;
  *value = item->u.int32Value;
  return true;
}

bool AMessage::findInt64(const char* name, int64_t* value) const {
  const Item* item = findItem(name, kInt64);
  if (item == nullptr) return false;
  *value = item->u.int64Value;
  return true;
}

bool AMessage::findSize(const char* name, size_t* value) const {
  const Item* item = findItem(name, kSize);
  if (item == nullptr) return false;
  *value = item->u.sizeValue;
  return true;
}

bool AMessage::findFloat(const char* name, float* value) const {
  const Item* item = findItem(name, kFloat);
  if (item == nullptr) return false;
  *value = item->u.floatValue;
  return true;
}

bool AMessage::findDouble(const char* name, double* value) const {
  const Item* item = findItem(name, kDouble);
  if (item == nullptr) return false;
  *value = item->u.doubleValue;
  return true;
}

bool AMessage::findPointer(const char* name, void** value) const {
  const Item* item = findItem(name, kPointer);
  if (item == nullptr) return false;
  *value = item->u.ptrValue;
  return true;
}

bool AMessage::findObject(const char* name, sp<RefBase>* obj) const {
  const Item* item = findItem(name, kObject);
  if (item == nullptr) return false;
  *obj = item->object;
  return true;
}

bool AMessage::findBuffer(const char* name, sp<ABuffer>* buffer) const {
  const Item* item = findItem(name, kBuffer);
  if (item == nullptr) return false;
  *buffer = item->buffer;
  return true;
}

bool AMessage::contains(const char* name) const {
  return name != nullptr && mItems.find(name) != mItems.end();
}

sp<AMessage> AMessage::dup() const {
  sp<AMessage> copy = new AMessage(mWhat, mTarget);
  copy->mItems = mItems;
  return copy;
}

status_t AMessage::post(int64_t delayUs) {
  return ALooper::PostMessage(this, delayUs);
}

}  // namespace android
