#include "ItemQueue.h"

#include <stdexcept>
#include <system_error>

namespace bench {

void CheckMoved(const std::string& peer, std::int64_t moved, std::uint64_t wanted) {
  if (moved == static_cast<std::int64_t>(wanted)) return;
  throw std::runtime_error(
      peer + ": " +
      (moved < 0 ? std::system_category().message(static_cast<int>(-moved))
                 : std::to_string(moved) + " bytes moved instead of " + std::to_string(wanted)));
}

void RequireReads(const std::string& peer, const Job& job) {
  if (job.write) throw std::runtime_error(peer + ": only reads");
}

}  // namespace bench
