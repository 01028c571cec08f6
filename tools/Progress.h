// How far a command is: a bar on a terminal, a line now and then otherwise. On standard error.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace OrvaneTool {

// Used by one thread.
class Progress {
 public:
  // `total` in bytes; `quiet` shows nothing.
  Progress(std::string label, std::uint64_t total, bool quiet);
  // Takes the bar away.
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Shows `done` bytes, unless something was shown a moment ago.
  void Update(std::uint64_t done);
  // Since construction.
  double Seconds() const;

 private:
  using Clock = std::chrono::steady_clock;

  // "12% of 1.0 GiB  512 MB/s  0:07 left"
  std::string Facts(std::uint64_t done) const;
  void ShowBar(std::uint64_t done);
  void ShowLine(std::uint64_t done) const;

  const std::string label_;
  const std::uint64_t total_;
  const bool quiet_;
  const bool terminal_;
  const Clock::time_point start_;
  Clock::time_point shown_;
  bool barShown_ = false;
};

}  // namespace OrvaneTool
