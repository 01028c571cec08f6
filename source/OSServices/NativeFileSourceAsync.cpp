#include "OSServices/NativeFileSourceAsync.h"

#include "Cache.h"
#include "OSServices/LockClass.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/OSServices/NativeFileSourceAsync";

// How long a request may wait to be issued. KEPT: its due time plays no part.
constexpr std::uint32_t kQueueTimeoutMs = 10000;

// Holds the state lock, except in the child of a fork: there it may be held for ever by a thread of
// the parent, and the one thread that there is needs no lock.
class ORVANE_SCOPED_CAPABILITY StateLock {
 public:
  StateLock(MTCritSec* section, AsyncHandler* handler)
      ORVANE_ACQUIRE(section) ORVANE_NO_THREAD_SAFETY_ANALYSIS
      : section_(handler->IsAbandoned() ? nullptr : section) {
    if (section_) section_->Enter();
  }
  ~StateLock() ORVANE_RELEASE() ORVANE_NO_THREAD_SAFETY_ANALYSIS {
    if (section_) section_->Leave();
  }
  StateLock(const StateLock&) = delete;
  StateLock& operator=(const StateLock&) = delete;

 private:
  MTCritSec* const section_;
};

}  // namespace

NativeFileSourceAsync::NativeFileSourceAsync(const char* name, AsyncHandler* handler)
    : NativeFileSource(name), handler_(handler), stateLock_(NewCritSec(LockClass::kFileState)) {}

// No cached request is left: each holds a reference on its source.
NativeFileSourceAsync::~NativeFileSourceAsync() {
  CloseFile(/*cache=*/nullptr);
}

bool NativeFileSourceAsync::Open(bool forRead, bool forWrite, bool create) {
  constexpr const char* kFunction = "Orvane::NativeFileSourceAsync::Open";
  const char* const name = GetName();
  if (!name) return false;
  if (HostFile* const open = AcquireFile()) {
    open->DecRef(kFile, kFunction, __LINE__);
    return false;
  }
  // Outside the lock: opening may take its time, and callbacks look at this source meanwhile.
  HostFile* const file = OpenHostFile(name, forRead, forWrite, create);
  if (!file) return false;
  bool opened = false;
  {
    StateLock lock(stateLock_.get(), handler_);
    if (!file_) {
      file_ = file;
      openedForRead_ = forRead;
      openedForWrite_ = forWrite;
      opened = true;
    }
  }
  if (!opened) {
    file->DecRef(kFile, kFunction, __LINE__);  // another Open was faster
    return false;
  }
  // The file may be another one by now.
  if (Cache* const cache = GetCache()) cache->Purge(this);
  return true;
}

bool NativeFileSourceAsync::Close() {
  // A report may give up the last reference.
  SharedObjectAutoRef keep(this);
  return CloseFile(GetCache());
}

bool NativeFileSourceAsync::CloseFile(Cache* cache) {
  HostFile* const file = AcquireFile();
  if (!file) return false;
  handler_->BeginClose(file);
  if (cache) cache->Cancel(this);
  handler_->Cancel(file);
  bool closed = false;
  {
    StateLock lock(stateLock_.get(), handler_);
    // Another Close may have been faster, and an Open after it.
    if (file_ == file) {
      file_ = nullptr;
      closed = true;
    }
  }
  if (closed) file->DecRef(kFile, "Orvane::NativeFileSourceAsync::Close", __LINE__);
  file->DecRef(kFile, "Orvane::NativeFileSourceAsync::Close", __LINE__);
  return closed;
}

bool NativeFileSourceAsync::IsOpenForRead() {
  StateLock lock(stateLock_.get(), handler_);
  return openedForRead_;
}

bool NativeFileSourceAsync::IsOpenForWrite() {
  StateLock lock(stateLock_.get(), handler_);
  return openedForWrite_;
}

bool NativeFileSourceAsync::Delete() {
  SharedObjectAutoRef keep(this);
  const char* const name = GetName();
  if (!name) return false;
  Close();
  return DeleteHostFile(name);
}

bool NativeFileSourceAsync::CanGatherReads() {
  return true;
}

FileSource::Result_t NativeFileSourceAsync::ReadAsyncWithListNonCached(
    std::uint64_t offset, BufferList* list, ResultCallbackBufferList* callback, std::uint32_t) {
  return Submit(AsyncHandler::kRead, offset, list, callback);
}

FileSource::Result_t NativeFileSourceAsync::WriteAsyncWithListNonCached(
    std::uint64_t offset, BufferList* list, ResultCallbackBufferList* callback, std::uint32_t) {
  return Submit(AsyncHandler::kWrite, offset, list, callback);
}

void NativeFileSourceAsync::CancelNonCached() {
  HostFile* const file = AcquireFile();
  if (!file) return;
  handler_->Cancel(file);
  file->DecRef(kFile, "Orvane::NativeFileSourceAsync::CancelNonCached", __LINE__);
}

FileSource::Result_t NativeFileSourceAsync::Submit(AsyncHandler::Direction direction,
                                                   std::uint64_t offset, BufferList* list,
                                                   ResultCallbackBufferList* callback) {
  // Asked first: in the child of a fork nothing is to be locked.
  if (!handler_->IsRunning()) return kResultNotSupported;
  HostFile* file = nullptr;
  {
    StateLock lock(stateLock_.get(), handler_);
    const bool opened = direction == AsyncHandler::kRead ? openedForRead_ : openedForWrite_;
    if (!file_ || !opened) return kResultNotSupported;
    file = file_;
    file->AddRef(kFile, "Orvane::NativeFileSourceAsync::Submit", __LINE__);
  }
  const Result_t result =
      handler_->Submit(direction, file, list, offset, kQueueTimeoutMs, callback);
  file->DecRef(kFile, "Orvane::NativeFileSourceAsync::Submit", __LINE__);
  return result;
}

HostFile* NativeFileSourceAsync::AcquireFile() {
  StateLock lock(stateLock_.get(), handler_);
  if (file_) file_->AddRef(kFile, "Orvane::NativeFileSourceAsync::AcquireFile", __LINE__);
  return file_;
}

}  // namespace Orvane
