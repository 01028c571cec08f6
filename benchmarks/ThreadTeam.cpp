#include "ThreadTeam.h"

#include <cstdint>
#include <utility>

namespace bench {

ThreadTeam::ThreadTeam(unsigned threads, std::function<void(unsigned thread)> work)
    : work_(std::move(work)),
      go_(Orvane::MTInterface::NewSemaphore(threads, 0)),
      done_(Orvane::MTInterface::NewSemaphore(threads, 0)) {
  for (unsigned k = 1; k < threads; ++k) others_.emplace_back([this, k] { Serve(k); });
}

ThreadTeam::~ThreadTeam() {
  over_ = true;
  if (!others_.empty()) go_->Release(static_cast<std::uint32_t>(others_.size()));
  for (std::thread& other : others_) other.join();
}

void ThreadTeam::Pass() {
  const auto others = static_cast<std::uint32_t>(others_.size());
  if (others > 0) go_->Release(others);
  work_(0);
  if (others > 0) done_->Wait(0xFFFFFFFF, others);
}

void ThreadTeam::Serve(unsigned thread) {
  for (;;) {
    go_->Wait(0xFFFFFFFF, 1);
    if (over_) return;
    work_(thread);
    done_->Release(1);
  }
}

}  // namespace bench
