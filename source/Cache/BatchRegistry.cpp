#include "Cache/BatchRegistry.h"

#include "Cache/DispatchedReadCallback.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/Cache/BatchRegistry";

}  // namespace

BatchRegistry::BatchRegistry() : lock_(NewCritSec(LockClass::kBatchRegistry)) {}

void BatchRegistry::Add(DispatchedReadCallback* batch) {
  CritSecLock lock(lock_.get());
  batch->next_ = first_;
  if (first_) first_->previous_ = batch;
  first_ = batch;
}

void BatchRegistry::Remove(DispatchedReadCallback* batch) {
  CritSecLock lock(lock_.get());
  (batch->previous_ ? batch->previous_->next_ : first_) = batch->next_;
  if (batch->next_) batch->next_->previous_ = batch->previous_;
  batch->previous_ = batch->next_ = nullptr;
}

void BatchRegistry::OrphanAll() {
  while (DispatchedReadCallback* const batch = AcquireFirst()) {
    batch->Orphan();
    batch->DecRef(kFile, "Orvane::BatchRegistry::OrphanAll", __LINE__);
  }
}

bool BatchRegistry::IsEmpty() {
  CritSecLock lock(lock_.get());
  return !first_;
}

// With a reference for the caller: one in the registry has not given up its own yet.
DispatchedReadCallback* BatchRegistry::AcquireFirst() {
  CritSecLock lock(lock_.get());
  if (first_) first_->AddRef(kFile, "Orvane::BatchRegistry::AcquireFirst", __LINE__);
  return first_;
}

}  // namespace Orvane
