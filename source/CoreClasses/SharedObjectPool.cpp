#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"
#include "ScopedRelease.h"
#include "SharedObjectList.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/CoreClasses/SharedObjectPool";
constexpr const char* kDestructor = "Orvane::SharedObjectPool::~SharedObjectPool";

}  // namespace

SharedObjectPool::SharedObjectPool(std::size_t capacity) : capacity_(capacity) {
  ScopedRelease<SharedObjectList> freeList(new SharedObjectList, kFile, kDestructor, 27);
  ScopedRelease<SharedObjectList> inUseList(new SharedObjectList, kFile, kDestructor, 28);
  lock_ = NewCritSec(LockClass::kPool);
  freeList_ = freeList.Take();
  inUseList_ = inUseList.Take();
}

SharedObjectPool::~SharedObjectPool() {
  {
    const CritSecLock lock(lock_);
    freeList_->DecRef(kFile, kDestructor, 27);
    inUseList_->DecRef(kFile, kDestructor, 28);
  }
  delete lock_;
}

bool SharedObjectPool::AddObjectToPool(SharedObject* object) {
  if (!object) return false;
  const CritSecLock lock(lock_);
  const std::size_t count = CountLocked();
  if (count >= capacity_) return false;
  // In both, so that moving members between them never needs memory.
  freeList_->Reserve(count + 1);
  inUseList_->Reserve(count + 1);
  return freeList_->AddToFront(object);
}

SharedObject* SharedObjectPool::GetObjectFromPool() {
  const CritSecLock lock(lock_);
  SharedObject* const object = freeList_->GetAndRemove(0);
  if (object) inUseList_->AddToFront(object);
  return object;
}

bool SharedObjectPool::ReturnObjectToPool(SharedObject* object) {
  const CritSecLock lock(lock_);
  return inUseList_->Remove(object) && freeList_->AddToFront(object);
}

bool SharedObjectPool::DetachObjectFromPool(SharedObject* object) {
  const CritSecLock lock(lock_);
  return inUseList_->Remove(object) || freeList_->Remove(object);
}

void SharedObjectPool::PurgeAllObjects() {
  const CritSecLock lock(lock_);
  freeList_->RemoveAll();
  inUseList_->RemoveAll();
}

std::size_t SharedObjectPool::GetTotalNumberOfObjects() {
  const CritSecLock lock(lock_);
  return CountLocked();
}

std::size_t SharedObjectPool::GetNumberOfObjectsFree() {
  const CritSecLock lock(lock_);
  return freeList_->Count();
}

std::size_t SharedObjectPool::GetNumberOfObjectsInUse() {
  const CritSecLock lock(lock_);
  return inUseList_->Count();
}

std::size_t SharedObjectPool::CountLocked() {
  return inUseList_->Count() + freeList_->Count();
}

}  // namespace Orvane
