// Memory, user memory and randomness.
#pragma once

#include <cstddef>

#include "kernel/export.h"

enum gfp_t : int {
    GFP_KERNEL, // may sleep: process context only
    GFP_ATOMIC, // never sleeps
};

// `size` bytes, uninitialised and aligned for any record, or null. The caller frees them with kfree.
KERNEL_API void* kmalloc(size_t size, gfp_t flags);

// Returns memory of kmalloc; null is accepted. A double free or a foreign pointer is a hard error.
KERNEL_API void kfree(const void* memory);

// Copies `count` bytes from the memory of the calling process. Returns the number of bytes NOT copied (0: all).
// May sleep.
KERNEL_API unsigned long copy_from_user(void* to, const void* from, unsigned long count);

// Fills the buffer with random bytes: the system's, or those of the simulation's seed. Does not sleep.
KERNEL_API void get_random_bytes(void* buffer, int count);
