// The command line.
#pragma once

#include <cstdint>
#include <string>

namespace OrvaneTool {

enum class Command { kRead, kWrite, kCopy };

// What the user asked for; fields of other commands keep their defaults.
struct Options {
  Command command = Command::kRead;
  std::string file;                     // read, write: the file; copy: the source
  std::string destination;              // copy
  std::uint64_t blockBytes = 1U << 20;  // a multiple of the page size once prepared
  unsigned depth = 16;                  // blocks in flight
  std::uint64_t sizeBytes = 0;          // write
  std::uint64_t seed = 1;               // write
  bool sync = false;                    // read
  bool verify = false;                  // copy
  bool quiet = false;
  bool json = false;
};

// "read", "write" or "copy".
const char* CommandName(Command command);

// What became of the command line.
struct Parsed {
  Options options;
  bool run = false;  // false: `exitCode` is the result, everything has been printed
  int exitCode = 0;
};

// Never throws for a wrong command line: prints what is wrong (as JSON when --json is among the
// arguments) and answers exit code 2. Prints the help when asked for it.
Parsed ParseCommandLine(int count, const char* const* arguments);

// Rounds the block size up to whole pages. Throws ToolError when the blocks in flight would take
// more than half of the main memory. REQUIRES: an initialised library.
void PrepareOptions(Options& options);

}  // namespace OrvaneTool
