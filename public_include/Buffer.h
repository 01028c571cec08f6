// Buffers: shared pieces of memory with a nesting lock count, through which all data is moved.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Export.h"
#include "SharedObject.h"

namespace Orvane {

class MTAtomicUnsigned32;

// A piece of memory: base address, size in bytes, lock count. Created with one reference for its
// creator (see SharedObject). Locks nest: every Lock is matched by one Unlock.
//
// Locking, unlocking and reference counting are safe from any thread: atomic counters. Nothing
// serialises two copies into the same bytes; callers arrange that.
// All offsets, counts and sizes are bytes. Copy operations report by their result and never throw.
class ORVANE_EXPORT Buffer : public SharedObject {
 public:
  enum LockState_t : std::uint32_t {
    kBufferUnlocked = 0,
    kBufferLocked = 1,
  };

  enum BufferResult_t : std::uint32_t {
    kBufferOK = 0,
    kBufferLockFailed = 1,  // this or the other buffer did not lock, or there is no other one
    kBufferNoAddress = 2,   // locked, but without a virtual address
    kBufferAcknowledgeFailed = 3,  // the bytes were moved; the acknowledge operation threw
    kBufferOutOfRange = 4,         // the offset is at or past the end, or nothing would be moved
  };

  virtual void* GetAddress() = 0;
  virtual std::size_t GetSize() = 0;

  // Answers kBufferLocked if the lock was taken.
  virtual LockState_t Lock() = 0;
  // Whether at least one lock is held.
  virtual LockState_t GetLockState() = 0;
  // Answers whether the buffer is still locked after this call. KEPT: one call too many is not
  // guarded against; the count goes below 0 and the buffer reports kBufferUnlocked.
  virtual LockState_t Unlock() = 0;
  // The address through which the processor reads and writes. REQUIRES: the buffer is locked.
  virtual void* GetVirtualAddress() = 0;

  // Copies up to `count` bytes from plain memory to `offset` of this buffer, as many as there is
  // room for. The buffer is locked meanwhile. *bytesMoved (may be null) becomes the bytes copied, 0
  // on failure; it keeps its value with kBufferAcknowledgeFailed. Source and buffer may overlap.
  // A count of 0 is kBufferOutOfRange.
  virtual BufferResult_t CopyInto(void* source, std::size_t count, std::size_t offset,
                                  std::size_t* bytesMoved) = 0;
  // Copies up to `count` bytes of another buffer to `offset` of this one; both are locked
  // meanwhile. A count of 0 means everything from otherOffset to the end of `other`.
  // *bytesMoved is left alone when the other buffer cannot be used.
  // KEPT: the bytes come from the start of `other`, otherOffset only limits how many they are;
  // callers rely on it. For a sub-range pass a BufferPartOfBuffer and an otherOffset of 0.
  virtual BufferResult_t CopyFromOtherBuffer(Buffer* other, std::size_t count,
                                             std::size_t otherOffset, std::size_t offset,
                                             std::size_t* bytesMoved) = 0;
  // Called with the buffer locked, after `count` bytes were written by the processor at `offset`.
  // What it throws is swallowed and reported as kBufferAcknowledgeFailed.
  virtual void AcknowledgeBytesMovedInto(std::size_t count, std::size_t offset) = 0;
  // CopyInto in the other direction: from `offset` of this buffer to plain memory.
  virtual BufferResult_t CopyOutOf(void* destination, std::size_t count, std::size_t offset,
                                   std::size_t* bytesMoved) = 0;
  // As AcknowledgeBytesMovedInto, after the processor read the bytes.
  virtual void AcknowledgeBytesMovedOutOf(std::size_t count, std::size_t offset) = 0;

 protected:
  Buffer();
  ~Buffer() override;
  // KEPT: member-wise. A live buffer must not be copied.
  Buffer(const Buffer&) = default;
  Buffer& operator=(const Buffer&) = default;
};

// A buffer over memory that it does not own. Locking pins nothing; the acknowledge operations do
// nothing and are there for derived classes to override.
class ORVANE_EXPORT HostBuffer : public Buffer {
 public:
  HostBuffer(void* address, std::size_t size);

  void* GetAddress() override;
  std::size_t GetSize() override;
  LockState_t Lock() override;
  LockState_t GetLockState() override;
  LockState_t Unlock() override;
  void* GetVirtualAddress() override;
  BufferResult_t CopyInto(void* source, std::size_t count, std::size_t offset,
                          std::size_t* bytesMoved) override;
  BufferResult_t CopyFromOtherBuffer(Buffer* other, std::size_t count, std::size_t otherOffset,
                                     std::size_t offset, std::size_t* bytesMoved) override;
  void AcknowledgeBytesMovedInto(std::size_t count, std::size_t offset) override;
  BufferResult_t CopyOutOf(void* destination, std::size_t count, std::size_t offset,
                           std::size_t* bytesMoved) override;
  void AcknowledgeBytesMovedOutOf(std::size_t count, std::size_t offset) override;

 protected:
  ~HostBuffer() override;
  HostBuffer(const HostBuffer&) = default;
  HostBuffer& operator=(const HostBuffer&) = default;

  // For derived classes that get their memory after construction. REQUIRES: nobody else uses the
  // buffer yet.
  void SetAddressAndSize(void* address, std::size_t size);

 private:
  void* address_;  // not owned
  std::size_t size_;
  MTAtomicUnsigned32* lockCount_;  // owned; read as a signed number
};

// A buffer that owns memory of the general heap, with no alignment beyond the allocator's own.
class ORVANE_EXPORT HeapBuffer : public HostBuffer {
 public:
  // Throws the allocator's exception when memory is short.
  explicit HeapBuffer(std::size_t size);

 protected:
  ~HeapBuffer() override;
  HeapBuffer(const HeapBuffer&) = default;
  HeapBuffer& operator=(const HeapBuffer&) = default;
};

// A view of a part of another buffer, which it keeps alive. The view has a lock count of its own
// and does not lock the parent.
class ORVANE_EXPORT BufferPartOfBuffer : public HostBuffer {
 public:
  // `address` lies inside the parent; the caller computes it. Takes a reference on the parent,
  // which may be null.
  BufferPartOfBuffer(void* address, std::size_t size, Buffer* parent);

 protected:
  ~BufferPartOfBuffer() override;
  BufferPartOfBuffer(const BufferPartOfBuffer&) = default;
  BufferPartOfBuffer& operator=(const BufferPartOfBuffer&) = default;

 private:
  Buffer* parent_;  // one reference, or null
};

// Keeps a buffer locked, and alive, for the length of a block. A buffer that does not lock, or
// null, does nothing at the end.
class ORVANE_EXPORT BufferLockAuto {
 public:
  explicit BufferLockAuto(Buffer* buffer);
  ~BufferLockAuto();
  BufferLockAuto(const BufferLockAuto&) = delete;
  BufferLockAuto& operator=(const BufferLockAuto&) = delete;

  // Whether the lock was taken.
  bool IsLocked() const { return locked_; }

 private:
  Buffer* buffer_;
  bool locked_;
};

}  // namespace Orvane
