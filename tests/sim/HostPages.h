// Memory whose use can be forbidden. One implementation per host folder.
#pragma once

#include <cstddef>

namespace Orvane {

// Whole pages, all zero, of which only what is touched takes room. Ends the process where there are
// none.
unsigned char* NewHostPages(std::size_t size);

// From now on whoever touches them ends the process.
void ForbidHostPages(unsigned char* pages, std::size_t size);
void AllowHostPages(unsigned char* pages, std::size_t size);

}  // namespace Orvane
