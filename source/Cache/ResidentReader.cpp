#include "Cache/ResidentReader.h"

#include <algorithm>

#include "Buffer.h"
#include "BufferList.h"
#include "Cache/CacheBlockList.h"
#include "Cache/CacheStatistics.h"

namespace Orvane {
namespace {

// A hold on a block, for as long as its bytes are copied.
class ResidentHold {
 public:
  explicit ResidentHold(CacheBlock* block) : block_(block) {}
  ~ResidentHold() {
    if (block_) block_->Unlock(CacheSource::kDueASAP);
  }
  ResidentHold(const ResidentHold&) = delete;
  ResidentHold& operator=(const ResidentHold&) = delete;

 private:
  CacheBlock* const block_;
};

// To `place` of the buffer or list.
bool Copy(const char* data, std::uint64_t bytes, std::uint64_t place, Buffer* buffer,
          BufferList* list) {
  while (bytes > 0) {
    std::size_t at = static_cast<std::size_t>(place);
    Buffer* const target = buffer ? buffer : list->GetBufferAtOffset(at, &at, nullptr);
    std::size_t moved = 0;
    if (!target) return false;
    // CopyInto takes what there is room for; it only reads the source.
    const Buffer::BufferResult_t result =
        target->CopyInto(const_cast<char*>(data), static_cast<std::size_t>(bytes), at, &moved);
    if (result != Buffer::kBufferOK || moved == 0) return false;
    data += moved;
    bytes -= moved;
    place += moved;
  }
  return true;
}

}  // namespace

ResidentReader::ResidentReader(CacheBlockList* blocks, CacheStatistics* statistics)
    : blocks_(blocks), statistics_(statistics) {}

bool ResidentReader::Read(std::uint32_t sourceKey, std::uint64_t offset, std::uint64_t size,
                          Buffer* buffer, BufferList* list) {
  // Nothing is copied in vain for the lack of the last block.
  const bool isOneBlock = offset % blocks_->GetBlockSize() + size <= blocks_->GetBlockSize();
  if (!isOneBlock && !blocks_->HoldsResident(sourceKey, offset, size)) return false;
  std::uint64_t done = 0;
  std::uint32_t blocks = 0;
  while (done < size) {
    const char* address = nullptr;
    std::uint64_t bytes = 0;
    CacheBlock* const block =
        blocks_->LockResident(sourceKey, offset + done, size - done, &address, &bytes);
    if (!block) return false;
    ResidentHold hold(block);
    if (!Copy(address, bytes, done, buffer, list)) return false;
    done += bytes;
    ++blocks;
  }
  statistics_->Add(CacheStatistics::kHits, blocks);
  return true;
}

}  // namespace Orvane
