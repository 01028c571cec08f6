#pragma once

#include <cstdint>

#include "FileSource.h"

namespace Orvane {

class Cache;

// Between the end of a write and its caller: blocks that were filled with what the file held before
// are forgotten before anybody is told that the write is over. Drops itself after the report.
class WriteCallbackWrapper : public FileSource::ResultCallbackBufferList {
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
  FileSource* const source_;  // one reference each
  Cache* const cache_;
  FileSource::ResultCallbackBufferList* const callback_;  // one reference, or null
  const std::uint64_t offset_;
  const std::uint64_t size_;
};

}  // namespace Orvane
