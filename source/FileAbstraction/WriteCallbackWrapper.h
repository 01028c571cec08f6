#pragma once

#include <cstdint>

#include "Cache/ReportRegistry.h"
#include "FileSource.h"
#include "OSServices/ReportScope.h"

namespace Orvane {

class Cache;

// Between the end of a write and its caller: blocks that were filled with what the file held before
// are forgotten before anybody is told that the write is over. The report waits until every lock of
// the library was left: a cancel of the source ends writes while it holds the threads of the cache.
// Drops itself after the report.
class WriteCallbackWrapper : public FileSource::ResultCallbackBufferList, private DeferredReport {
 public:
  // `callback` may be null.
  WriteCallbackWrapper(FileSource* source, Cache* cache, std::uint64_t offset, std::uint64_t size,
                       FileSource::ResultCallbackBufferList* callback);

  void Callback(CacheSource::Result_t result, std::uint64_t offset, BufferList* list,
                std::uint64_t bytes) override;
  // Instead of a report, when the write did not start.
  void Abandon();

 protected:
  ~WriteCallbackWrapper() override;

 private:
  void FinishReport() override;

  FileSource* const source_;  // one reference each
  Cache* const cache_;
  FileSource::ResultCallbackBufferList* const callback_;  // one reference, or null
  const std::uint64_t offset_;
  const std::uint64_t size_;

  // What is reported.
  CacheSource::Result_t result_ = CacheSource::kResultPending;
  std::uint64_t reportedOffset_ = 0;
  BufferList* list_ = nullptr;  // one reference, or null
  std::uint64_t bytes_ = 0;
  ReportRegistry::Entry entry_;  // from the end of the write to that of the report
};

}  // namespace Orvane
