// The registry: a tree of keys with integer values. Values can be set and watched at run time.
#pragma once

#include <cstdint>

#include "kernel/export.h"

using rep_key_t = intptr_t;
using rep_notifier_t = intptr_t;

// Called with the subscriber's context after a value of the key was set. Runs in the thread that has set the value,
// with the registry locked. It must not use the registry and must not sleep.
using rep_change_fn_t = void (*)(const char* value_name, intptr_t new_value, void* context);

constexpr int REP_OPEN_EXISTING = 0;   // rep_open_key: do not create a missing key
constexpr int REP_NOTIFY_THIS_KEY = 0; // rep_notify_key_change: this key only, not those below it
constexpr int REP_NOTIFY_ON_VALUE = 2; // rep_notify_key_change: report values that are set

// The root of the machine's registry. The caller does not close it.
KERNEL_API rep_key_t rep_get_root();

// Opens the key at `path` below `parent`. The path is a list of names with slashes between them, and may end with a
// slash. Returns 0 and stores the key, or returns a negative error number. The caller closes the key.
KERNEL_API int rep_open_key(rep_key_t parent, const char* path, int flags, rep_key_t* key);

// Reads the integer `name` of `key`. `*length` must be 8. Returns 0. On failure, returns a negative error number and
// does not change `*value`.
KERNEL_API int rep_get_value(rep_key_t key, const char* name, int flags, intptr_t* value, int* length);

// Calls `callback` after each change of the key, until rep_notify_del. The key may be closed meanwhile. Returns 0 and
// stores the handle, which is never 0, or returns a negative error number.
KERNEL_API int rep_notify_key_change(rep_key_t key, int scope, int events, rep_change_fn_t callback, void* context,
                                     rep_notifier_t* notifier);

KERNEL_API void rep_close_key(rep_key_t key);

// Ends a subscription. After the return, its callback does not run. The handle 0 means no subscription.
KERNEL_API void rep_notify_del(rep_notifier_t notifier);
