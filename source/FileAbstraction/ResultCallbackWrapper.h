// Turns the one completion of a list operation into what a caller of FileSource waits for.
#pragma once

#include <memory>

#include "FileSource.h"
#include "MTInterface.h"
#include "OSServices/ReportScope.h"

namespace Orvane {

// Made by one call of FileSource. A synchronous wrapper has a semaphore and lives to the end of
// Wait, or of the wake-up if that is later; an asynchronous one passes the report on to the
// caller's callback, on which it holds a reference, and then drops itself. The result is stored
// after the bytes and read atomically, so a waiter that sees it sees them.
class ResultCallbackWrapper : public FileSource::ResultCallbackBufferList, private DeferredReport {
 public:
  // Synchronous, over `buffer` or, with null, over a list of the caller's.
  explicit ResultCallbackWrapper(Buffer* buffer);
  // Asynchronous; `callback` may be null.
  ResultCallbackWrapper(FileSource::ResultCallbackBuffer* callback, Buffer* buffer);

  // False for an asynchronous wrapper, and for a synchronous one that the host gave no semaphore.
  bool HasSemaphore() const { return semaphore_ != nullptr; }
  // The list of the one buffer, or null. The reference is the wrapper's.
  BufferList* GetList() const { return list_; }
  // On the thread that completes the request.
  void Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                std::uint64_t bytes) override;
  // Blocks until the completion, gives back the list, drops the wrapper.
  // REQUIRES: HasSemaphore().
  CacheSource::Result_t Wait(std::uint64_t* bytes);

 protected:
  ~ResultCallbackWrapper() override;

 private:
  void FinishReport() override;
  void TellCaller(CacheSource::Result_t result, std::uint64_t offset, Buffer* buffer,
                  std::uint64_t bytes);
  void MakeList(Buffer* buffer, unsigned long line);
  void ReleaseList();
  CacheSource::Result_t GetResult();

  const std::unique_ptr<MTSemaphore> semaphore_;      // null: asynchronous
  FileSource::ResultCallbackBuffer* const callback_;  // one reference, or null
  const std::unique_ptr<MTAtomicUnsigned32> result_;  // a Result_t; kResultPending until known
  std::uint64_t bytes_ = 0;                           // written before result_
  BufferList* list_ = nullptr;                        // one reference, or null
};

}  // namespace Orvane
