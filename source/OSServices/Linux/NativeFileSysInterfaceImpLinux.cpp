#include <pthread.h>

#include "OSServices/AsyncHandler.h"
#include "OSServices/Linux/AsyncPortThreadsLinux.h"
#include "OSServices/Linux/AsyncPortUringLinux.h"
#include "OSServices/Linux/NativeFileSourceLinux.h"
#include "OSServicesHost.h"

namespace Orvane {
namespace {

using Engine = NativeFileSysInterfaceImpLinux::Engine;

AsyncHandler* processHandler = nullptr;  // made once, never destroyed
Engine runningEngine = Engine::kEngineAuto;

std::unique_ptr<AsyncPort> NewPort(Engine engine) {
  runningEngine = engine;
  if (engine == Engine::kEngineUring) return std::make_unique<AsyncPortUringLinux>();
  if (engine == Engine::kEngineThreads) return std::make_unique<AsyncPortThreadsLinux>();
  return nullptr;  // every engine was tried
}

Engine EngineForAttempt(Engine wanted, int attempt) {
  if (wanted == Engine::kEngineThreads) ++attempt;
  if (attempt == 0) return Engine::kEngineUring;
  return attempt == 1 ? Engine::kEngineThreads : Engine::kEngineAuto;
}

AsyncHandler* NewHandler(Engine wanted) {
  auto* handler = new AsyncHandler(
      [wanted](int attempt) { return NewPort(EngineForAttempt(wanted, attempt)); });
  processHandler = handler;
  pthread_atfork(nullptr, nullptr, [] { processHandler->AbandonAfterFork(); });
  return handler;
}

// The initialisation of a local static is the host's once-only guard.
AsyncHandler* ProcessHandler(Engine wanted) {
  static AsyncHandler* const handler = NewHandler(wanted);
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

NativeFileSysInterfaceImpLinux::NativeFileSysInterfaceImpLinux(Engine engine) : wanted_(engine) {
  // Made by the application before OSServices has installed the threads, it waits for Installed.
  if (ThreadsAreInstalled()) ProcessHandler(wanted_);
}

NativeFileSysInterfaceImpLinux::~NativeFileSysInterfaceImpLinux() = default;

NativeFileSource* NativeFileSysInterfaceImpLinux::NewNativeFileSource(const char* name) {
  return new NativeFileSourceLinux(name, ProcessHandler(wanted_));
}

void NativeFileSysInterfaceImpLinux::Installed() {
  ProcessHandler(wanted_);
}

NativeFileSysInterfaceImpLinux::Engine NativeFileSysInterfaceImpLinux::GetEngine() {
  return runningEngine;
}

const char* NativeFileSysInterfaceImpLinux::GetEngineName() {
  switch (runningEngine) {
    case kEngineUring:
      return "io_uring";
    case kEngineThreads:
      return "threads";
    default:
      return "none";
  }
}

}  // namespace Orvane
