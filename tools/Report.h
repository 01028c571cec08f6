// What a command prints on standard output.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace OrvaneTool {

// One line of JSON. Bytes of a file name that are not valid UTF-8 are replaced.
void PrintJson(const nlohmann::ordered_json& object);
// One line per member: name and value. An array has one per element, with its number.
void PrintText(const nlohmann::ordered_json& object);

}  // namespace OrvaneTool
