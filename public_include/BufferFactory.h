// Factories that make a fixed set of equal buffers once and lend them out.
#pragma once

#include <cstddef>

#include "Export.h"
#include "MTPrimitives.h"
#include "SharedObject.h"

namespace Orvane {

class Buffer;
class SharedObjectList;
class SharedObjectPool;

// Initialised once by its creator, then buffers circulate between the factory and its borrowers.
// A cache takes all its block buffers from one. Sizes are bytes.
class ORVANE_EXPORT BufferFactory : public SharedObject {
 public:
  // Makes the larger of minimumBuffers and desiredBuffers buffers of bufferSize bytes, or fewer if
  // memory is short. True if there are at least minimumBuffers, else the factory has given up all
  // free buffers. `reserved` is ignored.
  virtual bool Initialize(std::size_t bufferSize, std::size_t minimumBuffers,
                          std::size_t desiredBuffers, std::size_t reserved) = 0;
  // The size of every buffer; 0 before Initialize.
  virtual std::size_t GetBufferSize() = 0;
  virtual std::size_t GetTotalNumberOfBuffers() = 0;
  virtual std::size_t GetNumberOfBuffersFree() = 0;
  virtual std::size_t GetNumberOfBuffersInUse() = 0;
  // Lends a buffer, without a reference for the borrower; null when none is free.
  virtual Buffer* GetBufferFromFactory() = 0;
  // False if the buffer is not lent by this factory.
  virtual bool ReturnBufferToFactory(Buffer* buffer) = 0;

 protected:
  BufferFactory();
  ~BufferFactory() override;
  // KEPT: member-wise. A live factory must not be copied.
  BufferFactory(const BufferFactory&) = default;
  BufferFactory& operator=(const BufferFactory&) = default;
};

// The bookkeeping: a pool of free and lent buffers. Safe from any thread: every operation holds the
// factory's lock for its whole length, and inside it the pool's.
//
// Ownership: the factory keeps the creation reference of every buffer, and the pool one more. A
// destroyed or purged factory releases both for its free buffers. KEPT: of a buffer that is lent
// out at that time only the pool's reference is released; the creation reference belongs to the
// borrower from then on, who must release it.
//
// A second Initialize: KEPT, with the same buffer size it makes buffers again, as far as the pool
// of the first one has room; one with another buffer size answers false and changes nothing.
// An exception out of Initialize (memory) leaves the factory without free buffers; it may be
// initialised again with the same size.
class ORVANE_EXPORT BufferFactoryCommon : public BufferFactory {
 public:
  std::size_t GetBufferSize() override;
  std::size_t GetTotalNumberOfBuffers() override;
  std::size_t GetNumberOfBuffersFree() override;
  std::size_t GetNumberOfBuffersInUse() override;
  Buffer* GetBufferFromFactory() override;
  bool ReturnBufferToFactory(Buffer* buffer) override;

 protected:
  BufferFactoryCommon();
  // Purges the common way, also for derived classes.
  ~BufferFactoryCommon() override;
  BufferFactoryCommon(const BufferFactoryCommon&) = default;
  BufferFactoryCommon& operator=(const BufferFactoryCommon&) = default;

  // Adds a free buffer; the pool takes a reference and the factory keeps the caller's. False, and
  // the reference stays with the caller, if the pool is full or there is none yet.
  virtual bool AddBuffer(Buffer* buffer);
  // Sets the buffer size and makes the pool. False, with nothing changed, for a size of 0 and the
  // second time.
  virtual bool InternalInit(std::size_t bufferSize, std::size_t poolCapacity);
  // Releases the free buffers and forgets the lent ones.
  virtual void Purge();

  MTCritSec* lock_;  // owned; guards everything below, nests

 private:
  void PurgeLocked() ORVANE_REQUIRES(lock_);

  std::size_t bufferSize_;  // written once, under the lock, before there are buffers
  SharedObjectPool* pool_ ORVANE_GUARDED_BY(lock_);  // one reference; null before InternalInit
};

// Makes each buffer as a HeapBuffer of its own.
class ORVANE_EXPORT BufferFactoryHeap : public BufferFactoryCommon {
 public:
  BufferFactoryHeap();

  // False also for no buffers at all. Throws the allocator's exception.
  // KEPT: buffers count as made whether the pool takes them or not (those that it refuses are
  // released), so a bufferSize of 0 answers true and leaves the factory without buffers.
  bool Initialize(std::size_t bufferSize, std::size_t minimumBuffers, std::size_t desiredBuffers,
                  std::size_t reserved) override;

 protected:
  ~BufferFactoryHeap() override;
  BufferFactoryHeap(const BufferFactoryHeap&) = default;
  BufferFactoryHeap& operator=(const BufferFactoryHeap&) = default;
};

// Gets large chunks of page-aligned memory and carves each into buffers, as views that keep their
// chunk alive. A chunk stays locked for life.
class ORVANE_EXPORT BufferFactoryPhysMem : public BufferFactoryCommon {
 public:
  BufferFactoryPhysMem();

  // Asks for everything in one chunk, and after a refusal for one buffer less each time. Does not
  // round the buffer size; for buffers that are page-aligned each, pass whole pages.
  // KEPT: stops as soon as fewer than minimumBuffers remain to be made, even if more could be made.
  // False, and purged, if there are fewer than minimumBuffers free ones in the end, and if the pool
  // refuses a buffer, as it does in a second call that finds it full. Throws the allocator's
  // exception.
  bool Initialize(std::size_t bufferSize, std::size_t minimumBuffers, std::size_t desiredBuffers,
                  std::size_t reserved) override;

 protected:
  ~BufferFactoryPhysMem() override;
  BufferFactoryPhysMem(const BufferFactoryPhysMem&) = default;
  BufferFactoryPhysMem& operator=(const BufferFactoryPhysMem&) = default;

  // Also lets go of the chunks; each lives on until its last view is released.
  void Purge() override;

 private:
  bool MakeBuffers(std::size_t bufferSize, std::size_t minimumBuffers, std::size_t total);
  std::size_t TakeChunk(Buffer* chunk, std::size_t bufferSize, std::size_t wanted, bool* failed);
  bool CarveChunk(Buffer* chunk, std::size_t bufferSize, std::size_t count);

  SharedObjectList* chunkList_ ORVANE_PT_GUARDED_BY(lock_);  // one reference
};

}  // namespace Orvane
