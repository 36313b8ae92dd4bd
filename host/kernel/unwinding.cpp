// Lets exceptions pass through the code of placed images, which are images that the loader makes without the dynamic
// linker. An example is exec::shortage: a kernel call throws it when a limit of the process is reached, and the caller
// is module code. The unwinder calls _dl_find_object() to find the unwind table for an address. The C library's
// function knows only the images of the dynamic linker. The function in this file takes precedence over the C library's
// function, and also finds the placed images.
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

// Calls dlsym() when the program starts, so that dlsym() is not called while an exception is handled.
[[maybe_unused]] find_object_t* const function_at_start = library_function();

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
