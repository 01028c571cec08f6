#include "Errors.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <system_error>
#include <utility>
#include <vector>

#include "Host.h"
#include "Report.h"
#include "Text.h"

namespace OrvaneTool {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kProbeBytes = 4096;

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using StandardFile = std::unique_ptr<std::FILE, CloseFile>;

std::string Message(const std::string& error, const std::string& file, const std::string& cause) {
  if (file.empty()) return fmt::format("{}: {}", error, cause);
  return fmt::format("{} '{}': {}", error, file, cause);
}

std::string CauseOf(int number) {
  return number == 0 ? "unknown cause" : std::generic_category().message(number);
}

ToolError CannotRead(const std::string& file, const std::string& cause) {
  return {kExitFile, "cannot read", file, cause};
}

ToolError CannotWrite(const std::string& file, const std::string& cause) {
  return {kExitFile, "cannot write", file, cause};
}

// Why nothing by this name can be opened as a regular file; empty if it exists and is one, or if
// that cannot be found out.
std::string NotRegular(const fs::file_status& status) {
  if (fs::is_directory(status)) return "it is a directory";
  if (fs::exists(status) && !fs::is_regular_file(status)) return "it is not a regular file";
  return "";
}

// Why no file can be created there; empty if the folder is there.
std::string NoParent(const std::string& file) {
  fs::path parent = ToPath(file).parent_path();
  if (parent.empty()) parent = ".";
  std::error_code fault;
  const fs::file_status status = fs::status(parent, fault);
  if (status.type() == fs::file_type::not_found) {
    return fmt::format("no such directory '{}'", parent.string());
  }
  if (fs::exists(status) && !fs::is_directory(status)) {
    return fmt::format("'{}' is not a directory", parent.string());
  }
  return "";
}

// Reads the range as far as a page with the standard library; the cause of a failure or empty.
std::string ProbeRead(const std::string& file, std::uint64_t offset) {
  errno = 0;
  std::ifstream stream(file, std::ios::binary);
  if (!stream) return CauseOf(errno);
  std::vector<char> page(kProbeBytes);
  errno = 0;
  stream.seekg(static_cast<std::streamoff>(offset));
  stream.read(page.data(), static_cast<std::streamsize>(page.size()));
  return stream.bad() ? CauseOf(errno) : "";
}

std::string ProbeWrite(const std::string& file, std::uint64_t offset) {
  errno = 0;
  std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
  if (!stream) return CauseOf(errno);
  const std::vector<char> page(kProbeBytes);
  errno = 0;
  stream.seekp(static_cast<std::streamoff>(offset));
  stream.write(page.data(), static_cast<std::streamsize>(page.size()));
  stream.flush();
  return stream ? "" : CauseOf(errno);
}

// "the disk is full (...)" when less is free than was still to be written; else empty.
std::string FullDisk(const std::string& file, std::uint64_t missing) {
  fs::path folder = ToPath(file).parent_path();
  if (folder.empty()) folder = ".";
  std::error_code fault;
  const fs::space_info space = fs::space(folder, fault);
  if (fault || space.available >= missing) return "";
  return fmt::format("no space left on the disk ({} free)", SizeText(space.available));
}

const char* ResultText(Orvane::CacheSource::Result_t result) {
  switch (result) {
    case Orvane::CacheSource::kResultPartial:
      return "the transfer ended early";
    case Orvane::CacheSource::kResultOutOfRange:
      return "the file ended early";
    case Orvane::CacheSource::kResultFailed:
      return "the transfer was cancelled";
    case Orvane::CacheSource::kResultNotSupported:
      return "the file is not open for this";
    case Orvane::CacheSource::kResultError:
      return "input/output error, or no answer from the device in time";
    default:
      return "unexpected result";
  }
}

std::string ReadCause(const std::string& file, const FailedTransfer& failed) {
  std::error_code fault;
  const std::uintmax_t size = fs::file_size(ToPath(file), fault);
  if (fault) return fault.message();
  if (size < failed.offset + failed.asked) return "the file became shorter meanwhile";
  return ProbeRead(file, failed.offset + failed.moved);
}

std::string WriteCause(const std::string& file, const FailedTransfer& failed) {
  std::error_code fault;
  if (!fs::exists(ToPath(file), fault)) return "the file was removed meanwhile";
  const std::string full = FullDisk(file, failed.asked - failed.moved);
  return full.empty() ? ProbeWrite(file, failed.offset + failed.moved) : full;
}

}  // namespace

ToolError::ToolError(ExitCode exitCode, std::string error, std::string file, std::string cause)
    : std::runtime_error(Message(error, file, cause)),
      exitCode_(exitCode),
      error_(std::move(error)),
      file_(std::move(file)),
      cause_(std::move(cause)) {}

ToolError ToolError::WithNote(const std::string& note) const {
  return {exitCode_, error_, file_, cause_ + "; " + note};
}

void PrintError(const ToolError& error, bool json) {
  fmt::print(stderr, "orvane: {}\n", error.what());
  if (!json) return;
  PrintJson({{"error", error.error()},
             {"file", error.file()},
             {"cause", error.cause()},
             {"exit_code", static_cast<int>(error.exitCode())}});
}

void RequireReadable(const std::string& file) {
  std::error_code fault;
  const fs::file_status status = fs::status(ToPath(file), fault);
  if (status.type() == fs::file_type::not_found) throw CannotRead(file, "no such file");
  const std::string notRegular = NotRegular(status);
  if (!notRegular.empty()) throw CannotRead(file, notRegular);
  errno = 0;
  const StandardFile opened(std::fopen(file.c_str(), "rb"));
  if (!opened) throw CannotRead(file, CauseOf(errno));
}

std::uint64_t FileSize(const std::string& file) {
  std::error_code fault;
  const std::uintmax_t size = fs::file_size(ToPath(file), fault);
  if (fault) throw CannotRead(file, fault.message());
  return size;
}

bool RequireWritable(const std::string& file) {
  std::error_code fault;
  const fs::file_status status = fs::status(ToPath(file), fault);
  const std::string notRegular = NotRegular(status);
  if (!notRegular.empty()) throw CannotWrite(file, notRegular);
  const bool create = status.type() == fs::file_type::not_found;
  if (create) {
    const std::string noParent = NoParent(file);
    if (!noParent.empty()) throw CannotWrite(file, noParent);
    fault = CreateNewFile(file);
    if (fault) throw CannotWrite(file, fault.message());
    return true;
  }
  errno = 0;
  const StandardFile opened(std::fopen(file.c_str(), "r+b"));
  if (!opened) throw CannotWrite(file, CauseOf(errno));
  return false;
}

void ResizeFile(const std::string& file, std::uint64_t bytes) {
  std::error_code fault;
  fs::resize_file(ToPath(file), bytes, fault);
  if (fault) {
    throw ToolError(kExitTransfer, fmt::format("cannot set the size to {} bytes of", bytes), file,
                    fault.message());
  }
}

ToolError ExplainFailure(const std::string& file, const FailedTransfer& failed) {
  std::string cause = failed.writing ? WriteCause(file, failed) : ReadCause(file, failed);
  if (cause.empty()) cause = ResultText(failed.result);
  return {kExitTransfer,
          fmt::format("{} failed at byte {} of", failed.writing ? "writing" : "reading",
                      failed.offset + failed.moved),
          file, cause};
}

}  // namespace OrvaneTool
