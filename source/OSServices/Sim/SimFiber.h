// What the threads of a world run on when they share a thread of the host. One implementation per
// host folder.
#pragma once

#include <cstddef>

namespace Orvane {

// A stack, and where on it to go on. One at a time runs. Not thread-safe: all calls come from the
// thread of the host that they share, or from one at a time.
struct SimFiber;

constexpr std::size_t kSimStackBytes = std::size_t{256} << 10;

// The calling thread of the host as a fiber: where whoever runs the world goes on. One object per
// process, asked for again before each switch away from it.
SimFiber* GetSimFiberOfCaller();

// With a stack of its own and nobody on it. Never destroyed. Ends the process where there is no
// memory.
SimFiber* NewSimFiber();

// Lets `main` begin at the next switch to it. REQUIRES: nobody is on it, and it was not prepared
// for another `main`.
void PrepareSimFiber(SimFiber* fiber, void (*main)());

// The first call in `main`.
void ArriveOnSimFiber();

// Goes on on another one. Returns when somebody switches back; if `ends`, when `from` was prepared
// again and is switched to, or never: who has ended returns from `main` at once.
void SwitchSimFiber(SimFiber* from, SimFiber* to, bool ends);

// It was left for the last time by a switch that `ends`; it may be prepared again.
void LeaveSimFiber(SimFiber* fiber);

}  // namespace Orvane
