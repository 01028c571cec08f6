// Errors that name the file and the cause. The library answers result codes only, so the cause is
// looked for with the standard library: before a transfer and after one that failed.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "CacheSource.h"

namespace OrvaneTool {

enum ExitCode : int {
  kExitOk = 0,
  kExitTransfer = 1,       // input/output error, full disk, different checksums
  kExitUsage = 2,          // wrong command line
  kExitFile = 3,           // a file cannot be opened or created
  kExitInterrupted = 130,  // Ctrl-C or a termination request
};

// What ended a command. what() is the whole message: "cannot read 'name': no such file".
class ToolError : public std::runtime_error {
 public:
  // `file` may be empty.
  ToolError(ExitCode exitCode, std::string error, std::string file, std::string cause);

  // The same error with a further sentence about what was left behind.
  ToolError WithNote(const std::string& note) const;

  ExitCode exitCode() const { return exitCode_; }
  const std::string& error() const { return error_; }
  const std::string& file() const { return file_; }
  const std::string& cause() const { return cause_; }

 private:
  ExitCode exitCode_;
  std::string error_;
  std::string file_;
  std::string cause_;
};

// Prints the message on standard error, and as a JSON object on standard output when `json`.
void PrintError(const ToolError& error, bool json);

// Throws ToolError unless `file` is an existing regular file that can be opened for reading.
void RequireReadable(const std::string& file);
// The size in bytes; throws ToolError.
std::uint64_t FileSize(const std::string& file);
// Makes sure that `file` can be written: an existing regular file is tried, a missing one created
// empty. True if it was created. Throws ToolError.
bool RequireWritable(const std::string& file);
// Sets the size of an existing file; throws ToolError.
void ResizeFile(const std::string& file, std::uint64_t bytes);

// One transfer that failed.
struct FailedTransfer {
  bool writing = false;
  Orvane::CacheSource::Result_t result = Orvane::CacheSource::kResultNone;
  std::uint64_t offset = 0;  // bytes, of the request
  std::uint64_t asked = 0;   // bytes
  std::uint64_t moved = 0;   // bytes
};

// The error for it, with the cause as far as it can be found: tries the same range once more with
// the standard library. A failed write is repeated with a page of zeros, so call it only for a file
// whose content is lost anyway.
ToolError ExplainFailure(const std::string& file, const FailedTransfer& failed);

}  // namespace OrvaneTool
