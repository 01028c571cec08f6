// One asynchronous read of a file source through its cache.
#pragma once

#include <cstdint>

#include "Cache/ReportRegistry.h"
#include "CacheTransaction.h"
#include "FileSource.h"
#include "OSServices/ReportScope.h"

namespace Orvane {

// Makes the transaction of the read and passes its outcome on, after every lock of the library was
// left. It and its transaction hold references on each other until then; the last thing that it
// does is to drop itself.
class ResultBufferListWrapper : public CacheTransaction::StatusCallback, private DeferredReport {
 public:
  // REQUIRES: nothing is null.
  ResultBufferListWrapper(FileSource* source, Cache* cache, std::uint64_t offset, BufferList* list,
                          FileSource::ResultCallbackBufferList* callback, std::uint32_t dueTime);

  // kResultPending: started, and possibly over and gone already. Otherwise kResultNotSupported,
  // whatever the cache's reason: the wrapper is gone and nothing is reported.
  CacheSource::Result_t Initiate();
  // For a read whose caller was told already that it is pending: a refusal is reported,
  // kResultFailed while the source is being cancelled, else kResultError.
  void InitiateOrReport();

  // Inside the transaction's lock.
  void Callback(CacheSource::Result_t result, CacheTransaction* transaction,
                std::uint64_t bytes) override;

 protected:
  ~ResultBufferListWrapper() override;

 private:
  void FinishReport() override;

  FileSource* const source_;  // one reference each
  Cache* const cache_;
  FileSource::ResultCallbackBufferList* const callback_;
  CacheTransaction* transaction_ = nullptr;
  CacheSource::Result_t result_ = CacheSource::kResultPending;
  std::uint64_t bytes_ = 0;
  ReportRegistry::Entry entry_;  // from the end of the read to that of the report
};

}  // namespace Orvane
