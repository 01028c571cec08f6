// The peers of this host, each in the source of its name.
#pragma once

#include <cstdint>
#include <memory>

#include "../Job.h"

namespace bench {

// Past the page cache; those without "Sync" with several items in flight.
std::unique_ptr<Runner> NewRingPeer(const Job& job);
std::unique_ptr<Runner> NewLibuvPeer(const Job& job);
std::unique_ptr<Runner> NewAsioPeer(const Job& job);
std::unique_ptr<Runner> NewPreadPeer(const Job& job);
std::unique_ptr<Runner> NewOtherThreadPeer(const Job& job);
std::unique_ptr<Runner> NewLibuvSyncPeer(const Job& job);
std::unique_ptr<Runner> NewAsioSyncPeer(const Job& job);

// Through the page cache.
std::unique_ptr<Runner> NewBufferedRingPeer(const Job& job);
std::unique_ptr<Runner> NewBufferedPreadPeer(const Job& job);
std::unique_ptr<Runner> NewColdPreadPeer(const Job& job);
std::unique_ptr<Runner> NewMappingPeer(const Job& job);

std::unique_ptr<Runner> NewLruCachePeer(const CachedJob& job);
std::unique_ptr<Runner> NewHyperClockCachePeer(const CachedJob& job);

}  // namespace bench
