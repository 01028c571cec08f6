#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "Orvane.h"

namespace bench {

// The caller and so many threads more, which stay between passes: starting one is not what is
// measured.
class ThreadTeam {
 public:
  // `work` does a thread's share of a pass; it is told which, from 0, the caller's. It must not
  // throw.
  ThreadTeam(unsigned threads, std::function<void(unsigned thread)> work);
  ~ThreadTeam();
  ThreadTeam(const ThreadTeam&) = delete;
  ThreadTeam& operator=(const ThreadTeam&) = delete;

  // Returns when every share is done.
  void Pass();

 private:
  void Serve(unsigned thread);

  const std::function<void(unsigned thread)> work_;
  const std::unique_ptr<Orvane::MTSemaphore> go_;
  const std::unique_ptr<Orvane::MTSemaphore> done_;
  std::atomic<bool> over_{false};
  std::vector<std::thread> others_;  // last: they use the rest
};

}  // namespace bench
