// What runs the threads of a world on threads of the host.
#pragma once

#include <memory>

#include "OSServices/Sim/SimThread.h"

namespace Orvane {

// One at a time has control: a thread of the world, or whoever runs the world (null below).
class SimCarrier {
 public:
  virtual ~SimCarrier() = default;
  // Gets ready to run `thread`. Does not run it yet.
  virtual void Prepare(SimThread* thread) = 0;
  // Hands control from one to another. Returns when `from` has it again; never, if it has finished
  // or is abandoned.
  virtual void Switch(SimThread* from, SimThread* to) = 0;
  // `thread` will never have control again; its stack is left as it is.
  virtual void Abandon(SimThread* thread) = 0;

  // What a thread does; ends with a Switch. Begins and ends inside of SimIgnoreBegin.
  using Entry = void (*)(SimThread* thread);
};

// REQUIRES: one process-wide object of each kind.
std::unique_ptr<SimCarrier> NewSimFiberCarrier(SimCarrier::Entry entry);
std::unique_ptr<SimCarrier> NewSimThreadCarrier(SimCarrier::Entry entry);

}  // namespace Orvane
