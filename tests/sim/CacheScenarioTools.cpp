#include "CacheScenarioTools.h"

#include <string>

namespace Orvane {

SimRequestForm AnywhereInPieces(std::size_t pieces) {
  SimRequestForm form;
  form.anywhere = true;
  form.pieces = pieces;
  return form;
}

EveryOrder::EveryOrder() {
  Simulator::Settle();
  Simulator::VaryOrder(true);
}

EveryOrder::~EveryOrder() {
  Simulator::Settle();
  Simulator::VaryOrder(false);
}

SimRequest& StartedRequests::Add(SimRequest& request) {
  const SimulatorAllocations::Exempt exempt;
  requests_.push_back(&request);
  return request;
}

void StartedRequests::Cancel(SimSource& source) {
  const std::size_t count = requests_.size();
  source.Cancel();
  RequireOver(count, source, "Cancel");
}

void StartedRequests::Purge(SimSource& source) {
  const std::size_t count = requests_.size();
  source.Purge();
  RequireOver(count, source, "Purge");
}

// Answers false if it was closed already: then somebody else has waited.
void StartedRequests::Close(SimSource& source) {
  const std::size_t count = requests_.size();
  if (source.Close()) RequireOver(count, source, "Close");
}

void StartedRequests::RequireOver(std::size_t count, const SimSource& source,
                                  const char* after) const {
  const SimulatorAllocations::Exempt exempt;
  for (std::size_t k = 0; k < count; ++k) {
    const SimRequest& request = *requests_[k];
    if (&request.Source() != &source || request.IsOver()) continue;
    Simulator::Fail(std::string("not reported when ") + after + " had returned: a " +
                    (request.IsWrite() ? "write" : "read") + " of " +
                    std::to_string(request.Size()) + " bytes at " +
                    std::to_string(request.Offset()));
  }
}

}  // namespace Orvane
