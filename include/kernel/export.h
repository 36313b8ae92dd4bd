// Makes symbols of the kernel and of modules visible to other images.
#pragma once

// A function or variable that modules may use. C linkage: modules find it by its plain name.
#define KERNEL_API extern "C" __attribute__((visibility("default")))

// A symbol that a module exports to other modules and to the loader. All others are hidden.
#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))
