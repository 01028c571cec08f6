// The I/O port over the device of the world.
#pragma once

#include "OSServices/AsyncPort.h"
#include "OSServices/Sim/SimThread.h"

namespace Orvane {

class SimWorld;

// Completions come in any order. Whether a wake-up or a completion ends a wait is decided by lot
// where there are both.
class AsyncPortSim : public AsyncPort, public SimWaitable {
 public:
  explicit AsyncPortSim(SimWorld* world) : world_(world) {}

  bool Attach() override { return true; }
  void Detach() override;
  Started Issue(const Transfer& transfer) override;
  void Cancel(std::uint32_t slot, std::uint32_t generation) override;
  bool Wait(std::uint32_t timeoutMs, Completion* completion) override;
  void Wake(Signal signal) override;
  bool IsAtEnd(HostFile* file, std::uint64_t position) override;

  bool IsReadyFor(const SimThread& thread) const override;
  std::string Describe() const override;

 private:
  SimWorld* const world_;
  bool woken_ = false;
};

}  // namespace Orvane
