// Turns a buffer list into what scatter/gather transfers take.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace Orvane {

class BufferList;

// A stretch of memory.
struct MemoryRun {
  void* address;
  std::size_t length;  // bytes
};

// Holds a list of page-aligned buffers locked while a transfer is in flight and describes its
// memory twice: page by page, as an array of addresses with a 0 behind the last, and as runs, in
// which neighbours that lie back to back are merged.
//
// | state  | meaning                                       | left by                        |
// |--------|-----------------------------------------------|--------------------------------|
// | idle   | no list; nothing is locked or referenced      | StartUsingBufferList           |
// | in use | one list, its buffers locked, one reference   | StopUsingBufferList, deletion  |
//
// Serves one transfer after another and is not locked: its owner serialises its use. Both arrays
// are kept between uses and only grown, so the steady state allocates nothing. Never throws.
class ScatterGatherManager {
 public:
  ScatterGatherManager();
  virtual ~ScatterGatherManager();
  ScatterGatherManager(const ScatterGatherManager&) = delete;
  ScatterGatherManager& operator=(const ScatterGatherManager&) = delete;

  // Idle to in use. False, with nothing locked or referenced, for null, for a list without buffers,
  // while another one is in use, before page memory is installed, if a buffer is not made of whole
  // aligned pages or does not lock, and when memory for the arrays is short.
  // Every buffer is examined by itself first, if need be locked for the look alone:
  // BufferList::LockAllBuffers unlocks one buffer too many when it fails a check, so that must not
  // happen here. What Lock or Unlock of a buffer throw is caught and logged.
  bool StartUsingBufferList(BufferList* list);
  // In use to idle; the list may be gone afterwards. Always true, also when idle.
  bool StopUsingBufferList();

  // The memory of the list if it is one stretch, else null (also when idle). *length becomes its
  // bytes or 0; may be null.
  void* GetContiguousRange(std::uint64_t* length);
  // The page addresses, a 0 behind the last; null when idle. *totalBytes becomes the bytes of the
  // list or 0; may be null.
  std::uint64_t* GetSegmentArray(std::uint64_t* totalBytes);
  // What is left to transfer, in order; valid until the next call of SetProgress or
  // StopUsingBufferList. *count becomes the number of runs; may be null. Null and 0 when idle or
  // when nothing is left.
  const MemoryRun* GetRuns(std::size_t* count);
  // Makes the runs begin `bytesDone` bytes into the list, forward or back from where they began
  // before; past the end leaves none. Costs the runs passed over. Does nothing when idle.
  void SetProgress(std::uint64_t bytesDone);

 private:
  bool CanBeUsed(BufferList* list) const;
  bool Describe(std::size_t pageCount);
  bool EnterBuffer(void* address, std::uint64_t size, std::uint64_t* index);
  void EnterRun(void* address, std::uint64_t size);
  bool Grow(std::size_t pageCount, std::size_t bufferCount);

  BufferList* list_ = nullptr;  // one reference while in use
  std::unique_ptr<std::uint64_t[]> segments_;
  std::uint64_t segmentCapacity_ = 0;  // pages; there is one more entry for the 0
  void* lockToken_ = nullptr;
  std::uint64_t contiguousLength_ = 0;  // bytes; 0 if there are gaps
  std::uint64_t totalBytes_ = 0;

  std::unique_ptr<MemoryRun[]> runs_;
  std::size_t runCapacity_ = 0;
  std::size_t runCount_ = 0;
  std::size_t firstRun_ = 0;         // the one that the rest begins in
  std::uint64_t firstRunStart_ = 0;  // bytes before that run in the list
  std::size_t bytesCut_ = 0;         // by how much that run is shortened at its front
};

}  // namespace Orvane
