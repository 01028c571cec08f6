// A file source without a file, whose reads end inside the call that starts them.
#pragma once

#include <cstdint>

#include "Orvane.h"

namespace bench {

// Of any length. What is read stays in the buffers as it was, so that only the library's own cost
// counts.
class InlineSource : public Orvane::FileSource {
 public:
  // Attaches the cache.
  explicit InlineSource(Orvane::Cache* cache) { UseCache(cache); }

  bool CanGatherReads() override { return true; }
  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, Orvane::BufferList* list,
                                      ResultCallbackBufferList* callback, std::uint32_t) override {
    callback->Callback(kResultOK, offset, list, list->GetTotalSizeOfBuffers());
    return kResultPending;
  }
  Result_t WriteAsyncWithListNonCached(std::uint64_t, Orvane::BufferList*,
                                       ResultCallbackBufferList*, std::uint32_t) override {
    return kResultNotSupported;
  }
  void CancelNonCached() override {}

 protected:
  ~InlineSource() override = default;
};

}  // namespace bench
