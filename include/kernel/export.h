// Marks the symbols that the kernel and the modules share. A module is a shared object of its own; the loader connects
// its undefined symbols with those of the kernel.
#pragma once

// Declares a kernel function that modules may call. It has C linkage, so its symbol is its plain name.
#define KERNEL_API extern "C" __attribute__((visibility("default")))

// Declares a symbol of a module that the loader can find. All other symbols of a module are hidden.
#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))
