// The declaration of a loadable module, and the inter-module calls: a module publishes a function under a name, and
// other modules find the function by this name. A "hard error" ends the program with a message.
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

// The version of the layout of kernel_module_t and of the records to which it points. Increment it with each change of
// the layout.
constexpr int32_t module_record_version = 2;

// The declaration of a module. Every module exports one record of this type under the name `this_module`. All its
// pointers point into the module's own image. The loader refuses an image if the record has another size or version, or
// has no `name`, `init` or `exit`. Then the loader sets the parameters, writes the machine's logger level to
// `*logger_level` (unless the pointer is null), and calls `init`. If `init` returns a negative number, the loader
// unloads the image.
struct kernel_module_t {
    int32_t record_version = module_record_version;
    const char* name;
    const char* description;
    int (*init)();
    void (*exit)();
    const module_parameter_t* parameters;
    int32_t parameter_count;
    std::atomic<int32_t>* logger_level; // the module's copy of the logger's level; the loader updates it
};

#define THIS_MODULE (&this_module)
MODULE_EXPORT kernel_module_t this_module;

// Publishes `pointer` under `name`. The module `owner` cannot be unloaded while others hold references on the name. The
// call copies the name. It is a hard error if the name is in use: two modules that publish the same function cannot be
// loaded on one machine. Does not sleep.
KERNEL_API void inter_module_register(const char* name, kernel_module_t* owner, const void* pointer);

// Removes a published name. It is a hard error if the name is not published, or if others hold references on it. Does
// not sleep.
KERNEL_API void inter_module_unregister(const char* name);

// Returns the pointer that is published under `name`, and takes a reference on its owner. The caller gives the
// reference back with inter_module_put. Returns null, and takes no reference, if the name is not published or if the
// owner is being unloaded. Does not sleep.
KERNEL_API const void* inter_module_get(const char* name);

// Gives back one reference that inter_module_get(name) has taken. It is a hard error if there is no such reference.
// Does not sleep.
KERNEL_API void inter_module_put(const char* name);
