#include "MTHooks.h"

#include <atomic>
#include <memory>
#include <utility>

namespace Orvane {
namespace {

constexpr std::uint32_t kShortMs = 10;
constexpr std::uint32_t kLongMs = 20000;

// Needs no destructor: primitives are used until the very end of a thread.
struct Commands {
  MTHooks::Step* afterRelease = nullptr;
  MTHooks::Step* afterSwap = nullptr;
  MTHooks::Step* afterLeave = nullptr;
  LockClass leftClass = LockClass::kOther;
  int leavesLeft = 0;
  bool failsNextWait = false;
};

thread_local Commands commands;
std::atomic<int> longWaits{0};
std::atomic<int> waitsMadeLonger{0};

// Taken out first: the step may use the same primitives.
void RunOnce(MTHooks::Step** step) {
  const std::unique_ptr<MTHooks::Step> taken(std::exchange(*step, nullptr));
  if (taken) (*taken)();
}

void Set(MTHooks::Step** place, MTHooks::Step step) {
  delete std::exchange(*place, new MTHooks::Step(std::move(step)));
}

}  // namespace

void MTHooks::AfterNextRelease(Step step) {
  Set(&commands.afterRelease, std::move(step));
}

void MTHooks::AfterNextSwap(Step step) {
  Set(&commands.afterSwap, std::move(step));
}

void MTHooks::AfterLeave(LockClass lockClass, int ordinal, Step step) {
  commands.leftClass = lockClass;
  commands.leavesLeft = ordinal;
  Set(&commands.afterLeave, std::move(step));
}

void MTHooks::FailNextWait() {
  commands.failsNextWait = true;
}

MTHooks::LongWaits::LongWaits() {
  waitsMadeLonger = 0;
  ++longWaits;
}

MTHooks::LongWaits::~LongWaits() {
  --longWaits;
}

bool MTHooks::LongWaits::IsOn() {
  return longWaits > 0;
}

int MTHooks::LongWaits::GetCount() const {
  return waitsMadeLonger;
}

void MTHooks::Released() {
  RunOnce(&commands.afterRelease);
}

void MTHooks::Swapped() {
  RunOnce(&commands.afterSwap);
}

void MTHooks::Left(LockClass lockClass) {
  if (commands.leavesLeft == 0 || lockClass != commands.leftClass) return;
  if (--commands.leavesLeft == 0) RunOnce(&commands.afterLeave);
}

bool MTHooks::TakeFailure() {
  return std::exchange(commands.failsNextWait, false);
}

std::uint32_t MTHooks::WaitTime(std::uint32_t timeoutMs) {
  const bool isShort = timeoutMs > 0 && timeoutMs <= kShortMs;
  if (!isShort || longWaits == 0) return timeoutMs;
  ++waitsMadeLonger;
  return kLongMs;
}

}  // namespace Orvane
