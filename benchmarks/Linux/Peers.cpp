#include "../Peers.h"

#include "PeerFactories.h"

namespace bench {

std::vector<Peer> GetPeers(PeerKind kind) {
  switch (kind) {
    case PeerKind::kAsync:
      return {{"io_uring", &NewRingPeer}, {"libuv", &NewLibuvPeer}, {"Boost.Asio", &NewAsioPeer}};
    case PeerKind::kSync:
      return {{"pread, O_DIRECT", &NewPreadPeer},
              {"pread on another thread", &NewOtherThreadPeer},
              {"libuv, blocking call", &NewLibuvSyncPeer},
              {"Boost.Asio, blocking call", &NewAsioSyncPeer},
              {"libuv", &NewLibuvPeer},
              {"Boost.Asio", &NewAsioPeer}};
    case PeerKind::kBufferedAsync:
      return {{"io_uring, page cache", &NewBufferedRingPeer}};
    case PeerKind::kBufferedSync:
      return {{"pread", &NewBufferedPreadPeer}, {"memcpy from mmap", &NewMappingPeer}};
    case PeerKind::kColdScan:
      return {{"pread", &NewColdPreadPeer}};
  }
  return {};
}

std::vector<BlockCachePeer> GetBlockCachePeers() {
  return {{"RocksDB LRU", &NewLruCachePeer}, {"RocksDB HyperClock", &NewHyperClockCachePeer}};
}

}  // namespace bench
