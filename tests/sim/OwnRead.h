// Reads that an application makes with transactions of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "CacheTransaction.h"
#include "SimBench.h"

namespace Orvane {

// One read of a source through a cache, which need not be the source's. Its report is checked.
// REQUIRES: nobody writes to the file.
class OwnRead {
 public:
  OwnRead(SimSource* source, std::uint64_t offset, std::uint64_t size);
  // REQUIRES: it is over, and no thread of the library goes on with it.
  ~OwnRead();
  OwnRead(const OwnRead&) = delete;
  OwnRead& operator=(const OwnRead&) = delete;

  // `sinceMicro`: when the first read of the file was started.
  void Start(Cache* cache, std::uint64_t sinceMicro);
  bool IsOver() const { return isOver_; }

 private:
  class Status;

  void Report(CacheSource::Result_t result, std::uint64_t bytes);
  void CheckData(std::uint64_t bytes) const;
  bool Make();
  void Release();
  [[noreturn]] void Fail(const char* what) const;

  SimSource* const source_;
  const std::uint64_t offset_;
  const std::uint64_t size_;
  SimMemory memory_;
  bool hasBlocks_ = false;
  std::uint64_t sinceMicro_ = 0;
  bool isOver_ = false;
  int reports_ = 0;
  CacheSource::Result_t result_ = CacheSource::kResultNone;
  std::uint64_t bytes_ = 0;
  // One reference each.
  std::vector<Buffer*> buffers_;
  BufferList* list_ = nullptr;
  CacheTransaction* transaction_ = nullptr;
  CacheTransaction::StatusCallback* status_ = nullptr;
};

class OwnReads {
 public:
  OwnReads() = default;
  // Waits for them. REQUIRES: nothing keeps them for ever.
  ~OwnReads();
  OwnReads(const OwnReads&) = delete;
  OwnReads& operator=(const OwnReads&) = delete;

  void Start(Cache* cache, SimSource& source, std::uint64_t offset, std::uint64_t size);
  void RequireOver(const char* when) const;
  bool AreOver() const;

 private:
  std::vector<std::unique_ptr<OwnRead>> reads_;
  std::uint64_t sinceMicro_ = 0;  // of the first
};

}  // namespace Orvane
