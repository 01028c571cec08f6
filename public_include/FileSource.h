// Reads and writes of one buffer or of a list of buffers, synchronous and asynchronous.
#pragma once

#include <cstdint>

#include "CacheSource.h"
#include "Export.h"
#include "MTPrimitives.h"

namespace Orvane {

class Buffer;
class BufferList;

// The cache source backed by a file. It turns every public read and write into one asynchronous
// operation on a buffer list and leaves the file I/O itself to a concrete class, which implements
// ReadAsyncWithListNonCached, WriteAsyncWithListNonCached and CancelNonCached: NativeFileSource for
// files of the host, or an application's own.
//
// Offsets and byte counts are bytes. Due times are milliseconds on the clock of
// MTInterface::GetCurrentTimeMilli. Results are CacheSource::Result_t.
//
// Asynchronous operations answer kResultPending when started and then report exactly once through
// the callback, possibly before the start has returned. Any other answer means that no callback
// follows. A null callback is allowed, except for ReadAsyncWithList with a cache: the operation
// runs and nothing is reported. Synchronous operations wait, and never answer kResultPending. Byte
// counts are written only by a call whose operation was started; the pointer may be null.
//
// With a cache attached (UseCache) reads of any offset and size are served from its blocks, which
// are filled as needed; a synchronous read of what is in memory is copied on the calling thread. A
// cached read that cannot be started answers kResultNotSupported, whatever the reason: a null or
// empty list, no callback, a range that passes 2^64, a source that is being cancelled, a cache
// without blocks. Writes go to the file; before a write starts, the blocks of its range are
// invalidated: cached reads that wait for them end with kResultFailed. When it has ended, whatever
// its result, nothing that was read before is served to a read that starts after the report. Writes
// by others, another source on the same file for instance, are not noticed.
//
// Rules for callbacks. They run on the thread that completes the request, with no lock of the
// library held: the one I/O thread of the process, a thread of the cache, or the thread inside
// whose Cancel, Close, Purge, Invalidate, cached write or last release the request ends. While one
// runs on a thread of the library, others wait: it must not block. Inside it, asynchronous reads
// and writes, PreRead, Invalidate, Cancel, Purge, Close, Delete, statistics and any release (of
// source and cache too) work; on threads of the library synchronous reads and writes answer
// kResultError. An exception that escapes is caught and logged. Outside callbacks, Cancel, Close,
// Delete and the last release of a source wait for reports: hold no lock there that a callback
// takes.
//
// Ownership. Until the callback the library holds a reference on the list, its buffers may be
// locked, and their memory must not be touched. When the callback runs (or the synchronous call
// returns), the buffers are unlocked and the library no longer uses them. One request at a time per
// list. The library holds a reference of the callback object from an accepted start to the end of
// its call.
//
// Safe from any thread.
class ORVANE_EXPORT FileSource : public CacheSource {
 public:
  // A report. `offset` is the start offset of the request, `bytes` how many leading bytes of the
  // list were transferred. The list is valid during the call.
  class ORVANE_EXPORT ResultCallbackBufferList : public SharedObject {
   public:
    virtual void Callback(Result_t result, std::uint64_t offset, BufferList* list,
                          std::uint64_t bytes) = 0;

   protected:
    ResultCallbackBufferList();
    ~ResultCallbackBufferList() override;
  };

  class ORVANE_EXPORT ResultCallbackBuffer : public SharedObject {
   public:
    virtual void Callback(Result_t result, std::uint64_t offset, Buffer* buffer,
                          std::uint64_t bytes) = 0;

   protected:
    ResultCallbackBuffer();
    ~ResultCallbackBuffer() override;
  };

  // Reads into a buffer or a list. kResultOK with all bytes, kResultPartial with the bytes before
  // the end of the file, kResultOutOfRange at or behind it; kResultError for a null argument
  // (kResultNotSupported with a cache), on a thread of the library, or when the host fails; or the
  // answer of a start that failed.
  virtual Result_t Read(std::uint64_t offset, Buffer* buffer, std::uint64_t* bytesRead);
  virtual Result_t ReadWithList(std::uint64_t offset, BufferList* list, std::uint64_t* bytesRead);

  // Starts a read. When ReadAsync fails at once it also releases one reference of `callback`: the
  // caller hands one over with such a call. ReadAsyncWithList releases nothing on failure.
  virtual Result_t ReadAsync(std::uint64_t offset, Buffer* buffer, ResultCallbackBuffer* callback,
                             std::uint32_t dueTime);
  virtual Result_t ReadAsyncWithList(std::uint64_t offset, BufferList* list,
                                     ResultCallbackBufferList* callback, std::uint32_t dueTime);
  // The file read itself, past any cache. An implementation keeps `callback` alive (a reference)
  // from a start that it answers with kResultPending to the end of the call.
  virtual Result_t ReadAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                              ResultCallbackBufferList* callback,
                                              std::uint32_t dueTime) = 0;

  // Asks for a range to be fetched ahead of need, see Cache::PreRead. Does nothing on a source
  // without a cache unless the concrete class supports pre-reads itself.
  virtual void PreRead(std::uint64_t offset, std::uint64_t size, std::uint32_t dueTime,
                       MTThread::MTPriority priority);
  virtual void PreReadNonCached(std::uint64_t offset, std::uint64_t size, std::uint32_t dueTime,
                                MTThread::MTPriority priority);
  virtual bool SupportsPreReads();

  // Writes, as the reads. Writes never go through a cache.
  virtual Result_t Write(std::uint64_t offset, Buffer* buffer, std::uint64_t* bytesWritten);
  virtual Result_t WriteWithList(std::uint64_t offset, BufferList* list,
                                 std::uint64_t* bytesWritten);
  virtual Result_t WriteAsync(std::uint64_t offset, Buffer* buffer, ResultCallbackBuffer* callback,
                              std::uint32_t dueTime);
  virtual Result_t WriteAsyncWithList(std::uint64_t offset, BufferList* list,
                                      ResultCallbackBufferList* callback, std::uint32_t dueTime);
  virtual Result_t WriteAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                               ResultCallbackBufferList* callback,
                                               std::uint32_t dueTime) = 0;

  // Cancels every outstanding request of this source, cached or not. Each is reported
  // (kResultFailed, 0 bytes) before Cancel returns, and only after the host has let go of its
  // buffers, so Cancel waits for a transfer that the host cannot stop. Works inside callbacks.
  virtual void Cancel();
  virtual void CancelNonCached() = 0;

 protected:
  FileSource();
  ~FileSource() override;

  Result_t ReadTransaction(CacheTransaction* transaction) override;
  void CancelAllTransactions() override;
  void PreReadTransaction(CacheTransaction* transaction) override;
  bool SupportsPreReadTransactions() override;

 private:
  bool ReadResident(std::uint64_t offset, Buffer* buffer, BufferList* list, std::uint64_t size,
                    std::uint64_t* bytesRead);
};

}  // namespace Orvane
