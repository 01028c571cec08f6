// Gives every lock of the library a class, so that a threading implementation can check in which
// order they are entered.
#pragma once

#include <cstddef>
#include <cstdint>

#include "MTPrimitives.h"

namespace Orvane {

// What a critical section guards. Sections of one class are entered in the same order relative to
// those of other classes, whichever object they belong to.
enum class LockClass : std::uint8_t {
  // The block cache.
  kCacheCancel,            // one Cancel or Purge at a time
  kReadSection,            // the read processor of one cache
  kDispatchedReadSection,  // its dispatched-read processor
  kCopySection,            // its copy processor
  kBatchTracker,           // the work tracker of a batch of blocks
  kBatch,                  // the blocks of a batch
  kBlockList,              // the blocks of a cache
  kBlock,                  // one block
  kBlockIndex,             // a part of the index of blocks
  kTracker,                // the work tracker of one transaction
  kCacheObject,            // small state of a cache: who cancels, what is being reported
  kCommandQueue,           // what the workers are asked to do
  kPreReadList,            // the pre-reads that wait
  kPreReadTracker,         // the work tracker of a pre-read
  kStatistics,             // counters of a cache
  kBatchRegistry,          // the batches in flight
  kReaper,                 // objects that wait for their release
  kSortedList,             // one sorted list
  // Requests.
  kHandlerCancel,  // one cancel of the I/O thread at a time
  kHandlerSlot,    // the request slots
  kFileState,      // the open file of one source
  kPortQueue,      // the transfers of one port
  // Buffers and objects.
  kFactory,             // one buffer factory
  kPool,                // one object pool
  kSharedObjectModify,  // the modify lock of one shared object: the application's
  // Any section that was not made by NewCritSec below.
  kOther,
};
constexpr std::size_t kLockClassCount = static_cast<std::size_t>(LockClass::kOther) + 1;

// A static text, such as "block list".
const char* ToText(LockClass lockClass);

// MTInterface::NewCritSec, with a class that the implementation can ask for meanwhile.
MTCritSec* NewCritSec(LockClass lockClass);

// For implementations of MTInterfaceImp::NewCritSec: the class of the section that the calling
// thread is making; kOther for one that has none.
LockClass GetLockClassBeingMade();

}  // namespace Orvane
