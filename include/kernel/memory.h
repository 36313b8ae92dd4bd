// Allocation of kernel memory, copies from the memory of a process, and random bytes.
#pragma once

#include <cstddef>

#include "kernel/export.h"

enum gfp_t : int {
    GFP_KERNEL, // may sleep
    GFP_ATOMIC, // does not sleep; any context
};

// Allocates `size` bytes, uninitialised and aligned for any record. Returns null if there is no memory. The caller
// frees them with kfree.
KERNEL_API void* kmalloc(size_t size, gfp_t flags);

// Frees memory from kmalloc. Does nothing for null. If the memory was freed before or did not come from kmalloc, the
// program ends with an error. Any context.
KERNEL_API void kfree(const void* memory);

// Copies `count` bytes from `source`, which is in the memory of the process that made the system call. Returns the
// number of bytes that were not copied: 0 means success. May sleep.
KERNEL_API unsigned long copy_from_user(void* destination, const void* source, unsigned long count);

// Fills `count` bytes of the buffer with random bytes. In a simulation, they follow from the seed. Any context.
KERNEL_API void get_random_bytes(void* buffer, int count);
