#include "SharedObject.h"

#include <memory>

#include "MTInterface.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

constexpr const char* kHeaderFile = "public_include/SharedObject";

// `long` has 32 bits on one host and 64 on the other; both answer the same number.
long ToCount(std::uint32_t count) {
  return static_cast<long>(static_cast<std::int32_t>(count));
}

}  // namespace

SharedObject::SharedObject() : trackingValue_(0xFFFFFFFF) {
  std::unique_ptr<MTAtomicUnsigned32> counter(MTInterface::NewAtomicUnsigned32(1));
  modifyLock_ = NewCritSec(LockClass::kSharedObjectModify);
  referenceCounter_ = counter.release();
}

SharedObject::~SharedObject() {
  delete modifyLock_;
  delete referenceCounter_;
}

long SharedObject::AddRef(const char*, const char*, unsigned long) {
  return ToCount(referenceCounter_->Increment());
}

long SharedObject::DecRef(const char*, const char*, unsigned long) {
  const long count = ReleaseReference();
  if (count == 0) delete this;
  return count;
}

long SharedObject::ReleaseReference() {
  return ToCount(referenceCounter_->Decrement());
}

long SharedObject::GetRefCount() {
  return ToCount(referenceCounter_->Get());
}

void SharedObject::BeginThreadSafeModify() {
  modifyLock_->Enter();
}

void SharedObject::FinishThreadSafeModify() {
  modifyLock_->Leave();
}

void SharedObject::EnableLeakedObjectsLogging(std::size_t, std::size_t) {}

void SharedObject::DisableLeakedObjectsLogging() {}

void SharedObject::PrintLeakedObjectsToDebugger() {}

bool SharedObject::IsLeakedObjectLoggingEnabled() {
  return false;
}

SharedObjectAutoRef::SharedObjectAutoRef(SharedObject* object) : object_(object) {
  if (object_) object_->AddRef(kHeaderFile, "Orvane::SharedObjectAutoRef::SharedObjectAutoRef", 65);
}

SharedObjectAutoRef::~SharedObjectAutoRef() {
  if (object_)
    object_->DecRef(kHeaderFile, "Orvane::SharedObjectAutoRef::~SharedObjectAutoRef", 70);
}

}  // namespace Orvane
