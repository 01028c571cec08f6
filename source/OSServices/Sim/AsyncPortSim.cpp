#include "OSServices/Sim/AsyncPortSim.h"

#include "OSServices/Sim/SimDevice.h"
#include "OSServices/Sim/SimWorld.h"

namespace Orvane {

void AsyncPortSim::Detach() {
  const SimInside inside;
  if (world_->Device().GetTransfersInFlight() != 0) {
    world_->Fail("the port is detached while transfers are in flight");
  }
}

AsyncPort::Started AsyncPortSim::Issue(const Transfer& transfer) {
  const SimInside inside;
  world_->Step(SimEvent::kTransferIssued, transfer.slot, transfer.offset);
  world_->Progress();
  if (world_->DrawFault(world_->Setup().faults.failIssue)) return Started::kFailed;
  const SimFile* const file = static_cast<HostFileSim*>(transfer.file)->GetFile();
  const bool behindEnd = file && !transfer.write && transfer.offset >= file->bytes.size();
  // A host may know at once.
  if (behindEnd && world_->DeviceRandom().OneIn(3)) return Started::kEndOfFile;
  world_->Device().Start(this, transfer);
  return Started::kInFlight;
}

void AsyncPortSim::Cancel(std::uint32_t slot, std::uint32_t generation) {
  const SimInside inside;
  world_->Step(SimEvent::kTransferCancelled, slot, generation);
  world_->Device().GiveUp(slot, generation);
}

bool AsyncPortSim::Wait(std::uint32_t timeoutMs, Completion* completion) {
  {
    const SimInside inside;
    world_->Step(SimEvent::kPortWait, timeoutMs);
    const std::uint64_t deadline = world_->DeadlineIn(timeoutMs);
    while (!woken_ && !world_->Device().HasSettled(this)) {
      if (timeoutMs == 0 || !world_->Wait(this, deadline)) return false;
    }
    const bool collect =
        world_->Device().HasSettled(this) && !(woken_ && world_->DeviceRandom().OneIn(2));
    if (collect) {
      *completion = world_->Device().Collect(this);
      world_->Record(SimEvent::kPortTaken, completion->slot, completion->bytes);
      world_->Progress();
      return true;
    }
    woken_ = false;
    world_->Record(SimEvent::kPortReturns, 0);
  }
  SimObserve(this);
  return false;
}

void AsyncPortSim::Wake(Signal) {
  const SimInside inside;
  world_->Step(SimEvent::kPortWoken, 0);
  SimPublish(this);
  woken_ = true;
  world_->Progress();
}

bool AsyncPortSim::IsAtEnd(HostFile* file, std::uint64_t position) {
  const SimInside inside;
  const SimFile* const opened = static_cast<HostFileSim*>(file)->GetFile();
  if (!opened || opened->bytes.empty() || position < opened->bytes.size()) return false;
  // Some hosts cannot tell.
  return !world_->DeviceRandom().OneIn(4);
}

bool AsyncPortSim::IsReadyFor(const SimThread&) const {
  return woken_ || world_->Device().HasSettled(this);
}

std::string AsyncPortSim::Describe() const {
  return "the port, with " + std::to_string(world_->Device().GetTransfersInFlight()) +
         " transfers in flight";
}

}  // namespace Orvane
