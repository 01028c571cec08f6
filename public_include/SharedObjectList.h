// An ordered list of shared objects, and a pool that lends shared objects out.
#pragma once

#include <cstddef>

#include "Export.h"
#include "MTPrimitives.h"
#include "SharedObject.h"

namespace Orvane {

class ObjectSequence;

// An ordered list in which every object occurs at most once (null too, once). Holds one reference
// on each member. Positions count from 0 at the front. Takes no lock: a list that several threads
// use is guarded by its owner. No operation adds a reference for the caller.
//
// Throws when memory is short, and std::length_error "list too long" at the limit of the container,
// from the two adding operations only; nothing has changed then.
//
// Cost: adding, removing and looking an object up are constant time on average; a position in a
// list with gaps from removals is logarithmic, otherwise constant.
class ORVANE_EXPORT SharedObjectList : public SharedObject {
 public:
  // What Find answers when there is nothing to find.
  static constexpr std::size_t kIndexInvalid = ~std::size_t{0};

  // Receives the members of a list, in order.
  class ORVANE_EXPORT IterateCallback {
   public:
    virtual ~IterateCallback();
    // True goes on, false stops. Called on the thread that iterates; may add to the list and remove
    // from it, the next call is then for whatever stands at the next position.
    virtual bool Callback(SharedObject* object, std::size_t index) = 0;
  };

  SharedObjectList();

  // False, with nothing changed, if the object is a member already.
  bool AddToBack(SharedObject* object);
  bool AddToFront(SharedObject* object);

  std::size_t Count();
  // The position of the object or kIndexInvalid.
  std::size_t Find(SharedObject* object);
  // The member or, past the end, null.
  SharedObject* Get(std::size_t index);

  // Takes a member out and answers it; null past the end.
  // KEPT: the list's reference is released before the member is handed out. The caller gets a
  // living object only if somebody else holds a reference; SharedObjectPool relies on it.
  SharedObject* GetAndRemove(std::size_t index);
  // Takes a member out and releases it. False if there is no such member.
  bool Remove(SharedObject* object);
  bool Remove(std::size_t index);
  // The same for all members, from the front.
  void RemoveAll();

  // Calls the callback for each member from the front until it answers false. Null does nothing.
  void Iterate(IterateCallback* callback);

 protected:
  ~SharedObjectList() override;
  // KEPT: member-wise, sharing the members with the source. A live list must not be copied.
  SharedObjectList(const SharedObjectList&) = default;
  SharedObjectList& operator=(const SharedObjectList&) = default;

 private:
  friend class SharedObjectPool;
  // Makes room: as long as there are no more than `members`, adding allocates nothing.
  void Reserve(std::size_t members);

  ObjectSequence* members_;  // owned
};

// Lends out a bounded set of shared objects. A member is in exactly one of two lists:
//
// | list   | meaning            | left by                                                        |
// |--------|--------------------|----------------------------------------------------------------|
// | free   | ready to be lent   | GetObjectFromPool, DetachObjectFromPool, PurgeAllObjects       |
// | in use | lent to a borrower | ReturnObjectToPool, DetachObjectFromPool, PurgeAllObjects      |
//
// The member returned last is lent first. Safe from any thread: every operation holds the pool's
// lock for its whole length, also while it releases members.
//
// Ownership: the pool holds one reference on each member, the one of the list it is in. A borrower
// gets none. KEPT: while a member moves from free to in use the pool holds no reference on it, so
// whoever fills a pool keeps a reference of his own on every member while it is in there.
//
// Cost: every operation but PurgeAllObjects is constant time on average. AddObjectToPool makes room
// in both lists, so lending and returning allocate nothing and do not throw.
class ORVANE_EXPORT SharedObjectPool : public SharedObject {
 public:
  // Accepts at most `capacity` members, free and lent together.
  explicit SharedObjectPool(std::size_t capacity);

  // Adds a free member and takes a reference on it. False for null, for a member that is free
  // already, and when the pool is full. Throws when memory is short, with nothing changed.
  virtual bool AddObjectToPool(SharedObject* object);
  // Lends a member; null when none is free.
  virtual SharedObject* GetObjectFromPool();
  // Takes a lent member back. False if it is not lent.
  virtual bool ReturnObjectToPool(SharedObject* object);
  // Takes a member out, lent or free, and releases the pool's reference. False if it is none.
  virtual bool DetachObjectFromPool(SharedObject* object);
  // Takes all members out, the free ones first, and releases the pool's references.
  virtual void PurgeAllObjects();
  virtual std::size_t GetTotalNumberOfObjects();
  virtual std::size_t GetNumberOfObjectsFree();
  virtual std::size_t GetNumberOfObjectsInUse();

 protected:
  ~SharedObjectPool() override;
  // KEPT: member-wise, sharing lists and lock with the source. A live pool must not be copied.
  SharedObjectPool(const SharedObjectPool&) = default;
  SharedObjectPool& operator=(const SharedObjectPool&) = default;

 private:
  std::size_t CountLocked() ORVANE_REQUIRES(lock_);

  SharedObjectList* freeList_ ORVANE_PT_GUARDED_BY(lock_);   // one reference
  SharedObjectList* inUseList_ ORVANE_PT_GUARDED_BY(lock_);  // one reference
  MTCritSec* lock_;                                          // owned
  std::size_t capacity_;
};

}  // namespace Orvane
