#include "Buffer.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "MTInterface.h"

namespace Orvane {
namespace {

constexpr const char* kHeaderFile = "public_include/Buffer";

bool IsHeld(std::uint32_t lockCount) {
  return static_cast<std::int32_t>(lockCount) >= 1;
}

Buffer::LockState_t ToLockState(bool locked) {
  return locked ? Buffer::kBufferLocked : Buffer::kBufferUnlocked;
}

// How many of `count` bytes lie between `offset` and the end.
std::size_t BytesInRange(std::size_t size, std::size_t count, std::size_t offset) {
  return offset < size ? std::min(size - offset, count) : 0;
}

}  // namespace

Buffer::Buffer() = default;

Buffer::~Buffer() = default;

HostBuffer::HostBuffer(void* address, std::size_t size)
    : address_(address), size_(size), lockCount_(MTInterface::NewAtomicUnsigned32(0)) {}

HostBuffer::~HostBuffer() {
  delete lockCount_;
}

void HostBuffer::SetAddressAndSize(void* address, std::size_t size) {
  address_ = address;
  size_ = size;
}

void* HostBuffer::GetAddress() {
  return address_;
}

std::size_t HostBuffer::GetSize() {
  return size_;
}

Buffer::LockState_t HostBuffer::Lock() {
  return ToLockState(lockCount_->Increment() != 0);
}

Buffer::LockState_t HostBuffer::GetLockState() {
  return ToLockState(IsHeld(lockCount_->Get()));
}

Buffer::LockState_t HostBuffer::Unlock() {
  return ToLockState(IsHeld(lockCount_->Decrement()));
}

void* HostBuffer::GetVirtualAddress() {
  return address_;
}

Buffer::BufferResult_t HostBuffer::CopyInto(void* source, std::size_t count, std::size_t offset,
                                            std::size_t* bytesMoved) {
  if (bytesMoved) *bytesMoved = 0;
  const std::size_t bytes = BytesInRange(GetSize(), count, offset);
  if (bytes == 0) return kBufferOutOfRange;
  const BufferLockAuto lock(this);
  if (!lock.IsLocked()) return kBufferLockFailed;
  void* const base = GetVirtualAddress();
  if (!base) return kBufferNoAddress;

  std::memmove(static_cast<char*>(base) + offset, source, bytes);
  if (bytesMoved) *bytesMoved = bytes;
  try {
    AcknowledgeBytesMovedInto(bytes, offset);
  } catch (...) {
    return kBufferAcknowledgeFailed;
  }
  return kBufferOK;
}

Buffer::BufferResult_t HostBuffer::CopyFromOtherBuffer(Buffer* other, std::size_t count,
                                                       std::size_t otherOffset, std::size_t offset,
                                                       std::size_t* bytesMoved) {
  const BufferLockAuto lock(other);
  if (!lock.IsLocked()) return kBufferLockFailed;
  void* const otherBase = other->GetVirtualAddress();
  if (!otherBase) return kBufferNoAddress;

  const std::size_t otherSize = other->GetSize();
  if (otherOffset >= otherSize) return kBufferOutOfRange;
  const std::size_t available = otherSize - otherOffset;
  if (count == 0 || count > available) count = available;
  return CopyInto(otherBase, count, offset, bytesMoved);
}

void HostBuffer::AcknowledgeBytesMovedInto(std::size_t, std::size_t) {}

Buffer::BufferResult_t HostBuffer::CopyOutOf(void* destination, std::size_t count,
                                             std::size_t offset, std::size_t* bytesMoved) {
  if (bytesMoved) *bytesMoved = 0;
  const std::size_t bytes = BytesInRange(GetSize(), count, offset);
  if (bytes == 0) return kBufferOutOfRange;
  const BufferLockAuto lock(this);
  if (!lock.IsLocked()) return kBufferLockFailed;
  void* const base = GetVirtualAddress();
  if (!base) return kBufferNoAddress;

  std::memmove(destination, static_cast<char*>(base) + offset, bytes);
  if (bytesMoved) *bytesMoved = bytes;
  try {
    AcknowledgeBytesMovedOutOf(bytes, offset);
  } catch (...) {
    return kBufferAcknowledgeFailed;
  }
  return kBufferOK;
}

void HostBuffer::AcknowledgeBytesMovedOutOf(std::size_t, std::size_t) {}

// The memory comes after the base class is complete, so that neither leaks when the other fails.
HeapBuffer::HeapBuffer(std::size_t size) : HostBuffer(nullptr, 0) {
  SetAddressAndSize(::operator new(size), size);
}

HeapBuffer::~HeapBuffer() {
  ::operator delete(HostBuffer::GetAddress());
}

BufferPartOfBuffer::BufferPartOfBuffer(void* address, std::size_t size, Buffer* parent)
    : HostBuffer(address, size), parent_(parent) {
  if (parent_) {
    parent_->AddRef(kHeaderFile, "Orvane::BufferPartOfBuffer::BufferPartOfBuffer", 138);
  }
}

BufferPartOfBuffer::~BufferPartOfBuffer() {
  if (parent_) {
    parent_->DecRef(kHeaderFile, "Orvane::BufferPartOfBuffer::~BufferPartOfBuffer", 144);
  }
}

BufferLockAuto::BufferLockAuto(Buffer* buffer)
    : buffer_(buffer), locked_(buffer && buffer->Lock() == Buffer::kBufferLocked) {
  if (locked_) buffer_->AddRef(kHeaderFile, "Orvane::BufferLockAuto::BufferLockAuto", 162);
}

BufferLockAuto::~BufferLockAuto() {
  if (!locked_) return;
  buffer_->Unlock();
  buffer_->DecRef(kHeaderFile, "Orvane::BufferLockAuto::~BufferLockAuto", 171);
}

}  // namespace Orvane
