#include "Host.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

#include <atomic>

namespace OrvaneTool {
namespace {

std::atomic<bool> interrupted{false};

// Runs on a thread of its own. A second interruption finds the host's own handler, which ends the
// process.
BOOL WINAPI OnInterruption(DWORD) {
  interrupted.store(true);
  SetConsoleCtrlHandler(OnInterruption, FALSE);
  return TRUE;
}

HANDLE StandardError() {
  return GetStdHandle(STD_ERROR_HANDLE);
}

}  // namespace

// What ignores Ctrl-C is ignored before handlers are asked; files have no size limit here.
void CatchInterruptions() {
  SetConsoleCtrlHandler(OnInterruption, TRUE);
}

bool Interrupted() {
  return interrupted.load();
}

bool StandardErrorIsTerminal() {
  DWORD mode = 0;
  return GetConsoleMode(StandardError(), &mode) != 0;
}

unsigned TerminalColumns() {
  CONSOLE_SCREEN_BUFFER_INFO info = {};
  if (!GetConsoleScreenBufferInfo(StandardError(), &info)) return 80;
  const int columns = info.srWindow.Right - info.srWindow.Left + 1;
  return columns > 0 ? static_cast<unsigned>(columns) : 80;
}

// The standard library would not ask for the code page of the process.
std::filesystem::path ToPath(const std::string& file) {
  const int size = static_cast<int>(file.size());
  const int wideSize = MultiByteToWideChar(CP_ACP, 0, file.data(), size, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(wideSize), L'\0');
  MultiByteToWideChar(CP_ACP, 0, file.data(), size, wide.data(), wideSize);
  return wide;
}

// The C library of mingw-w64 has no mode for this: it ignores the 'x' of fopen.
std::error_code CreateNewFile(const std::string& file) {
  const HANDLE handle =
      CreateFileW(ToPath(file).c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                  CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    return {static_cast<int>(GetLastError()), std::system_category()};
  }
  CloseHandle(handle);
  return {};
}

std::uint64_t PhysicalMemoryBytes() {
  MEMORYSTATUSEX status = {};
  status.dwLength = sizeof status;
  return GlobalMemoryStatusEx(&status) ? status.ullTotalPhys : 0;
}

}  // namespace OrvaneTool
