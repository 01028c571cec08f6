#include "CacheTestTools.h"

#include <algorithm>
#include <utility>

#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"

namespace Orvane {

// The first class of the order: with any other held, the checker objects.
void AssertNoLockIsHeld() {
  const std::unique_ptr<MTCritSec> first(NewCritSec(LockClass::kCacheCancel));
  CritSecLock lock(first.get());
}

void HookedRecorder::Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                              std::uint64_t bytes) {
  if (hook_) hook_({result, bytes});
  ReportRecorder::Callback(result, offset, list, bytes);
}

void HookedStatus::Callback(CacheSource::Result_t result, CacheTransaction* transaction,
                            std::uint64_t bytes) {
  if (hook_) hook_(transaction);
  StatusRecorder::Callback(result, transaction, bytes);
}

CacheSource::Result_t AsyncRequest::Read(FileSource* source, std::uint64_t offset,
                                         std::uint32_t dueTime) {
  return source->ReadAsyncWithList(offset, target_.GetList(), recorder_, dueTime);
}

CacheSource::Result_t AsyncRequest::Write(FileSource* source, std::uint64_t offset) {
  return source->WriteAsyncWithList(offset, target_.GetList(), recorder_, CacheSource::kDueASAP);
}

bool TransactionRequest::Setup(CacheSource* source, std::uint64_t offset, std::uint32_t dueTime) {
  return transaction_->Setup(source, offset, target_.GetList(), status_, dueTime,
                             MTThread::kPriorityNormal);
}

CacheSource::Result_t TransactionRequest::Read(Cache* cache, CacheSource* source,
                                               std::uint64_t offset, std::uint32_t dueTime) {
  EXPECT_TRUE(Setup(source, offset, dueTime));
  return cache->Read(transaction_);
}

bool HookedSource::CanGatherReads() {
  ++tries_;
  Run(onGather_);
  return MemorySource::CanGatherReads();
}

void HookedSource::CancelNonCached() {
  Run(onCancel_);
  MemorySource::CancelNonCached();
}

bool HookedSource::SupportsPreReads() {
  Run(onPreRead_);
  return MemorySource::SupportsPreReads();
}

void HookedSource::Set(Hook* place, Hook hook) {
  const std::lock_guard lock(hookMutex_);
  *place = std::move(hook);
}

void HookedSource::Run(const Hook& place) {
  Hook hook;
  {
    const std::lock_guard lock(hookMutex_);
    hook = place;
  }
  if (hook) hook();
}

Buffer::LockState_t HookedBuffer::Lock() {
  return refusesLocks_ ? kBufferUnlocked : HeapBuffer::Lock();
}

Buffer::LockState_t HookedBuffer::Unlock() {
  if (onUnlock_) onUnlock_();
  return HeapBuffer::Unlock();
}

Buffer::BufferResult_t HookedBuffer::CopyInto(void* source, std::size_t count, std::size_t offset,
                                              std::size_t* bytesMoved) {
  if (onCopyInto_) onCopyInto_();
  return HeapBuffer::CopyInto(source, count, offset, bytesMoved);
}

Cache* CacheToolsFixture::MakeCacheOver(BufferFactory* factory) {
  ReleaseCache();
  cache_ = new Cache(factory);
  return cache_;
}

HookedSource* CacheToolsFixture::MakeHookedSource(const std::string& contents) {
  HookedSource* const source = MakeUnattachedSource(contents);
  source->UseCache(cache_);
  return source;
}

HookedSource* CacheToolsFixture::MakeUnattachedSource(const std::string& contents) {
  auto* const source = new HookedSource(contents);
  sources_.push_back(source);
  return source;
}

void CacheToolsFixture::Disown(MemorySource* source) {
  std::erase(sources_, source);
}

BufferFactoryHeap* NewHeapFactory(std::size_t buffers, std::size_t size) {
  auto* const factory = new BufferFactoryHeap;
  EXPECT_TRUE(factory->Initialize(size, buffers, buffers, 0));
  return factory;
}

}  // namespace Orvane
