#include "Options.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <string_view>

#include "Errors.h"
#include "Host.h"
#include "PhysMemInterface.h"
#include "Text.h"

namespace OrvaneTool {
namespace {

// The library runs at most this many requests per process at a time.
constexpr unsigned kMostInFlight = 61;
// Below what one request to the host can carry.
constexpr std::uint64_t kLargestBlock = std::uint64_t{1} << 30;
constexpr unsigned kMostCacheBlocks = 1U << 30;
constexpr unsigned kHighestRate = 1000000;
constexpr unsigned kMostPasses = 1000;

constexpr const char* kFooter = R"(Sizes take the suffixes K, M, G, T (powers of 1024).
A file name that begins with a dash is written behind "--" or as ./-name.

Exit codes:
  0    done
  1    a transfer failed: input/output error, full disk, checksums that differ
  2    wrong usage
  3    a file could not be opened or created: missing, a directory, no permission
  130  interrupted (a second interruption ends the program without cleaning up)
)";

// An option whose value is a size; an unreadable one is a usage error.
CLI::Option* AddSize(CLI::App& app, const std::string& name, std::uint64_t& target,
                     const std::string& help) {
  return app
      .add_option_function<std::string>(
          name,
          [name, &target](const std::string& text) {
            const auto size = ParseSize(text);
            if (!size) throw CLI::ValidationError(name, "'" + text + "' is not a size");
            target = *size;
          },
          help)
      ->type_name("SIZE");
}

void AddCommon(CLI::App& app, Options& options) {
  AddSize(app, "--block", options.blockBytes, "Bytes per request, rounded up to pages [1M]");
  app.add_option("--depth", options.depth, "Requests in flight, 1 to 61 [16]")
      ->check(CLI::Range(1U, kMostInFlight))
      ->type_name("N");
  app.add_flag("-q,--quiet", options.quiet, "Show no progress");
  app.add_flag("--json", options.json, "Print one JSON object instead of text");
}

void AddCacheOptions(CLI::App& app, CacheOptions& cache) {
  CLI::Option* const cached = app.add_flag("--cached", cache.enabled, "Read through a cache");
  AddSize(app, "--block-size", cache.blockBytes, "Bytes per block of the cache, whole pages [64K]")
      ->needs(cached);
  app.add_option("--blocks", cache.blocks, "Blocks of the cache [1024]")
      ->check(CLI::Range(1U, kMostCacheBlocks))
      ->type_name("N")
      ->needs(cached);
  CLI::Option* const preRead =
      AddSize(app, "--pre-read", cache.preReadBytes, "Pre-read this far ahead of the reader [0]");
  preRead->needs(cached);
  app.add_option("--rate", cache.rate, "MB/s that pre-reads are to be in time for [1000]")
      ->check(CLI::Range(1U, kHighestRate))
      ->type_name("N")
      ->needs(preRead);
}

void AddRead(CLI::App& app, Options& options) {
  CLI::App* read = app.add_subcommand("read", "Read a whole file and print its checksum");
  read->add_option("FILE", options.file, "The file")->required();
  read->add_flag("--sync", options.sync, "One synchronous read after another");
  read->add_option("--passes", options.passes, "Read the file so many times; reports the last [1]")
      ->check(CLI::Range(1U, kMostPasses))
      ->type_name("N");
  AddCacheOptions(*read, options.cache);
  AddCommon(*read, options);
  read->callback([&options] { options.command = Command::kRead; });
}

void AddWrite(CLI::App& app, Options& options) {
  CLI::App* write = app.add_subcommand("write", "Write a file of pseudo-random content");
  write->add_option("FILE", options.file, "The file; an existing one is replaced")->required();
  AddSize(*write, "--size", options.sizeBytes, "Exact size of the file")->required();
  write->add_option("--seed", options.seed, "Selects the content [1]")->type_name("N");
  AddCommon(*write, options);
  write->callback([&options] { options.command = Command::kWrite; });
}

void AddCopy(CLI::App& app, Options& options) {
  CLI::App* copy = app.add_subcommand("copy", "Copy a file");
  copy->add_option("SRC", options.file, "The file to copy")->required();
  copy->add_option("DST", options.destination, "The copy; an existing file is replaced")
      ->required();
  copy->add_flag("--verify", options.verify, "Read the copy again and compare checksums");
  AddCacheOptions(*copy, options.cache);
  AddCommon(*copy, options);
  copy->callback([&options] { options.command = Command::kCopy; });
}

void CheckBlock(const Options& options) {
  if (options.blockBytes == 0 || options.blockBytes > kLargestBlock) {
    throw CLI::ValidationError("--block", "must be between 1 byte and 1G");
  }
  if (options.cache.blockBytes == 0 || options.cache.blockBytes > kLargestBlock) {
    throw CLI::ValidationError("--block-size", "must be between one page and 1G");
  }
}

std::uint64_t CacheBytes(const CacheOptions& cache) {
  return cache.enabled ? cache.blocks * cache.blockBytes : 0;
}

void CheckCache(const CacheOptions& cache, std::uint64_t page) {
  if (cache.blockBytes % page != 0) {
    throw ToolError(kExitUsage, "wrong usage", "",
                    fmt::format("--block-size: {} is not a multiple of the page size ({})",
                                cache.blockBytes, page));
  }
  if (cache.preReadBytes > CacheBytes(cache)) {
    throw ToolError(
        kExitUsage, "wrong usage", "",
        fmt::format("--pre-read: {} do not fit into {} blocks of {}", SizeText(cache.preReadBytes),
                    cache.blocks, SizeText(cache.blockBytes)));
  }
}

void CheckMemory(const Options& options) {
  const std::uint64_t memory = PhysicalMemoryBytes();
  const std::uint64_t blocks = options.sync ? 1 : options.depth;
  const std::uint64_t cacheBytes = CacheBytes(options.cache);
  if (memory == 0 || blocks * options.blockBytes + cacheBytes <= memory / 2) return;
  std::string what = fmt::format("{} blocks of {}", blocks, SizeText(options.blockBytes));
  if (cacheBytes > 0) what += fmt::format(" and a cache of {}", SizeText(cacheBytes));
  throw ToolError(
      kExitUsage, "too much memory asked for", "",
      fmt::format("{} are more than half of the main memory ({})", what, SizeText(memory)));
}

bool WantsJson(int count, const char* const* arguments) {
  return std::any_of(arguments, arguments + count,
                     [](std::string_view argument) { return argument == "--json"; });
}

}  // namespace

const char* CommandName(Command command) {
  switch (command) {
    case Command::kRead:
      return "read";
    case Command::kWrite:
      return "write";
    case Command::kCopy:
      return "copy";
  }
  return "";
}

Parsed ParseCommandLine(int count, const char* const* arguments) {
  Parsed parsed;
  CLI::App app("Reads, writes and copies large files with asynchronous, unbuffered I/O.", "orvane");
  app.allow_windows_style_options(false);  // alike everywhere; names may begin with a slash
  app.footer(kFooter);
  app.set_version_flag("--version", "orvane " ORVANE_VERSION);
  app.require_subcommand(1);
  AddRead(app, parsed.options);
  AddWrite(app, parsed.options);
  AddCopy(app, parsed.options);
  try {
    app.parse(count, arguments);
    CheckBlock(parsed.options);
    parsed.run = true;
  } catch (const CLI::ParseError& fault) {
    if (fault.get_exit_code() == 0) {
      app.exit(fault);
      return parsed;
    }
    const ToolError error(kExitUsage, "wrong usage", "", fault.what());
    PrintError(error, WantsJson(count, arguments));
    fmt::print(stderr, "Try 'orvane --help'.\n");
    parsed.exitCode = kExitUsage;
  }
  return parsed;
}

void PrepareOptions(Options& options) {
  const std::uint64_t page = Orvane::PhysMemInterface::GetPageSize();
  const bool asksCacheOnly = options.command == Command::kRead && options.cache.enabled;
  if (!asksCacheOnly) options.blockBytes = (options.blockBytes + page - 1) / page * page;
  CheckCache(options.cache, page);
  CheckMemory(options);
}

}  // namespace OrvaneTool
