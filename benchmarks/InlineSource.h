// A file source without a file, whose reads end inside the call that starts them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Orvane.h"

namespace bench {

// Of any length. Unless told to fill them, it leaves the buffers as they were, so that only the
// library's own cost counts.
class InlineSource : public Orvane::FileSource {
 public:
  // Attaches the cache.
  explicit InlineSource(Orvane::Cache* cache) { UseCache(cache); }

  // Whether reads fill the buffers: memory that nobody has written to is no memory yet.
  // REQUIRES: no read is under way.
  void FillBuffers(bool fills) { fills_ = fills; }

  bool CanGatherReads() override { return true; }
  Result_t ReadAsyncWithListNonCached(std::uint64_t offset, Orvane::BufferList* list,
                                      ResultCallbackBufferList* callback, std::uint32_t) override {
    if (fills_) Fill(list);
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

 private:
  static void Fill(Orvane::BufferList* list) {
    for (std::size_t k = 0; k < list->GetNumberOfBuffers(); ++k) {
      Orvane::Buffer* const buffer = list->GetBuffer(k);
      const Orvane::BufferLockAuto lock(buffer);
      std::memset(buffer->GetVirtualAddress(), 1, buffer->GetSize());
    }
  }

  bool fills_ = false;
};

}  // namespace bench
