// The command line.
#pragma once

#include <cstdint>
#include <string>

namespace OrvaneTool {

enum class Command { kRead, kWrite, kCopy };

// The cache that a file is read through.
struct CacheOptions {
  bool enabled = false;
  std::uint64_t blockBytes = 64U << 10;  // a multiple of the page size once prepared
  unsigned blocks = 1024;
  std::uint64_t preReadBytes = 0;  // how far ahead of the reader; 0: no pre-reads
  unsigned rate = 1000;            // 10^6 bytes per second, for the due times of pre-reads
};

// What the user asked for; fields of other commands keep their defaults.
struct Options {
  Command command = Command::kRead;
  std::string file;         // read, write: the file; copy: the source
  std::string destination;  // copy
  // Once prepared a multiple of the page size, unless only a cache is asked for blocks of it.
  std::uint64_t blockBytes = 1U << 20;
  unsigned depth = 16;          // blocks in flight
  std::uint64_t sizeBytes = 0;  // write
  std::uint64_t seed = 1;       // write
  bool sync = false;            // read
  unsigned passes = 1;          // read
  CacheOptions cache;           // read, copy
  bool verify = false;          // copy
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

// Rounds the block size up to whole pages where files are asked for blocks of it. Throws ToolError
// for a cache that cannot be, and when cache and blocks in flight together would take more than
// half of the main memory. REQUIRES: an initialised library.
void PrepareOptions(Options& options);

}  // namespace OrvaneTool
