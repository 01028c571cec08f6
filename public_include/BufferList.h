// An ordered list of buffers that together form one byte range.
#pragma once

#include <cstddef>

#include "Export.h"
#include "SharedObject.h"

namespace Orvane {

class Buffer;
class BufferArray;

// The first buffer holds bytes 0 to its size minus one, the next one follows, and so on. Reads,
// writes and transactions carry their data as such a list. Created with one reference; holds one
// reference on each buffer for life; a list only grows until it is destroyed.
//
// Takes no lock of its own: one thread builds the list and hands it on. From then on the operations
// that only look (GetBuffer, counts, sizes, GetBufferAtOffset) are safe from several threads at
// once: they change nothing. LockAllBuffers and UnlockAllBuffers change the stored token.
// Failures are reported by the result; only the constructors and AddBuffer throw, when memory is
// short, and then nothing has changed.
//
// The size of a buffer is read when it is added, and must not change afterwards. Only a list whose
// sizes add up to 0 asks its buffers again on every call.
//
// Cost: AddBuffer is constant time on average, GetBufferAtOffset logarithmic.
class ORVANE_EXPORT BufferList : public SharedObject {
 public:
  // An empty list with room for one buffer.
  BufferList();
  // An empty list with room for `capacity` buffers. Throws std::length_error "vector too long" for
  // more than the address space can hold.
  explicit BufferList(std::size_t capacity);
  // The same with AddBuffer(buffer, adoptReference); its result is lost.
  BufferList(Buffer* buffer, bool adoptReference, std::size_t capacity);

  // Appends a buffer. False, with nothing changed, for null and for a buffer that is in the list
  // already. Takes a reference, or with adoptReference the one of the caller, who then must not
  // release it. An answer of false adopts nothing: the reference stays with the caller.
  bool AddBuffer(Buffer* buffer, bool adoptReference);

  // The buffer, without a reference for the caller; null past the end.
  Buffer* GetBuffer(std::size_t index);
  std::size_t GetNumberOfBuffers();
  // Bytes.
  std::size_t GetTotalSizeOfBuffers();
  // The buffer that holds byte `offset` of the range, without a reference for the caller; a buffer
  // of no bytes holds none. *offsetInBuffer becomes the place inside it, *bytesLeftInBuffer the
  // bytes from there to its end; both may be null. Past the end: null, nothing is written.
  Buffer* GetBufferAtOffset(std::size_t offset, std::size_t* offsetInBuffer,
                            std::size_t* bytesLeftInBuffer);

  // Locks every buffer. Answers the address of the first byte, which is also the token that
  // UnlockAllBuffers requires; null, with both outputs 0, for an empty list, or if a buffer does
  // not lock, has no address or no bytes or, with countPages, is not made of whole pages.
  // *pageCount becomes the pages of all buffers, 0 without countPages; *contiguousSize the bytes of
  // the list if its buffers lie back to back in memory, else 0. Both may be null.
  // KEPT: a second call before unlocking raises the lock counts again and replaces the token, so
  // only one of the two can be undone with UnlockAllBuffers.
  // KEPT: a failed call unlocks one buffer more than it has locked and accepted: the one that
  // refused the lock, or the one behind the buffer that failed a later check (none at the end of
  // the list). Callers rely on it. A buffer that was not locked by anybody has a count below 0
  // then, and its next Lock does not succeed.
  void* LockAllBuffers(bool countPages, std::size_t* pageCount, std::size_t* contiguousSize);
  // Unlocks every buffer, last to first. Does nothing for null or for anything but the last token.
  void UnlockAllBuffers(void* lockedAddress);

 protected:
  // Releases the buffers, first to last. Does not unlock them.
  ~BufferList() override;
  // KEPT: member-wise, sharing the buffers with the source. A live list must not be copied.
  BufferList(const BufferList&) = default;
  BufferList& operator=(const BufferList&) = default;

 private:
  std::size_t SumOfSizes();
  Buffer* FindByWalking(std::size_t offset, std::size_t* offsetInBuffer,
                        std::size_t* bytesLeftInBuffer);

  BufferArray* buffers_;   // owned
  void* lockedAddress_;    // the token, or null
  std::size_t totalSize_;  // bytes; 0: not known
};

}  // namespace Orvane
