#include "Report.h"

#include <fmt/format.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

namespace OrvaneTool {
namespace {

// The value as people read it: a text without quotes.
std::string ValueText(const nlohmann::ordered_json& value) {
  if (value.is_string()) return value.get<std::string>();
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_number_float()) return fmt::format("{:.3f}", value.get<double>());
  if (value.is_object()) {
    std::string text;
    for (const auto& [name, member] : value.items()) {
      text += fmt::format("{}{} {}", text.empty() ? "" : ", ", name, ValueText(member));
    }
    return text;
  }
  return value.dump();
}

}  // namespace

void PrintJson(const nlohmann::ordered_json& object) {
  using Json = nlohmann::ordered_json;
  fmt::print("{}\n", object.dump(-1, ' ', /*ensure_ascii=*/false, Json::error_handler_t::replace));
}

void PrintText(const nlohmann::ordered_json& object) {
  for (const auto& [name, value] : object.items()) {
    if (!value.is_array()) {
      fmt::print("{:<12} {}\n", name, ValueText(value));
      continue;
    }
    std::size_t number = 0;
    for (const auto& element : value) {
      fmt::print("{:<12} {}\n", fmt::format("{} {}", name, ++number), ValueText(element));
    }
  }
}

}  // namespace OrvaneTool
