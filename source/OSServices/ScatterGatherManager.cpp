#include "OSServices/ScatterGatherManager.h"

#include <new>

#include "Buffer.h"
#include "BufferList.h"
#include "MTInterface.h"
#include "PhysMemInterface.h"

namespace Orvane {
namespace {

// KEPT: the name under which tracing configurations know the call sites, on every host.
constexpr const char* kFile = "source/OSServices/Win/ScatterGatherManager";

bool IsMadeOfPages(Buffer* buffer) {
  if (!buffer) return false;
  const std::uint64_t size = buffer->GetSize();
  void* const address = buffer->GetAddress();
  if (PhysMemInterface::GetNumberOfValidPagesForBuffer(address, size) == 0) return false;
  if (buffer->GetVirtualAddress() == address) return true;
  // The one that counts is that of the locked buffer.
  const BufferLockAuto lock(buffer);
  return lock.IsLocked() &&
         PhysMemInterface::GetNumberOfValidPagesForBuffer(buffer->GetVirtualAddress(), size) != 0;
}

void Advance(MemoryRun* run, std::size_t bytes) {
  run->address = static_cast<char*>(run->address) + bytes;
  run->length -= bytes;
}

void Restore(MemoryRun* run, std::size_t bytes) {
  run->address = static_cast<char*>(run->address) - bytes;
  run->length += bytes;
}

}  // namespace

ScatterGatherManager::ScatterGatherManager() = default;

ScatterGatherManager::~ScatterGatherManager() {
  StopUsingBufferList();
}

bool ScatterGatherManager::StartUsingBufferList(BufferList* list) {
  if (!list || list_ || PhysMemInterface::GetPageSize() == 0) return false;
  std::size_t pageCount = 0;
  std::size_t contiguousLength = 0;
  void* token = nullptr;
  try {
    if (!CanBeUsed(list)) return false;
    token = list->LockAllBuffers(/*countPages=*/true, &pageCount, &contiguousLength);
  } catch (...) {
    MTInterface::DebugString("Unhandled Exception Locking A Buffer\n");
  }
  if (!token) return false;

  list_ = list;
  list_->AddRef(kFile, "Orvane::ScatterGatherManager::StartUsingBufferList", 47);
  lockToken_ = token;
  contiguousLength_ = contiguousLength;
  if (Describe(pageCount)) return true;
  StopUsingBufferList();
  return false;
}

bool ScatterGatherManager::StopUsingBufferList() {
  if (!list_) return true;
  try {
    list_->UnlockAllBuffers(lockToken_);
  } catch (...) {
    MTInterface::DebugString("Unhandled Exception Unlocking A Buffer\n");
  }
  list_->DecRef(kFile, "Orvane::ScatterGatherManager::StopUsingBufferList", 116);
  list_ = nullptr;
  lockToken_ = nullptr;
  contiguousLength_ = 0;
  totalBytes_ = 0;
  runCount_ = 0;
  firstRun_ = 0;
  firstRunStart_ = 0;
  bytesCut_ = 0;
  return true;
}

void* ScatterGatherManager::GetContiguousRange(std::uint64_t* length) {
  if (length) *length = contiguousLength_;
  return contiguousLength_ != 0 ? lockToken_ : nullptr;
}

std::uint64_t* ScatterGatherManager::GetSegmentArray(std::uint64_t* totalBytes) {
  if (totalBytes) *totalBytes = totalBytes_;
  return list_ ? segments_.get() : nullptr;
}

const MemoryRun* ScatterGatherManager::GetRuns(std::size_t* count) {
  const std::size_t left = runCount_ - firstRun_;
  if (count) *count = left;
  return left != 0 ? &runs_[firstRun_] : nullptr;
}

void ScatterGatherManager::SetProgress(std::uint64_t bytesDone) {
  if (!list_) return;
  if (bytesCut_ != 0) Restore(&runs_[firstRun_], bytesCut_);
  bytesCut_ = 0;
  while (firstRun_ > 0 && bytesDone < firstRunStart_) {
    firstRunStart_ -= runs_[--firstRun_].length;
  }
  while (firstRun_ < runCount_ && bytesDone - firstRunStart_ >= runs_[firstRun_].length) {
    firstRunStart_ += runs_[firstRun_++].length;
  }
  if (firstRun_ == runCount_) return;
  bytesCut_ = static_cast<std::size_t>(bytesDone - firstRunStart_);
  Advance(&runs_[firstRun_], bytesCut_);
}

bool ScatterGatherManager::CanBeUsed(BufferList* list) const {
  const std::size_t count = list->GetNumberOfBuffers();
  for (std::size_t i = 0; i < count; ++i) {
    if (!IsMadeOfPages(list->GetBuffer(i))) return false;
  }
  return count != 0;
}

// Fills both arrays from the locked list.
bool ScatterGatherManager::Describe(std::size_t pageCount) {
  const std::size_t count = list_->GetNumberOfBuffers();
  if (!Grow(pageCount, count)) return false;
  std::uint64_t index = 0;
  for (std::size_t i = 0; i < count; ++i) {
    Buffer* const buffer = list_->GetBuffer(i);
    if (!EnterBuffer(buffer->GetAddress(), buffer->GetSize(), &index)) return false;
  }
  return true;
}

bool ScatterGatherManager::EnterBuffer(void* address, std::uint64_t size, std::uint64_t* index) {
  const std::uint64_t pages = PhysMemInterface::GetNumberOfValidPagesForBuffer(address, size);
  if (pages == 0 || pages > segmentCapacity_ - *index) return false;
  const std::uint64_t pageSize = PhysMemInterface::GetPageSize();
  std::uint64_t page = reinterpret_cast<std::uintptr_t>(address);
  std::uint64_t* entry = &segments_[*index];
  for (std::uint64_t i = 0; i < pages; ++i, page += pageSize) *entry++ = page;
  *entry = 0;
  *index += pages;
  totalBytes_ += size;
  EnterRun(address, size);
  return true;
}

void ScatterGatherManager::EnterRun(void* address, std::uint64_t size) {
  if (runCount_ > 0) {
    MemoryRun& last = runs_[runCount_ - 1];
    if (static_cast<char*>(last.address) + last.length == address) {
      last.length += static_cast<std::size_t>(size);
      return;
    }
  }
  runs_[runCount_++] = {address, static_cast<std::size_t>(size)};
}

// Both or none; the old arrays stay until the new ones are there.
bool ScatterGatherManager::Grow(std::size_t pageCount, std::size_t bufferCount) {
  const bool growSegments = pageCount > segmentCapacity_;
  const bool growRuns = bufferCount > runCapacity_;
  if (!growSegments && !growRuns) return true;
  std::unique_ptr<std::uint64_t[]> segments;
  std::unique_ptr<MemoryRun[]> runs;
  try {
    if (growSegments) segments.reset(new std::uint64_t[pageCount + 1]);
    if (growRuns) runs.reset(new MemoryRun[bufferCount]);
  } catch (const std::bad_alloc&) {
    return false;
  }
  if (growSegments) {
    segments_ = std::move(segments);
    segmentCapacity_ = pageCount;
  }
  if (growRuns) {
    runs_ = std::move(runs);
    runCapacity_ = bufferCount;
  }
  return true;
}

}  // namespace Orvane
