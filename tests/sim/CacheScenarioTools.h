// What scenarios of cancelling, closing and giving up share.
#pragma once

#include <cstddef>
#include <functional>
#include <utility>
#include <vector>

#include "SimBench.h"
#include "SimTools.h"

namespace Orvane {

// A form of reads of any memory whose report goes on with `then`.
template <typename Then>
SimRequestForm ThenDo(Then then) {
  const SimulatorAllocations::Exempt exempt;
  SimRequestForm form;
  form.anywhere = true;
  form.onReport = std::move(then);
  return form;
}

SimRequestForm AnywhereInPieces(std::size_t pieces);

// For small scenarios: all that is prepared is done, and from here on every order is tried, for the
// length of a block.
class EveryOrder {
 public:
  EveryOrder();
  ~EveryOrder();
  EveryOrder(const EveryOrder&) = delete;
  EveryOrder& operator=(const EveryOrder&) = delete;

  // To be called first in a scenario: one order will do.
  static void NotYet() { Simulator::VaryOrder(false); }
};

// Holds operations that end requests to their word: what had been started before one of them began
// has been reported when it returns. Not for operations inside callbacks.
class StartedRequests {
 public:
  SimRequest& Add(SimRequest& request);

  void Cancel(SimSource& source);
  void Purge(SimSource& source);
  void Close(SimSource& source);

 private:
  void RequireOver(std::size_t count, const SimSource& source, const char* after) const;

  std::vector<const SimRequest*> requests_;
};

}  // namespace Orvane
