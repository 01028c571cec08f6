// orvane: reads, writes and copies files through the library.
#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <nlohmann/json.hpp>

#include "Commands.h"
#include "Host.h"
#include "OSServices.h"
#include "Report.h"

namespace OrvaneTool {
namespace {

nlohmann::ordered_json RunCommand(Options& options) {
  Orvane::OSServices::Init();
  PrepareOptions(options);
  switch (options.command) {
    case Command::kRead:
      return RunRead(options);
    case Command::kWrite:
      return RunWrite(options);
    case Command::kCopy:
      return RunCopy(options);
  }
  return {};
}

int Fail(const ToolError& error, const Options& options) {
  PrintError(error, options.json);
  return error.exitCode();
}

int Run(Options& options) {
  try {
    const nlohmann::ordered_json report = RunCommand(options);
    if (options.json) {
      PrintJson(report);
    } else {
      PrintText(report);
    }
    if (std::fflush(stdout) == 0) return kExitOk;
    return Fail({kExitTransfer, "cannot print the result", "", "standard output"}, options);
  } catch (const ToolError& error) {
    return Fail(error, options);
  } catch (const std::exception& fault) {
    return Fail({kExitTransfer, "failed", options.file, fault.what()}, options);
  } catch (const char* fault) {
    return Fail({kExitTransfer, "failed", options.file, fault}, options);
  }
}

}  // namespace
}  // namespace OrvaneTool

int main(int count, char** arguments) {
  OrvaneTool::Parsed parsed = OrvaneTool::ParseCommandLine(count, arguments);
  if (!parsed.run) return parsed.exitCode;
  OrvaneTool::CatchInterruptions();
  return OrvaneTool::Run(parsed.options);
}
