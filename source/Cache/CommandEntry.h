// Commands with what orders them, side by side in arrays: putting them in order touches no command.
#pragma once

#include <cstdint>
#include <vector>

namespace Orvane {

class Command;

struct CommandEntry {
  std::uint64_t key;
  std::uint64_t number;  // of the addition
  Command* command;

  bool IsBefore(const CommandEntry& other) const {
    return key != other.key ? key < other.key : number < other.number;
  }
};

using CommandEntries = std::vector<CommandEntry>;

// Many take linear time, if there is memory for as many again. Never throws.
void SortCommandEntries(CommandEntries* entries);

// An array that once held many more is given back when nothing is in it any more.
void ReleaseRoomIfEmpty(CommandEntries* entries);

}  // namespace Orvane
