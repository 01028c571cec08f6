// A native file over the process-wide asynchronous handler; what all hosts share.
#pragma once

#include <memory>

#include "NativeFileSysInterface.h"
#include "OSServices/AsyncHandler.h"
#include "OSServices/HostFile.h"

namespace Orvane {

// Closed (no file) or open (one reference on a HostFile). A host derives from it and opens and
// deletes its files. stateLock_ guards file and flags and is held only to look at or change them;
// requests are submitted outside it with a reference of their own, so that Close, which first marks
// the file and then cancels, either finds a request or keeps it out. Files are opened outside it.
class NativeFileSourceAsync : public NativeFileSource {
 public:
  bool Open(bool forRead, bool forWrite, bool create) override;
  bool Close() override;
  bool IsOpenForRead() override;
  bool IsOpenForWrite() override;
  bool Delete() override;

  bool CanGatherReads() override;
  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                      ResultCallbackBufferList* callback,
                                      std::uint32_t dueTime) override;
  Result_t WriteAsyncWithListNonCached(std::uint64_t offset, BufferList* list,
                                       ResultCallbackBufferList* callback,
                                       std::uint32_t dueTime) override;
  void CancelNonCached() override;

 protected:
  // `handler` is not owned and outlives the source.
  NativeFileSourceAsync(const char* name, AsyncHandler* handler);
  ~NativeFileSourceAsync() override;

  // The host's. A new file with one reference, also for a file that cannot be opened; null only
  // where the host can represent neither.
  virtual HostFile* OpenHostFile(const char* name, bool forRead, bool forWrite, bool create) = 0;
  virtual bool DeleteHostFile(const char* name) = 0;

 private:
  bool CloseFile(Cache* cache);
  Result_t Submit(AsyncHandler::Direction direction, std::uint64_t offset, BufferList* list,
                  ResultCallbackBufferList* callback);
  // The open file with a reference for the caller, or null.
  HostFile* AcquireFile();

  AsyncHandler* const handler_;
  const std::unique_ptr<MTCritSec> stateLock_;
  HostFile* file_ ORVANE_GUARDED_BY(stateLock_) = nullptr;
  bool openedForRead_ ORVANE_GUARDED_BY(stateLock_) = false;
  bool openedForWrite_ ORVANE_GUARDED_BY(stateLock_) = false;
};

}  // namespace Orvane
