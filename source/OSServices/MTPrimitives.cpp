#include "MTPrimitives.h"

namespace Orvane {

MTCritSec::MTCritSec() = default;
MTCritSec::~MTCritSec() = default;

MTSemaphore::MTSemaphore(std::uint32_t, std::uint32_t) {}
MTSemaphore::~MTSemaphore() = default;

MTAtomicUnsigned32::MTAtomicUnsigned32(std::uint32_t) {}
MTAtomicUnsigned32::~MTAtomicUnsigned32() = default;

MTAtomicUnsigned64::MTAtomicUnsigned64(std::uint64_t) {}
MTAtomicUnsigned64::~MTAtomicUnsigned64() = default;

MTAtomicPointer::MTAtomicPointer(void*) {}
MTAtomicPointer::~MTAtomicPointer() = default;

MTThreadBody::MTThreadBody() = default;
MTThreadBody::~MTThreadBody() = default;
void MTThreadBody::TerminateBody() {}

}  // namespace Orvane
