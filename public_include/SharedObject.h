// The reference-counted base of every object that is handed between threads.
#pragma once

#include <cstddef>
#include <cstdint>

#include "Export.h"
#include "MTPrimitives.h"

namespace Orvane {

// An object is created with one reference, owned by its creator, and destroys itself inside the
// DecRef that gives up the last one; outside code never deletes it. Whoever keeps a pointer beyond
// the current call calls AddRef first and DecRef when he drops it.
//
// Every reference operation takes its call site: source file, qualified function name, line. They
// are static texts for a tracing configuration and never change behaviour.
//
// AddRef, DecRef and GetRefCount are safe from any thread: one atomic counter. The modify lock
// guards the state of this object alone and nests.
// REQUIRES: an installed threading implementation (OSServices::Init) before the first object.
class ORVANE_EXPORT SharedObject {
 protected:
  virtual ~SharedObject();

 public:
  // Answers the new count. REQUIRES: the count is at least 1.
  virtual long AddRef(const char* file, const char* function, unsigned long line);
  // Answers the new count; at 0 the object is gone. KEPT: a call on a count of 0 is not guarded
  // against; it answers -1 and destroys nothing a second time.
  virtual long DecRef(const char* file, const char* function, unsigned long line);
  // A snapshot.
  virtual long GetRefCount();
  // Brackets a change of, or a consistent look at, several fields of this object.
  virtual void BeginThreadSafeModify() ORVANE_ACQUIRE(modifyLock_);
  virtual void FinishThreadSafeModify() ORVANE_RELEASE(modifyLock_);

  // Leak logging is switched off: these do nothing, and it is never enabled.
  static void EnableLeakedObjectsLogging(std::size_t, std::size_t);
  static void DisableLeakedObjectsLogging();
  static void PrintLeakedObjectsToDebugger();
  static bool IsLeakedObjectLoggingEnabled();

 protected:
  SharedObject();
  // KEPT: member-wise, sharing counter and lock with the source. A live object must not be copied.
  SharedObject(const SharedObject&) = default;
  SharedObject& operator=(const SharedObject&) = default;
  // As DecRef, but at 0 the object stays, for a derived class that is destroyed elsewhere.
  long ReleaseReference();

 private:
  MTAtomicUnsigned32* referenceCounter_;          // owned
  MTCritSec* modifyLock_;                         // owned
  [[maybe_unused]] std::uint64_t trackingValue_;  // 0xFFFFFFFF; for a tracing configuration
};

// Keeps an object alive for the length of a block, also when an exception leaves it.
class ORVANE_EXPORT SharedObjectAutoRef {
 public:
  // Takes a reference of its own; null does nothing at either end.
  explicit SharedObjectAutoRef(SharedObject* object);
  ~SharedObjectAutoRef();
  SharedObjectAutoRef(const SharedObjectAutoRef&) = delete;
  SharedObjectAutoRef& operator=(const SharedObjectAutoRef&) = delete;

 private:
  SharedObject* object_;
};

}  // namespace Orvane
