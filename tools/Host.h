// The little that the tool needs from the operating system beyond the library and the standard
// library. One implementation per host folder.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>

namespace OrvaneTool {

// Makes interruption (Ctrl-C, a termination request) set a flag instead of ending the process. A
// second one ends the process at once. An interruption that the process was started to ignore stays
// ignored. Also turns the signal of an exceeded file size limit into an ordinary write error.
void CatchInterruptions();
// True once the process was interrupted. Safe from any thread: one atomic flag.
bool Interrupted();

bool StandardErrorIsTerminal();
// Columns of that terminal; 80 when unknown.
unsigned TerminalColumns();

// The path of a file named as on the command line: as the library and the C library take it.
std::filesystem::path ToPath(const std::string& file);

// Makes an empty file where nothing has that name; else nothing is touched. Answers the fault, if
// any.
std::error_code CreateNewFile(const std::string& file);

// Bytes of main memory; 0 when unknown.
std::uint64_t PhysicalMemoryBytes();

}  // namespace OrvaneTool
