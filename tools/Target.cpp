#include "Target.h"

#include <fmt/format.h>

#include <filesystem>
#include <system_error>
#include <utility>

#include "Errors.h"
#include "Host.h"

namespace OrvaneTool {

Target::Target(std::string file) : file_(std::move(file)), created_(RequireWritable(file_)) {}

Target::~Target() {
  if (!created_ || kept_) return;
  std::error_code ignored;
  std::filesystem::remove(ToPath(file_), ignored);
}

std::string Target::LeftBehind(const char* state) const {
  return created_ ? fmt::format("the new '{}' was removed", file_)
                  : fmt::format("'{}' is {}", file_, state);
}

}  // namespace OrvaneTool
