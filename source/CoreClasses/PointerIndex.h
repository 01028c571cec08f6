// Finds a pointer among many in constant time.
#pragma once

#include <cstddef>
#include <memory>

namespace Orvane {

// A flat hash table from pointers to slot numbers; every pointer at most once, null included. Open
// addressing with linear probing, at most half full; erasing leaves no marks behind, so a table
// whose number of keys stays level never has to be rebuilt. Not safe from several threads.
class PointerIndex {
 public:
  static constexpr std::size_t kNone = ~std::size_t{0};

  // Room for `keys` keys in all without another allocation. Throws std::bad_alloc, with nothing
  // changed.
  void Reserve(std::size_t keys);
  // REQUIRES: `key` is not there yet, and room for it was reserved.
  void Insert(const void* key, std::size_t slot);
  // The slot of `key`, or kNone.
  std::size_t Find(const void* key) const;
  // REQUIRES: `key` is there.
  void Erase(const void* key);
  // Forgets all keys and keeps the room.
  void Clear();

 private:
  struct Entry {
    const void* key;
    std::size_t slot;  // kNone: empty
  };

  std::size_t HomeOf(const void* key) const;
  // The entry of `key`, or the empty one at which its probe ends.
  std::size_t Probe(const void* key) const;

  std::unique_ptr<Entry[]> entries_;
  std::size_t mask_ = 0;  // number of entries, a power of two, minus 1
  std::size_t room_ = 0;  // most keys
  unsigned shift_ = 0;    // 64 minus the bits of mask_
};

}  // namespace Orvane
