#include "OSServices/AsyncHandler.h"
#include "OSServices/Win/AsyncPortWin.h"
#include "OSServices/Win/NativeFileSourceWin.h"
#include "OSServicesHost.h"

namespace Orvane {
namespace {

using Engine = NativeFileSysInterfaceImpWin::Engine;

Engine runningEngine = Engine::kEngineAuto;

std::unique_ptr<AsyncPort> NewPort(int attempt) {
  if (attempt != 0) {
    runningEngine = Engine::kEngineAuto;
    return nullptr;
  }
  runningEngine = Engine::kEngineOverlapped;
  return std::make_unique<AsyncPortWin>();
}

// Made once, never destroyed. The initialisation of a local static is the host's once-only guard.
AsyncHandler* ProcessHandler() {
  static AsyncHandler* const handler = new AsyncHandler(NewPort);
  return handler;
}

bool ThreadsAreInstalled() {
  try {
    MTInterface::GetCPUCount();
    return true;
  } catch (const char*) {
    return false;
  }
}

}  // namespace

NativeFileSysInterfaceImpWin::NativeFileSysInterfaceImpWin(Engine) {
  // Made by the application before OSServices has installed the threads, it waits for Installed.
  if (ThreadsAreInstalled()) ProcessHandler();
}

NativeFileSysInterfaceImpWin::~NativeFileSysInterfaceImpWin() = default;

NativeFileSource* NativeFileSysInterfaceImpWin::NewNativeFileSource(const char* name) {
  return new NativeFileSourceWin(name, ProcessHandler());
}

void NativeFileSysInterfaceImpWin::Installed() {
  ProcessHandler();
}

NativeFileSysInterfaceImpWin::Engine NativeFileSysInterfaceImpWin::GetEngine() {
  return runningEngine;
}

const char* NativeFileSysInterfaceImpWin::GetEngineName() {
  return runningEngine == kEngineOverlapped ? "overlapped" : "none";
}

}  // namespace Orvane
