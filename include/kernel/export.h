// How a kernel symbol and a module symbol become visible across the image boundary.
#pragma once

// A call or variable that the kernel offers to modules. C linkage: modules find it by its plain name.
#define KERNEL_API extern "C" __attribute__((visibility("default")))

// A symbol that a module exports to other modules and to its loader. Everything else stays hidden.
#define MODULE_EXPORT extern "C" __attribute__((visibility("default")))
