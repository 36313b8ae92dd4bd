// Keeps pages of zeros out of memory. A module sets large tables to zero when it starts. Most of such a table is zero
// already and stays zero while the host exists. A page that is only read takes no memory.
#pragma once

#include <cstddef>

namespace kernel
{

// Takes the place of memset() in placed images. Does not write a page that is to become zero and is zero already.
void* set_memory(void* memory, int value, size_t bytes);

// Gives back the pages that are zero. The memory is private, and `begin` and `bytes` are whole pages. No other thread
// may write there meanwhile.
void give_back_zero_pages(char* begin, size_t bytes);

} // namespace kernel
