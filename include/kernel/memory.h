// Kernel memory, the memory of processes, and random bytes.
#pragma once

#include <cstddef>

#include "kernel/export.h"

enum gfp_t : int {
    GFP_KERNEL, // may sleep
    GFP_ATOMIC, // does not sleep; any context
};

// Returns `size` bytes, or null. They are uninitialised and aligned for any record. The caller frees them with kfree.
KERNEL_API void* kmalloc(size_t size, gfp_t flags);

// Frees memory from kmalloc; null is allowed. A hard error if the memory was freed before or did not come from kmalloc.
// Any context.
KERNEL_API void kfree(const void* memory);

// Copies `count` bytes from the memory of the calling process. Returns the number of bytes that were not copied: 0
// means success. May sleep.
KERNEL_API unsigned long copy_from_user(void* destination, const void* source, unsigned long count);

// Fills the buffer with random bytes. They come from the system, or from the seed of a simulation. Any context.
KERNEL_API void get_random_bytes(void* buffer, int count);
