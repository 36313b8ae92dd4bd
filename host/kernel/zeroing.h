// Saves the memory of pages that contain only zeros. A module sets large tables to zero when it starts. Most pages of
// these tables are zero already and stay zero. A page that nobody has written to takes no memory.
#pragma once

#include <cstddef>

namespace kernel
{

// Placed images call this function instead of memset(). It does the same. But if it sets at least 4096 bytes to zero,
// it does not write to pages in which these bytes are zero already.
void* set_memory(void* memory, int value, size_t bytes);

// Gives the pages that contain only zeros back to the system. The memory must be a private mapping. `begin` must be the
// beginning of a page, and `bytes` a multiple of the page size. No other thread may write to the memory meanwhile.
void give_back_zero_pages(char* begin, size_t bytes);

} // namespace kernel
