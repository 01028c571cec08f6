#pragma once

namespace Orvane {

class Buffer;

// Whether a buffer is one of the library's own classes, not one that an application derived: its
// address stays the same, locked or not, and its operations run no code but the library's. May
// answer false for one that is.
bool IsPlainBuffer(const Buffer* buffer);

}  // namespace Orvane
