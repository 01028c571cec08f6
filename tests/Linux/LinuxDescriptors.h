#pragma once

#include <string>

namespace Orvane {

// A file descriptor's state as the kernel reports it.
struct DescriptorState {
  bool found;
  int flags;  // as of open
};
// Of the descriptor of this process that is open on the path.
DescriptorState StateOfDescriptorOn(const std::string& path);

}  // namespace Orvane
