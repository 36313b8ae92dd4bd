#include "host/kernel/zeroing.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sys/mman.h>

#include "host/kernel/image-template.h"

namespace kernel
{

namespace
{

// Returns the number of bytes from `memory` to the end of its page.
size_t rest_of_page(const char* memory)
{
    return image_page_bytes - reinterpret_cast<uintptr_t>(memory) % image_page_bytes;
}

bool is_zero(const char* memory, size_t bytes)
{
    return *memory == 0 && std::memcmp(memory, memory + 1, bytes - 1) == 0;
}

} // namespace

void* set_memory(void* memory, int value, size_t bytes)
{
    if (value != 0 || bytes < image_page_bytes) return std::memset(memory, value, bytes);
    char* const end = static_cast<char*>(memory) + bytes;
    for (char* part = static_cast<char*>(memory); part != end;) {
        const size_t part_bytes = std::min(rest_of_page(part), static_cast<size_t>(end - part));
        if (!is_zero(part, part_bytes)) std::memset(part, 0, part_bytes);
        part += part_bytes;
    }
    return memory;
}

void give_back_zero_pages(char* begin, size_t bytes)
{
    for (char* page = begin; page != begin + bytes; page += image_page_bytes)
        if (is_zero(page, image_page_bytes)) madvise(page, image_page_bytes, MADV_DONTNEED); // fails for locked memory
}

} // namespace kernel
