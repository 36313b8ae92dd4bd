// What a loadable module declares to its loader, and the registry by which modules find each other's functions.
#pragma once

#include <atomic>
#include <cstdint>

#include "kernel/export.h"

enum module_parameter_type_t : int32_t {
    module_parameter_text, // value points at a `const char*`; the text lives until the module is unloaded
    module_parameter_int,  // value points at an int32_t
};

struct module_parameter_t {
    const char* name;
    module_parameter_type_t type;
    void* value; // holds the default in the fresh image
    const char* description;
};

// Raised whenever the layout of kernel_module_t, or of a record that it points at, changes.
constexpr int32_t module_record_version = 2;

// One per module image, exported under the name `this_module`. The loader refuses an image whose record has another
// size or version, or lacks its name, `init` or `exit`. It sets the parameters, writes the machine's logger level
// through `logger_level` (when not null), then calls `init`; a negative result of `init` unloads the image again. All
// pointers are into the image itself.
struct kernel_module_t {
    int32_t record_version = module_record_version;
    const char* name;
    const char* description;
    int (*init)();
    void (*exit)();
    const module_parameter_t* parameters;
    int32_t parameter_count;
    std::atomic<int32_t>* logger_level; // the image's copy of the logger's level, kept current by the loader
};

#define THIS_MODULE (&this_module)
MODULE_EXPORT kernel_module_t this_module;

// Publishes `pointer` under `name` (the text is copied) on behalf of `owner`. A name in use is a hard error: two
// modules of a kind on one machine is a configuration that cannot work. Does not sleep.
KERNEL_API void inter_module_register(const char* name, kernel_module_t* owner, const void* pointer);

// Withdraws a name. A hard error when somebody still holds a reference or the name is unknown. Does not sleep.
KERNEL_API void inter_module_unregister(const char* name);

// The pointer published under `name`, with a reference on its owner until the matching inter_module_put of the
// same name; null when nobody published it. Does not sleep.
KERNEL_API const void* inter_module_get(const char* name);

// Returns one reference taken by inter_module_get(name).
KERNEL_API void inter_module_put(const char* name);
