#include "Buffer.h"

#include <cstring>
#include <numeric>
#include <stdexcept>

#include "OrvaneTest.h"

namespace Orvane {
namespace {

// A buffer over its own 64 bytes that misbehaves on command.
class OddBuffer : public HostBuffer {
 public:
  OddBuffer() : HostBuffer(bytes, sizeof(bytes)) {
    std::iota(bytes, bytes + sizeof(bytes), static_cast<unsigned char>(0));
  }
  LockState_t Lock() override { return refuseLock ? kBufferUnlocked : HostBuffer::Lock(); }
  void* GetVirtualAddress() override { return noAddress ? nullptr : bytes; }
  void AcknowledgeBytesMovedInto(std::size_t count, std::size_t offset) override {
    Acknowledge(count, offset);
  }
  void AcknowledgeBytesMovedOutOf(std::size_t count, std::size_t offset) override {
    Acknowledge(count, offset);
  }

  unsigned char bytes[64];
  bool refuseLock = false;
  bool noAddress = false;
  bool throwAtAcknowledge = false;
  std::size_t acknowledgedCount = 0;
  std::size_t acknowledgedOffset = 0;
  bool lockedAtAcknowledge = false;

 private:
  void Acknowledge(std::size_t count, std::size_t offset) {
    acknowledgedCount = count;
    acknowledgedOffset = offset;
    lockedAtAcknowledge = GetLockState() == kBufferLocked;
    if (throwAtAcknowledge) throw std::runtime_error("odd");
  }
};

class BufferTest : public OrvaneTest {
 protected:
  AutoRelease<OddBuffer> buffer_{new OddBuffer};
  AutoRelease<OddBuffer> other_{new OddBuffer};
  unsigned char plain_[256] = {};
  std::size_t moved_ = 99;

  void TearDown() override {
    buffer_.Release();
    other_.Release();
    OrvaneTest::TearDown();
  }
  void ExpectUntouched() {
    EXPECT_EQ(Buffer::kBufferUnlocked, buffer_->GetLockState());
    EXPECT_EQ(1, buffer_->GetRefCount());
    EXPECT_EQ(Buffer::kBufferUnlocked, other_->GetLockState());
    EXPECT_EQ(1, other_->GetRefCount());
  }
};

TEST_F(BufferTest, CopyIntoAtTheEndIsOutOfRange) {
  EXPECT_EQ(Buffer::kBufferOutOfRange, buffer_->CopyInto(plain_, 1, 64, &moved_));
  EXPECT_EQ(4, static_cast<int>(Buffer::kBufferOutOfRange));
  EXPECT_EQ(0u, moved_);
  EXPECT_EQ(Buffer::kBufferOutOfRange, buffer_->CopyOutOf(plain_, 1, 64, &moved_));
  EXPECT_EQ(Buffer::kBufferOutOfRange, buffer_->CopyInto(plain_, 1, ~std::size_t{0}, nullptr));
}

TEST_F(BufferTest, CopyIsCutAtTheEnd) {
  std::memset(plain_, 0xEE, sizeof(plain_));
  EXPECT_EQ(Buffer::kBufferOK, buffer_->CopyInto(plain_, 100, 60, &moved_));
  EXPECT_EQ(4u, moved_);
  EXPECT_EQ(59, buffer_->bytes[59]);
  EXPECT_EQ(0xEE, buffer_->bytes[60]);
  EXPECT_EQ(4u, buffer_->acknowledgedCount);
  EXPECT_EQ(60u, buffer_->acknowledgedOffset);
  EXPECT_TRUE(buffer_->lockedAtAcknowledge);

  EXPECT_EQ(Buffer::kBufferOK, other_->CopyOutOf(plain_, ~std::size_t{0}, 61, &moved_));
  EXPECT_EQ(3u, moved_);
  EXPECT_EQ(61, plain_[0]);
  EXPECT_EQ(63, plain_[2]);
  EXPECT_EQ(0xEE, plain_[3]);
  ExpectUntouched();
}

TEST_F(BufferTest, CopyOfNoBytesIsOutOfRange) {
  EXPECT_EQ(Buffer::kBufferOutOfRange, buffer_->CopyInto(plain_, 0, 0, &moved_));
  EXPECT_EQ(Buffer::kBufferOutOfRange, buffer_->CopyOutOf(plain_, 0, 0, &moved_));
}

TEST_F(BufferTest, CopyOfNoBytesFromAnotherBufferCopiesTheRestOfIt) {
  EXPECT_EQ(Buffer::kBufferOK, buffer_->CopyFromOtherBuffer(other_, 0, 60, 8, &moved_));
  EXPECT_EQ(4u, moved_);
  EXPECT_EQ(Buffer::kBufferOK, buffer_->CopyFromOtherBuffer(other_, 0, 0, 0, &moved_));
  EXPECT_EQ(64u, moved_);
  ExpectUntouched();
}

TEST_F(BufferTest, OtherOffsetOnlyLimitsTheCount) {
  std::memset(buffer_->bytes, 0xEE, 64);
  EXPECT_EQ(Buffer::kBufferOK, buffer_->CopyFromOtherBuffer(other_, 1000, 16, 0, &moved_));
  EXPECT_EQ(48u, moved_);
  EXPECT_EQ(0, buffer_->bytes[0]);
  EXPECT_EQ(47, buffer_->bytes[47]);
  EXPECT_EQ(0xEE, buffer_->bytes[48]);
}

TEST_F(BufferTest, CopyFromOtherBufferReportsWhatIsWrongWithIt) {
  EXPECT_EQ(Buffer::kBufferLockFailed, buffer_->CopyFromOtherBuffer(nullptr, 1, 0, 0, &moved_));
  EXPECT_EQ(Buffer::kBufferOutOfRange, buffer_->CopyFromOtherBuffer(other_, 1, 64, 0, &moved_));
  other_->noAddress = true;
  EXPECT_EQ(Buffer::kBufferNoAddress, buffer_->CopyFromOtherBuffer(other_, 1, 0, 0, &moved_));
  other_->refuseLock = true;
  EXPECT_EQ(Buffer::kBufferLockFailed, buffer_->CopyFromOtherBuffer(other_, 1, 0, 0, &moved_));
  EXPECT_EQ(99u, moved_);
  ExpectUntouched();
}

TEST_F(BufferTest, LocksNest) {
  EXPECT_EQ(Buffer::kBufferLocked, buffer_->Lock());
  EXPECT_EQ(Buffer::kBufferLocked, buffer_->Lock());
  EXPECT_EQ(Buffer::kBufferLocked, buffer_->Unlock());
  EXPECT_EQ(Buffer::kBufferLocked, buffer_->GetLockState());
  EXPECT_EQ(Buffer::kBufferUnlocked, buffer_->Unlock());
  EXPECT_EQ(Buffer::kBufferUnlocked, buffer_->GetLockState());
}

TEST_F(BufferTest, UnlockTooManyReportsUnlocked) {
  EXPECT_EQ(Buffer::kBufferUnlocked, buffer_->Unlock());
  EXPECT_EQ(Buffer::kBufferUnlocked, buffer_->GetLockState());
  // From -1 to 0: the count is what tells whether the lock was taken.
  EXPECT_EQ(Buffer::kBufferUnlocked, buffer_->Lock());
}

TEST_F(BufferTest, CopyWithoutAnAddressKeepsTheLockCount) {
  buffer_->noAddress = true;
  EXPECT_EQ(Buffer::kBufferNoAddress, buffer_->CopyInto(plain_, 1, 0, &moved_));
  EXPECT_EQ(Buffer::kBufferNoAddress, buffer_->CopyOutOf(plain_, 1, 0, &moved_));
  EXPECT_EQ(0u, moved_);
  ExpectUntouched();
}

TEST_F(BufferTest, CopyWithoutALockFails) {
  buffer_->refuseLock = true;
  EXPECT_EQ(Buffer::kBufferLockFailed, buffer_->CopyInto(plain_, 1, 0, &moved_));
  EXPECT_EQ(Buffer::kBufferLockFailed, buffer_->CopyOutOf(plain_, 1, 0, &moved_));
  ExpectUntouched();
}

TEST_F(BufferTest, AcknowledgeThatThrowsIsReportedWithTheBytesMoved) {
  buffer_->throwAtAcknowledge = true;
  EXPECT_EQ(Buffer::kBufferAcknowledgeFailed, buffer_->CopyInto(plain_, 5, 0, &moved_));
  EXPECT_EQ(5u, moved_);
  EXPECT_EQ(Buffer::kBufferAcknowledgeFailed, buffer_->CopyOutOf(plain_, 6, 0, &moved_));
  EXPECT_EQ(6u, moved_);
  ExpectUntouched();
}

TEST_F(BufferTest, OverlappingMemoryIsCopiedAsIfItWereApart) {
  EXPECT_EQ(Buffer::kBufferOK, buffer_->CopyInto(buffer_->bytes, 32, 1, &moved_));
  EXPECT_EQ(0, buffer_->bytes[1]);
  EXPECT_EQ(31, buffer_->bytes[32]);
  EXPECT_EQ(Buffer::kBufferOK, other_->CopyOutOf(other_->bytes + 1, 32, 0, &moved_));
  EXPECT_EQ(31, other_->bytes[32]);
}

TEST_F(BufferTest, HeapBufferOwnsItsMemory) {
  AutoRelease<HeapBuffer> heap(new HeapBuffer(1000));
  EXPECT_EQ(1000u, heap->GetSize());
  EXPECT_EQ(heap->GetAddress(), heap->GetVirtualAddress());
  std::memset(heap->GetAddress(), 1, 1000);
}

TEST_F(BufferTest, HeapBufferThatFindsNoMemoryLeavesNothingBehind) {
  for (std::size_t ordinal = 1;; ++ordinal) {
    if (ordinal == 5 || ordinal == 4) continue;  // inside SharedObject, after its counter
    const AllocationFailure failure(ordinal);
    try {
      AutoRelease<HeapBuffer> heap(new HeapBuffer(1000));
      break;
    } catch (const std::bad_alloc&) {
    }
  }
  EXPECT_THROW(new HeapBuffer(~std::size_t{0} / 2), std::bad_alloc);
}

TEST_F(BufferTest, ViewKeepsItsParentAliveAndHasItsOwnLock) {
  CallSites sites;
  auto* const parent = new Recording<HeapBuffer>(&sites, std::size_t{100});
  AutoRelease<BufferPartOfBuffer> view(
      new BufferPartOfBuffer(static_cast<char*>(parent->GetAddress()) + 10, 20, parent));
  EXPECT_EQ(2, parent->GetRefCount());
  view->Lock();
  EXPECT_EQ(Buffer::kBufferUnlocked, parent->GetLockState());
  view->Unlock();
  EXPECT_EQ(1, parent->DecRef("tests", "", 0));
  std::memset(view->GetAddress(), 1, 20);
  view.Release();
  const std::string file = "public_include/Buffer";
  EXPECT_EQ((std::vector<CallSite>{{file, "Orvane::BufferPartOfBuffer::BufferPartOfBuffer", 138}}),
            sites.added);
  EXPECT_EQ((CallSite{file, "Orvane::BufferPartOfBuffer::~BufferPartOfBuffer", 144}),
            sites.released.back());
}

TEST_F(BufferTest, ViewMayHaveNoParent) {
  AutoRelease<BufferPartOfBuffer> view(new BufferPartOfBuffer(plain_, 20, nullptr));
  EXPECT_EQ(20u, view->GetSize());
}

TEST_F(BufferTest, LockAutoLocksAndReferencesForItsBlock) {
  CallSites sites;
  AutoRelease<Recording<HeapBuffer>> heap(new Recording<HeapBuffer>(&sites, std::size_t{10}));
  {
    const BufferLockAuto lock(heap);
    EXPECT_TRUE(lock.IsLocked());
    EXPECT_EQ(Buffer::kBufferLocked, heap->GetLockState());
    EXPECT_EQ(2, heap->GetRefCount());
  }
  EXPECT_EQ(Buffer::kBufferUnlocked, heap->GetLockState());
  const std::string file = "public_include/Buffer";
  EXPECT_EQ((std::vector<CallSite>{{file, "Orvane::BufferLockAuto::BufferLockAuto", 162}}),
            sites.added);
  EXPECT_EQ((std::vector<CallSite>{{file, "Orvane::BufferLockAuto::~BufferLockAuto", 171}}),
            sites.released);
}

TEST_F(BufferTest, LockAutoWithoutALockDoesNothingAtItsEnd) {
  const BufferLockAuto nothing(nullptr);
  EXPECT_FALSE(nothing.IsLocked());
  buffer_->refuseLock = true;
  {
    const BufferLockAuto refused(buffer_);
    EXPECT_FALSE(refused.IsLocked());
    EXPECT_EQ(1, buffer_->GetRefCount());
  }
  EXPECT_EQ(1, buffer_->GetRefCount());
}

TEST_F(BufferTest, CopiesFewerBytesThanAnotherBufferHas) {
  EXPECT_EQ(Buffer::kBufferOK, buffer_->CopyFromOtherBuffer(other_, 3, 40, 8, &moved_));
  EXPECT_EQ(3u, moved_);
  EXPECT_EQ(0, std::memcmp(buffer_->bytes + 8, other_->bytes, 3));
  EXPECT_EQ(11, buffer_->bytes[11]);
}

TEST_F(BufferTest, NobodyNeedAskHowMuchWasMoved) {
  EXPECT_EQ(Buffer::kBufferOK, buffer_->CopyOutOf(plain_, 4, 20, nullptr));
  EXPECT_EQ(0, std::memcmp(plain_, buffer_->bytes + 20, 4));
  EXPECT_EQ(Buffer::kBufferOutOfRange, buffer_->CopyOutOf(plain_, 1, 64, nullptr));
}

}  // namespace
}  // namespace Orvane
