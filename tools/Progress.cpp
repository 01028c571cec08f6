#include "Progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "Host.h"
#include "Text.h"

namespace OrvaneTool {
namespace {

constexpr std::chrono::milliseconds kBarInterval{100};
constexpr std::chrono::seconds kLineInterval{5};
constexpr std::size_t kLongestBar = 30;
constexpr std::size_t kShortestBar = 5;

double Part(std::uint64_t done, std::uint64_t total) {
  return total == 0 ? 1.0 : static_cast<double>(done) / static_cast<double>(total);
}

}  // namespace

Progress::Progress(std::string label, std::uint64_t total, bool quiet)
    : label_(std::move(label)),
      total_(total),
      quiet_(quiet),
      terminal_(StandardErrorIsTerminal()),
      start_(Clock::now()),
      shown_(start_) {}

Progress::~Progress() {
  if (barShown_) std::fputs("\r\033[K", stderr);
}

double Progress::Seconds() const {
  return std::chrono::duration<double>(Clock::now() - start_).count();
}

void Progress::Update(std::uint64_t done) {
  if (quiet_) return;
  const Clock::time_point now = Clock::now();
  if (terminal_ ? now - shown_ < kBarInterval : now - shown_ < kLineInterval) return;
  shown_ = now;
  if (terminal_) {
    ShowBar(done);
  } else {
    ShowLine(done);
  }
}

std::string Progress::Facts(std::uint64_t done) const {
  const double rate = static_cast<double>(done) / std::max(Seconds(), 0.001);
  const double left = rate > 0 ? static_cast<double>(total_ - done) / rate : 0;
  return fmt::format("{:3.0f}% of {}  {}  {} left", 100 * Part(done, total_), SizeText(total_),
                     RateText(rate), done == 0 ? "?" : DurationText(left));
}

void Progress::ShowBar(std::uint64_t done) {
  const std::string facts = Facts(done);
  const std::size_t columns = TerminalColumns();
  const std::size_t taken = label_.size() + facts.size() + 6;
  const std::size_t width =
      std::min(kLongestBar, columns > taken + kShortestBar ? columns - taken : 0);
  const auto filled = static_cast<std::size_t>(Part(done, total_) * static_cast<double>(width));
  if (width == 0) {
    fmt::print(stderr, "\r\033[K{:.{}}", facts, columns > 1 ? columns - 1 : 1);
  } else {
    fmt::print(stderr, "\r\033[K{} [{:=>{}}{:>{}}] {}", label_, "", filled, "", width - filled,
               facts);
  }
  std::fflush(stderr);
  barShown_ = true;
}

void Progress::ShowLine(std::uint64_t done) const {
  fmt::print(stderr, "{}: {}\n", label_, Facts(done));
}

}  // namespace OrvaneTool
