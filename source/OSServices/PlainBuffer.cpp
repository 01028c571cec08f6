#include "OSServices/PlainBuffer.h"

#include <typeinfo>

#include "Buffer.h"
#include "OSServices/HostFactories.h"

namespace Orvane {

// By address: names would be compared letter by letter.
bool IsPlainBuffer(const Buffer* buffer) {
  const std::type_info* const type = &typeid(*buffer);
  return type == &typeid(BufferPartOfBuffer) || type == &typeid(HeapBuffer) ||
         type == &typeid(HostBuffer) || type == &GetHostPhysMemBufferType();
}

}  // namespace Orvane
