#include "BufferFactory.h"

#include <algorithm>
#include <limits>

#include "Buffer.h"
#include "OSServices/CritSecLock.h"
#include "OSServices/LockClass.h"
#include "PhysMemInterface.h"
#include "ScopedRelease.h"
#include "SharedObjectList.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/CoreClasses/BufferFactory";
constexpr const char* kInitializeHeap = "Orvane::BufferFactoryHeap::Initialize";
constexpr const char* kInitializePhysMem = "Orvane::BufferFactoryPhysMem::Initialize";

}  // namespace

BufferFactory::BufferFactory() = default;

BufferFactory::~BufferFactory() = default;

BufferFactoryCommon::BufferFactoryCommon()
    : lock_(NewCritSec(LockClass::kFactory)), bufferSize_(0), pool_(nullptr) {}

BufferFactoryCommon::~BufferFactoryCommon() {
  {
    const CritSecLock lock(lock_);
    PurgeLocked();
    if (pool_) pool_->DecRef(kFile, "Orvane::BufferFactoryCommon::~BufferFactoryCommon", 30);
  }
  delete lock_;
}

std::size_t BufferFactoryCommon::GetBufferSize() {
  return bufferSize_;
}

std::size_t BufferFactoryCommon::GetTotalNumberOfBuffers() {
  const CritSecLock lock(lock_);
  return pool_ ? pool_->GetTotalNumberOfObjects() : 0;
}

std::size_t BufferFactoryCommon::GetNumberOfBuffersFree() {
  const CritSecLock lock(lock_);
  return pool_ ? pool_->GetNumberOfObjectsFree() : 0;
}

std::size_t BufferFactoryCommon::GetNumberOfBuffersInUse() {
  const CritSecLock lock(lock_);
  return pool_ ? pool_->GetNumberOfObjectsInUse() : 0;
}

Buffer* BufferFactoryCommon::GetBufferFromFactory() {
  const CritSecLock lock(lock_);
  return pool_ ? static_cast<Buffer*>(pool_->GetObjectFromPool()) : nullptr;
}

bool BufferFactoryCommon::ReturnBufferToFactory(Buffer* buffer) {
  const CritSecLock lock(lock_);
  return pool_ && pool_->ReturnObjectToPool(buffer);
}

bool BufferFactoryCommon::AddBuffer(Buffer* buffer) {
  const CritSecLock lock(lock_);
  return pool_ && pool_->AddObjectToPool(buffer);
}

bool BufferFactoryCommon::InternalInit(std::size_t bufferSize, std::size_t poolCapacity) {
  const CritSecLock lock(lock_);
  if (pool_ || bufferSize == 0 || bufferSize_ != 0) return false;
  pool_ = new SharedObjectPool(poolCapacity);
  bufferSize_ = bufferSize;
  return true;
}

void BufferFactoryCommon::Purge() {
  const CritSecLock lock(lock_);
  PurgeLocked();
}

void BufferFactoryCommon::PurgeLocked() {
  if (!pool_) return;
  while (SharedObject* const buffer = pool_->GetObjectFromPool()) {
    buffer->DecRef(kFile, "Orvane::BufferFactoryCommon::Purge", 60);
  }
  pool_->PurgeAllObjects();
}

BufferFactoryHeap::BufferFactoryHeap() = default;

BufferFactoryHeap::~BufferFactoryHeap() = default;

bool BufferFactoryHeap::Initialize(std::size_t bufferSize, std::size_t minimumBuffers,
                                   std::size_t desiredBuffers, std::size_t) {
  const std::size_t total = std::max(minimumBuffers, desiredBuffers);
  if (total == 0) return false;
  InternalInit(bufferSize, total);
  if (GetBufferSize() != bufferSize) return false;
  try {
    for (std::size_t made = 0; made < total; ++made) {
      ScopedRelease<Buffer> buffer(new HeapBuffer(bufferSize), kFile, kInitializeHeap, 104);
      if (AddBuffer(buffer.Get())) buffer.Take();
    }
  } catch (...) {
    Purge();
    throw;
  }
  return true;
}

BufferFactoryPhysMem::BufferFactoryPhysMem() : chunkList_(new SharedObjectList) {}

BufferFactoryPhysMem::~BufferFactoryPhysMem() {
  chunkList_->DecRef(kFile, "Orvane::BufferFactoryPhysMem::~BufferFactoryPhysMem", 133);
}

bool BufferFactoryPhysMem::Initialize(std::size_t bufferSize, std::size_t minimumBuffers,
                                      std::size_t desiredBuffers, std::size_t) {
  const std::size_t total = std::max(minimumBuffers, desiredBuffers);
  InternalInit(bufferSize, total);
  if (GetBufferSize() != bufferSize) return false;
  try {
    if (MakeBuffers(bufferSize, minimumBuffers, total) &&
        GetNumberOfBuffersFree() >= minimumBuffers) {
      return true;
    }
  } catch (...) {
    Purge();
    throw;
  }
  Purge();
  return false;
}

// False on an error. A chunk that is refused or too small is no error.
bool BufferFactoryPhysMem::MakeBuffers(std::size_t bufferSize, std::size_t minimumBuffers,
                                       std::size_t total) {
  if (bufferSize != 0 && total > std::numeric_limits<std::size_t>::max() / bufferSize) return false;
  std::size_t remaining = total;
  std::size_t request = remaining * bufferSize;
  while (remaining >= minimumBuffers && request != 0) {
    bool failed = false;
    const std::size_t made =
        TakeChunk(PhysMemInterface::Allocate(request), bufferSize, remaining, &failed);
    if (failed) return false;
    remaining -= made;
    request = made > 0 ? remaining * bufferSize : request - bufferSize;
  }
  return true;
}

// Takes over the reference of the chunk, which may be null. Answers how many buffers it yields.
std::size_t BufferFactoryPhysMem::TakeChunk(Buffer* chunk, std::size_t bufferSize,
                                            std::size_t wanted, bool* failed) {
  if (!chunk) return 0;
  if (chunk->Lock() != Buffer::kBufferLocked) {
    chunk->DecRef(kFile, kInitializePhysMem, 192);
    return 0;
  }
  const std::size_t count = std::min(chunk->GetSize() / bufferSize, wanted);
  if (count == 0) {
    chunk->Unlock();
    chunk->DecRef(kFile, kInitializePhysMem, 186);
    return 0;
  }

  const SharedObjectAutoRef alive(chunk);  // a Purge on another thread may empty the list
  bool added = false;
  {
    const ScopedRelease<Buffer> creation(chunk, kFile, kInitializePhysMem, 168);
    const CritSecLock lock(lock_);
    added = chunkList_->AddToFront(chunk);
  }
  *failed = !added || !CarveChunk(chunk, bufferSize, count);
  return count;
}

bool BufferFactoryPhysMem::CarveChunk(Buffer* chunk, std::size_t bufferSize, std::size_t count) {
  char* address = static_cast<char*>(chunk->GetVirtualAddress());
  for (std::size_t i = 0; i < count; ++i, address += bufferSize) {
    ScopedRelease<Buffer> view(new BufferPartOfBuffer(address, bufferSize, chunk), kFile,
                               kInitializePhysMem, 177);
    if (!AddBuffer(view.Get())) return false;
    view.Take();
  }
  return true;
}

void BufferFactoryPhysMem::Purge() {
  BufferFactoryCommon::Purge();
  const CritSecLock lock(lock_);
  chunkList_->RemoveAll();
}

}  // namespace Orvane
