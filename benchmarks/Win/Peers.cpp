#include "../Peers.h"

#include "PeerFactories.h"

namespace bench {

std::vector<Peer> GetPeers(PeerKind kind) {
  switch (kind) {
    case PeerKind::kAsync:
      return {{"overlapped", &NewOverlappedPeer}};
    case PeerKind::kSync:
      return {{"ReadFile, unbuffered", &NewReadFilePeer}};
    case PeerKind::kBufferedAsync:
      return {{"overlapped, page cache", &NewBufferedOverlappedPeer}};
    case PeerKind::kBufferedSync:
      return {{"ReadFile", &NewBufferedReadFilePeer}, {"memcpy from a view", &NewMappingPeer}};
    case PeerKind::kColdScan:
      return {};  // see DropFromPageCache
  }
  return {};
}

std::vector<BlockCachePeer> GetBlockCachePeers() {
  return {};
}

}  // namespace bench
