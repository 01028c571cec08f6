// The peers of this host, each in the source of its name.
#pragma once

#include <memory>

#include "../Job.h"

namespace bench {

// Past the page cache; those without "Sync" with several items in flight.
std::unique_ptr<Runner> NewOverlappedPeer(const Job& job);
std::unique_ptr<Runner> NewReadFilePeer(const Job& job);

// Through the page cache.
std::unique_ptr<Runner> NewBufferedOverlappedPeer(const Job& job);
std::unique_ptr<Runner> NewBufferedReadFilePeer(const Job& job);
std::unique_ptr<Runner> NewMappingPeer(const Job& job);

}  // namespace bench
