// The processes that share the work of orvane_simulate: one that goes wrong takes only its own
// share with it. One implementation per host folder.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace Orvane {

class JobProcesses {
 public:
  using Work = std::function<void(unsigned job, void* shared)>;

  // Starts processes 0 to `count` - 1. Each runs `work` and ends; the pages it calls `shared`,
  // `bytesEach` bytes, zero at first, are also the caller's. On a host that cannot copy a process
  // each is this program again, with the same arguments: when it gets here it runs its work and
  // does not return. Null if the host has no memory to share.
  static std::unique_ptr<JobProcesses> Start(unsigned count, std::size_t bytesEach,
                                             const Work& work);
  virtual ~JobProcesses() = default;
  JobProcesses(const JobProcesses&) = delete;
  JobProcesses& operator=(const JobProcesses&) = delete;

  virtual void* SharedWith(unsigned job) = 0;
  // Does not wait. Also true for one that could not be started.
  virtual bool HasEnded(unsigned job) = 0;
  // Of one that has ended: "exit code 0" after its work, "exit code 1", "signal 11", ...
  virtual std::string HowItEnded(unsigned job) = 0;
  virtual void Kill(unsigned job) = 0;

 protected:
  JobProcesses() = default;
};

}  // namespace Orvane
