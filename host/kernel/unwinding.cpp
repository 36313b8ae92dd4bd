// Exceptions pass through module code: a call of the kernel throws when memory is used up. The unwinder gets the unwind
// table of each address from the C library's _dl_find_object(). That function knows only images of the dynamic linker.
// This file replaces it, and adds the placed images. The program's own function has precedence.
#include <dlfcn.h>

#include "host/kernel/placed-image.h"
#include "kernel/export.h"

namespace
{

using find_object_t = int(void*, dl_find_object*);

find_object_t* library_function()
{
    static auto* function = reinterpret_cast<find_object_t*>(dlsym(RTLD_NEXT, "_dl_find_object"));
    return function;
}

// Looked up at start, not while an exception passes.
[[maybe_unused]] find_object_t* const found_at_start = library_function();

} // namespace

KERNEL_API int _dl_find_object(void* address, dl_find_object* result) noexcept
{
    const kernel::placed_range image = kernel::find_placed_image(address);
    if (!image.source) return library_function() ? library_function()(address, result) : -1;
    if (image.source->unwind_table == 0) return -1;
    *result = {};
    result->dlfo_map_start = image.begin;
    result->dlfo_map_end = image.begin + image.source->text.size();
    result->dlfo_eh_frame = image.begin + image.source->unwind_table;
    return 0;
}
