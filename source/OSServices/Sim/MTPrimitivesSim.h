// The primitives of a world. Made outside of one they live as long as the process and are as new at
// the beginning of each.
#pragma once

#include <cstdint>
#include <string>

#include "MTPrimitives.h"
#include "OSServices/LockClass.h"
#include "OSServices/Sim/SimWorld.h"

namespace Orvane {

// What all have in common: a number, and a place in the arena of the world.
class SimPrimitive {
 public:
  std::uint64_t GetNumber() const { return number_; }
  // As it was made. Only for those that were made outside of a world.
  virtual void Renew() = 0;

  static void RenewAll();

 protected:
  explicit SimPrimitive(SimWorld::Primitive kind);
  virtual ~SimPrimitive();
  SimPrimitive(const SimPrimitive&) = delete;
  SimPrimitive& operator=(const SimPrimitive&) = delete;

  // Memory of the current world, or of the process.
  static void* Allocate(std::size_t size);

 private:
  std::uint64_t number_ = 0;  // 0: made outside of a world
};

class MTCritSecSim final : public MTCritSec, public SimPrimitive, public SimWaitable {
 public:
  explicit MTCritSecSim(LockClass lockClass);
  ~MTCritSecSim() override;
  static void* operator new(std::size_t size) { return Allocate(size); }
  static void operator delete(void* memory);

  void Enter() override ORVANE_NO_THREAD_SAFETY_ANALYSIS;
  void Leave() override ORVANE_NO_THREAD_SAFETY_ANALYSIS;

  void Renew() override;
  bool IsReadyFor(const SimThread& thread) const override;
  std::string Describe() const override;
  LockClass GetClass() const { return lockClass_; }

 private:
  const LockClass lockClass_;
  SimThread* owner_ = nullptr;
  std::uint32_t entries_ = 0;
  std::uint32_t waiters_ = 0;
};

class MTSemaphoreSim final : public MTSemaphore, public SimPrimitive, public SimWaitable {
 public:
  MTSemaphoreSim(std::uint32_t maxCount, std::uint32_t initialCount);
  ~MTSemaphoreSim() override;
  static void* operator new(std::size_t size) { return Allocate(size); }
  static void operator delete(void* memory);

  bool Release(std::uint32_t count) override;
  bool Wait(std::uint32_t timeoutMs, std::uint32_t count) override;

  void Renew() override;
  bool IsReadyFor(const SimThread& thread) const override;
  std::string Describe() const override;

 private:
  bool WaitForOne(std::uint32_t timeoutMs);

  const std::uint32_t maxCount_;
  const std::uint32_t initialCount_;
  std::uint32_t count_;
  std::uint32_t waiters_ = 0;
};

class MTAtomicUnsigned32Sim final : public MTAtomicUnsigned32, public SimPrimitive {
 public:
  explicit MTAtomicUnsigned32Sim(std::uint32_t initial);
  ~MTAtomicUnsigned32Sim() override;
  static void* operator new(std::size_t size) { return Allocate(size); }
  static void operator delete(void* memory);

  std::uint32_t Get() override;
  std::uint32_t Increment() override;
  std::uint32_t Decrement() override;
  bool CompareAndSwap(std::uint32_t expected, std::uint32_t desired) override;

  void Renew() override { value_ = initial_; }

 private:
  std::uint32_t Add(std::uint32_t summand);

  const std::uint32_t initial_;
  std::uint32_t value_;
};

class MTAtomicUnsigned64Sim final : public MTAtomicUnsigned64, public SimPrimitive {
 public:
  explicit MTAtomicUnsigned64Sim(std::uint64_t initial);
  ~MTAtomicUnsigned64Sim() override;
  static void* operator new(std::size_t size) { return Allocate(size); }
  static void operator delete(void* memory);

  std::uint64_t Get() override;
  std::uint64_t Increment() override;
  std::uint64_t Decrement() override;
  bool CompareAndSwap(std::uint64_t expected, std::uint64_t desired) override;

  void Renew() override { value_ = initial_; }

 private:
  std::uint64_t Add(std::uint64_t summand);

  const std::uint64_t initial_;
  std::uint64_t value_;
};

// "lock 12 (block list)".
std::string DescribeSimLock(const MTCritSecSim* lock);

}  // namespace Orvane
