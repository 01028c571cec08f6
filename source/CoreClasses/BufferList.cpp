#include "BufferList.h"

#include <cstdint>

#include "Buffer.h"
#include "BufferArray.h"
#include "PhysMemInterface.h"

namespace Orvane {
namespace {

// What LockAllBuffers learns about the buffers as it goes.
class LockedRange {
 public:
  // Locks the buffer and takes it in; false if it cannot be used.
  bool Add(Buffer* buffer, bool countPages) {
    if (buffer->Lock() != Buffer::kBufferLocked) return false;
    ++counted;
    void* const address = buffer->GetVirtualAddress();
    const std::size_t size = buffer->GetSize();
    if (!address || size == 0) return false;
    if (countPages) {
      const std::uint64_t valid = PhysMemInterface::GetNumberOfValidPagesForBuffer(address, size);
      if (valid == 0) return false;
      pages += static_cast<std::size_t>(valid);
    }
    Extend(address, size);
    return true;
  }

  std::size_t counted = 0;
  std::size_t pages = 0;
  void* firstAddress = nullptr;
  std::size_t contiguousSize = 0;  // 0 once there was a gap

 private:
  void Extend(void* address, std::size_t size) {
    const auto place = reinterpret_cast<std::uintptr_t>(address);
    if (!firstAddress) {
      firstAddress = address;
      contiguousSize = size;
    } else if (contiguousSize != 0) {
      contiguousSize = place == runEnd_ ? contiguousSize + size : 0;
    }
    runEnd_ = place + size;
  }

  std::uintptr_t runEnd_ = 0;
};

void Store(std::size_t* output, std::size_t value) {
  if (output) *output = value;
}

}  // namespace

BufferList::BufferList() : BufferList(1) {}

BufferList::BufferList(std::size_t capacity)
    : buffers_(new BufferArray(capacity)), lockedAddress_(nullptr), totalSize_(0) {}

BufferList::BufferList(Buffer* buffer, bool adoptReference, std::size_t capacity)
    : BufferList(capacity) {
  AddBuffer(buffer, adoptReference);
}

BufferList::~BufferList() {
  delete buffers_;
}

bool BufferList::AddBuffer(Buffer* buffer, bool adoptReference) {
  if (!buffer || buffers_->Contains(buffer)) return false;
  buffers_->Append(buffer, buffer->GetSize());
  // Here and not at the first look: looking is allowed to several threads at once.
  totalSize_ = buffers_->End();
  if (!adoptReference) {
    buffer->AddRef("source/CoreClasses/BufferList", "Orvane::BufferList::AddBuffer", 93);
  }
  return true;
}

Buffer* BufferList::GetBuffer(std::size_t index) {
  return index < buffers_->Count() ? buffers_->At(index).buffer : nullptr;
}

std::size_t BufferList::GetNumberOfBuffers() {
  return buffers_->Count();
}

std::size_t BufferList::GetTotalSizeOfBuffers() {
  return totalSize_ != 0 ? totalSize_ : SumOfSizes();
}

Buffer* BufferList::GetBufferAtOffset(std::size_t offset, std::size_t* offsetInBuffer,
                                      std::size_t* bytesLeftInBuffer) {
  if (totalSize_ == 0 || !buffers_->EndsAscend()) {
    return FindByWalking(offset, offsetInBuffer, bytesLeftInBuffer);
  }
  if (offset >= totalSize_) return nullptr;
  const std::size_t index = buffers_->IndexAtOffset(offset);
  const std::size_t start = index == 0 ? 0 : buffers_->At(index - 1).end;
  Store(offsetInBuffer, offset - start);
  Store(bytesLeftInBuffer, buffers_->At(index).end - offset);
  return buffers_->At(index).buffer;
}

void* BufferList::LockAllBuffers(bool countPages, std::size_t* pageCount,
                                 std::size_t* contiguousSize) {
  LockedRange range;
  const std::size_t count = buffers_->Count();
  bool allGood = true;
  for (std::size_t i = 0; i < count && allGood; ++i) {
    allGood = range.Add(buffers_->At(i).buffer, countPages);
  }
  if (!allGood) {
    // One more than was counted, see the header.
    for (std::size_t i = 0; i <= range.counted && i < count; ++i) buffers_->At(i).buffer->Unlock();
    Store(contiguousSize, 0);
    Store(pageCount, 0);
    return nullptr;
  }
  Store(contiguousSize, range.contiguousSize);
  Store(pageCount, range.pages);
  lockedAddress_ = range.firstAddress;
  return lockedAddress_;
}

void BufferList::UnlockAllBuffers(void* lockedAddress) {
  if (!lockedAddress || lockedAddress != lockedAddress_) return;
  lockedAddress_ = nullptr;
  for (std::size_t i = buffers_->Count(); i > 0; --i) buffers_->At(i - 1).buffer->Unlock();
}

std::size_t BufferList::SumOfSizes() {
  std::size_t sum = 0;
  for (std::size_t i = 0; i < buffers_->Count(); ++i) sum += buffers_->At(i).buffer->GetSize();
  return sum;
}

Buffer* BufferList::FindByWalking(std::size_t offset, std::size_t* offsetInBuffer,
                                  std::size_t* bytesLeftInBuffer) {
  if (offset >= GetTotalSizeOfBuffers()) return nullptr;
  std::size_t start = 0;
  for (std::size_t i = 0; i < buffers_->Count(); ++i) {
    Buffer* const buffer = buffers_->At(i).buffer;
    const std::size_t end = start + buffer->GetSize();
    if (start <= offset && offset < end) {
      Store(offsetInBuffer, offset - start);
      Store(bytesLeftInBuffer, end - offset);
      return buffer;
    }
    start = end;
  }
  return nullptr;
}

}  // namespace Orvane
