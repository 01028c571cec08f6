// What `new` has given and `delete` has not taken back, of the whole program.
#pragma once

#include <atomic>

namespace Orvane {

extern std::atomic<long> liveAllocations;

}  // namespace Orvane
