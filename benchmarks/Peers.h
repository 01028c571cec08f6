// What a user of the library would take instead, as far as this host has it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Job.h"

namespace bench {

enum class PeerKind {
  kAsync,          // not through the page cache, many transfers in flight
  kSync,           // not through the page cache, one after another
  kBufferedAsync,  // through the page cache, many in flight
  kBufferedSync,   // through the page cache, one after another
  kColdScan,       // the same, in order; before each pass the page cache forgets the file
};

struct Peer {
  std::string name;
  std::unique_ptr<Runner> (*make)(const Job& job);
};

// The first of its kind is the limit: the host's own interface with nothing around it. Each ends a
// job with the data of an item in memory of the caller.
std::vector<Peer> GetPeers(PeerKind kind);

// A block cache for items that are whole blocks. What it does not have is read past the page cache
// and put in.
struct BlockCachePeer {
  std::string name;
  std::unique_ptr<Runner> (*make)(const CachedJob& job);
};
std::vector<BlockCachePeer> GetBlockCachePeers();

}  // namespace bench
