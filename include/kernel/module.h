// The declaration of a loadable module, and the registry through which modules find each other's functions.
#pragma once

#include <atomic>
#include <cstdint>

#include "kernel/export.h"

enum module_parameter_type_t : int32_t {
    module_parameter_text, // `value` points at a `const char*`; the text lives until the module is unloaded
    module_parameter_int,  // `value` points at an int32_t
};

struct module_parameter_t {
    const char* name;
    module_parameter_type_t type;
    void* value; // the variable; its first value is the default
    const char* description;
};

// Increment it when the layout of kernel_module_t, or of a record that it points to, changes.
constexpr int32_t module_record_version = 2;

// Every module image exports one record under the name `this_module`. The loader refuses an image if the record has
// another size or version, or has no `name`, `init` or `exit`. Otherwise it sets the parameters, writes the machine's
// logger level to `logger_level` (unless null), then calls `init`. If `init` returns a negative number, the image is
// unloaded again. All pointers point into the image itself.
struct kernel_module_t {
    int32_t record_version = module_record_version;
    const char* name;
    const char* description;
    int (*init)();
    void (*exit)();
    const module_parameter_t* parameters;
    int32_t parameter_count;
    std::atomic<int32_t>* logger_level; // the image's copy of the logger's level, which the loader updates
};

#define THIS_MODULE (&this_module)
MODULE_EXPORT kernel_module_t this_module;

// Publishes `pointer` under `name` for `owner` and copies the name. A hard error if the name is in use: two modules of
// one kind cannot work on one machine. Does not sleep.
KERNEL_API void inter_module_register(const char* name, kernel_module_t* owner, const void* pointer);

// Removes a name. A hard error if the name is unknown or others hold references. Does not sleep.
KERNEL_API void inter_module_unregister(const char* name);

// Returns the pointer published under `name` and takes a reference on its owner. The caller returns the reference with
// inter_module_put. Null if the name is not published or its owner is being unloaded. Does not sleep.
KERNEL_API const void* inter_module_get(const char* name);

// Returns one reference that inter_module_get(name) has taken. Does not sleep.
KERNEL_API void inter_module_put(const char* name);
