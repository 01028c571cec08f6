#include "FileSource.h"

#include "Buffer.h"
#include "BufferList.h"
#include "Cache.h"
#include "CacheTransaction.h"
#include "FileAbstraction/ResidentReadCommand.h"
#include "FileAbstraction/ResultBufferListWrapper.h"
#include "FileAbstraction/ResultCallbackWrapper.h"
#include "FileAbstraction/TransactionWrapper.h"
#include "FileAbstraction/WriteCallbackWrapper.h"
#include "OSServices/LibraryThread.h"

namespace Orvane {
namespace {

constexpr const char* kFile = "source/FileAbstraction/FileSource";

// The asynchronous operation that a synchronous or single-buffer one is made of.
using ListOperation = CacheSource::Result_t (FileSource::*)(std::uint64_t, BufferList*,
                                                            FileSource::ResultCallbackBufferList*,
                                                            std::uint32_t);

// Where the wrapper of a call is dropped, for tracing.
struct CallSite {
  const char* function;
  unsigned long line;
};

CacheSource::Result_t RunSynchronously(FileSource* source, ListOperation operation,
                                       std::uint64_t offset, Buffer* buffer, BufferList* list,
                                       std::uint64_t* bytes, CallSite site) {
  // This thread would wait for itself.
  if (LibraryThreadMark::IsSetOnThisThread()) return CacheSource::kResultError;
  auto* wrapper = new ResultCallbackWrapper(buffer);
  CacheSource::Result_t result = CacheSource::kResultError;
  // Without it nothing is started: there would be no way to wait for the end.
  if (wrapper->HasSemaphore()) {
    try {
      result = (source->*operation)(offset, buffer ? wrapper->GetList() : list, wrapper,
                                    CacheSource::kDueASAP);
    } catch (...) {
      wrapper->DecRef(kFile, site.function, site.line);
      throw;
    }
  }
  if (result == CacheSource::kResultPending) return wrapper->Wait(bytes);
  wrapper->DecRef(kFile, site.function, site.line);
  return result;
}

CacheSource::Result_t StartWithBuffer(FileSource* source, ListOperation operation,
                                      std::uint64_t offset, Buffer* buffer,
                                      FileSource::ResultCallbackBuffer* callback,
                                      std::uint32_t dueTime, CallSite site) {
  CacheSource::Result_t result = CacheSource::kResultError;
  if (buffer) {
    auto* wrapper = new ResultCallbackWrapper(callback, buffer);
    try {
      result = (source->*operation)(offset, wrapper->GetList(), wrapper, dueTime);
    } catch (...) {
      wrapper->DecRef(kFile, site.function, site.line);
      throw;
    }
    // Once started, the wrapper may be gone.
    if (result == CacheSource::kResultPending) return result;
    wrapper->DecRef(kFile, site.function, site.line);
  }
  if (callback) callback->DecRef(kFile, site.function, site.line);
  return result;
}

}  // namespace

FileSource::ResultCallbackBufferList::ResultCallbackBufferList() = default;
FileSource::ResultCallbackBufferList::~ResultCallbackBufferList() = default;
FileSource::ResultCallbackBuffer::ResultCallbackBuffer() = default;
FileSource::ResultCallbackBuffer::~ResultCallbackBuffer() = default;

FileSource::FileSource() = default;
FileSource::~FileSource() = default;

FileSource::Result_t FileSource::Read(std::uint64_t offset, Buffer* buffer,
                                      std::uint64_t* bytesRead) {
  if (!buffer) return GetCache() ? kResultNotSupported : kResultError;
  if (ReadResident(offset, buffer, nullptr, buffer->GetSize(), bytesRead)) return kResultOK;
  return RunSynchronously(this, &FileSource::ReadAsyncWithList, offset, buffer, nullptr, bytesRead,
                          {"Orvane::FileSource::Read", 279});
}

FileSource::Result_t FileSource::ReadWithList(std::uint64_t offset, BufferList* list,
                                              std::uint64_t* bytesRead) {
  if (!list) return GetCache() ? kResultNotSupported : kResultError;
  if (ReadResident(offset, nullptr, list, list->GetTotalSizeOfBuffers(), bytesRead)) {
    return kResultOK;
  }
  return RunSynchronously(this, &FileSource::ReadAsyncWithList, offset, nullptr, list, bytesRead,
                          {"Orvane::FileSource::ReadWithList", 291});
}

// Without another thread, when everything is in memory.
bool FileSource::ReadResident(std::uint64_t offset, Buffer* buffer, BufferList* list,
                              std::uint64_t size, std::uint64_t* bytesRead) {
  Cache* const cache = GetCache();
  if (!cache || LibraryThreadMark::IsSetOnThisThread()) return false;
  if (!cache->ReadResident(this, offset, buffer, list, size, kDueASAP)) return false;
  if (bytesRead) *bytesRead = size;
  return true;
}

FileSource::Result_t FileSource::ReadAsync(std::uint64_t offset, Buffer* buffer,
                                           ResultCallbackBuffer* callback, std::uint32_t dueTime) {
  return StartWithBuffer(this, &FileSource::ReadAsyncWithList, offset, buffer, callback, dueTime,
                         {"Orvane::FileSource::ReadAsync", 303});
}

FileSource::Result_t FileSource::ReadAsyncWithList(std::uint64_t offset, BufferList* list,
                                                   ResultCallbackBufferList* callback,
                                                   std::uint32_t dueTime) {
  Cache* const cache = GetCache();
  if (!cache) {
    return list ? ReadAsyncWithListNonCached(offset, list, callback, dueTime) : kResultError;
  }
  // Whatever keeps a cached read from starting is answered with this one code.
  if (!list || !callback || list->GetTotalSizeOfBuffers() == 0) return kResultNotSupported;
  if (ResidentReadCommand::Start(this, cache, offset, list, callback, dueTime) == kResultPending) {
    return kResultPending;
  }
  auto* const wrapper = new ResultBufferListWrapper(this, cache, offset, list, callback, dueTime);
  return wrapper->Initiate();
}

void FileSource::PreRead(std::uint64_t offset, std::uint64_t size, std::uint32_t dueTime,
                         MTThread::MTPriority priority) {
  if (Cache* const cache = GetCache()) {
    cache->PreRead(this, offset, size, dueTime, priority);
  } else {
    PreReadNonCached(offset, size, dueTime, priority);
  }
}

void FileSource::PreReadNonCached(std::uint64_t, std::uint64_t, std::uint32_t,
                                  MTThread::MTPriority) {}

bool FileSource::SupportsPreReads() {
  return false;
}

FileSource::Result_t FileSource::Write(std::uint64_t offset, Buffer* buffer,
                                       std::uint64_t* bytesWritten) {
  if (!buffer) return kResultError;
  return RunSynchronously(this, &FileSource::WriteAsyncWithList, offset, buffer, nullptr,
                          bytesWritten, {"Orvane::FileSource::Write", 327});
}

FileSource::Result_t FileSource::WriteWithList(std::uint64_t offset, BufferList* list,
                                               std::uint64_t* bytesWritten) {
  if (!list) return kResultError;
  return RunSynchronously(this, &FileSource::WriteAsyncWithList, offset, nullptr, list,
                          bytesWritten, {"Orvane::FileSource::WriteWithList", 339});
}

FileSource::Result_t FileSource::WriteAsync(std::uint64_t offset, Buffer* buffer,
                                            ResultCallbackBuffer* callback, std::uint32_t dueTime) {
  return StartWithBuffer(this, &FileSource::WriteAsyncWithList, offset, buffer, callback, dueTime,
                         {"Orvane::FileSource::WriteAsync", 351});
}

FileSource::Result_t FileSource::WriteAsyncWithList(std::uint64_t offset, BufferList* list,
                                                    ResultCallbackBufferList* callback,
                                                    std::uint32_t dueTime) {
  if (!list) return kResultError;
  Cache* const cache = GetCache();
  if (!cache) return WriteAsyncWithListNonCached(offset, list, callback, dueTime);
  const std::uint64_t size = list->GetTotalSizeOfBuffers();
  auto* const wrapper = new WriteCallbackWrapper(this, cache, offset, size, callback);
  Result_t result = kResultError;
  try {
    cache->Invalidate(this, offset, size);
    result = WriteAsyncWithListNonCached(offset, list, wrapper, dueTime);
  } catch (...) {
    wrapper->Abandon();
    throw;
  }
  // Once started, the wrapper may be gone.
  if (result != kResultPending) wrapper->Abandon();
  return result;
}

void FileSource::Cancel() {
  // A report may give up the last reference.
  SharedObjectAutoRef keep(this);
  if (Cache* const cache = GetCache()) {
    cache->Cancel(this);
  } else {
    CancelNonCached();
  }
}

FileSource::Result_t FileSource::ReadTransaction(CacheTransaction* transaction) {
  if (!transaction) return kResultNotSupported;
  auto* const wrapper = new TransactionWrapper(transaction, this);
  Result_t result = kResultNotSupported;
  try {
    result = ReadAsyncWithListNonCached(transaction->GetOffset(), transaction->GetBufferList(),
                                        wrapper, transaction->GetDueTime());
  } catch (...) {
    wrapper->DecRef(kFile, "Orvane::FileSource::ReadTransaction", 369);
    throw;
  }
  // Once started, the wrapper may be gone.
  if (result == kResultPending) return result;
  wrapper->DecRef(kFile, "Orvane::FileSource::ReadTransaction", 369);
  return result;
}

void FileSource::CancelAllTransactions() {
  CancelNonCached();
}

void FileSource::PreReadTransaction(CacheTransaction* transaction) {
  if (!transaction || !SupportsPreReads()) return;
  PreReadNonCached(transaction->GetOffset(), transaction->GetSize(), transaction->GetDueTime(),
                   transaction->GetPriority());
}

bool FileSource::SupportsPreReadTransactions() {
  return SupportsPreReads();
}

}  // namespace Orvane
