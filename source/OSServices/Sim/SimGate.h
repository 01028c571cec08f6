// How threads of the host hand control to each other. One implementation per host folder.
#pragma once

#include <memory>

namespace Orvane {

// One thread takes; any other one gives, once per take, before it or meanwhile.
class SimGate {
 public:
  virtual ~SimGate() = default;
  virtual void Give() = 0;
  // Waits until it was given. What the giver did before has happened, but for the thread sanitizer,
  // to which control changes hands unseen.
  virtual void Take() = 0;

 protected:
  SimGate() = default;
};

// Ends the process where the host has none to give.
std::unique_ptr<SimGate> NewSimGate();

}  // namespace Orvane
