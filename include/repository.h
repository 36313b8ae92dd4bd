// The registry: a tree of keys with integer values that can be set and watched at run time.
#pragma once

#include <cstdint>

#include "kernel/export.h"

using rep_key_t = intptr_t;
using rep_notifier_t = intptr_t;

// Called with the subscriber's context after a value of the key was set. Runs in the setter's thread with the
// registry locked: it must not call the registry, and does not sleep.
using rep_change_fn_t = void (*)(const char* value_name, intptr_t new_value, void* context);

constexpr int REP_OPEN_EXISTING = 0;   // rep_open_key: do not create a missing key
constexpr int REP_NOTIFY_THIS_KEY = 0; // rep_notify_key_change: this key only, not those below it
constexpr int REP_NOTIFY_ON_VALUE = 2; // rep_notify_key_change: tell of values that are set

// The root of the machine's registry; needs no close.
KERNEL_API rep_key_t rep_get_root();

// Opens the key at `path` (names separated by slashes, a trailing slash is allowed) below `parent`. Returns 0 and
// stores the key, to be closed by the caller, or a negative error number.
KERNEL_API int rep_open_key(rep_key_t parent, const char* path, int flags, rep_key_t* key);

// Reads the integer `name` of `key`. `length` is 8 on entry. Returns 0, or a negative error number with the value
// untouched.
KERNEL_API int rep_get_value(rep_key_t key, const char* name, int flags, intptr_t* value, int* length);

// Calls `changed` after each change of the key, until rep_notify_del; closing the key does not end it. Returns 0
// and stores the handle (never 0), or a negative error number.
KERNEL_API int rep_notify_key_change(rep_key_t key, int scope, int events, rep_change_fn_t changed, void* context,
                                     rep_notifier_t* notifier);

KERNEL_API void rep_close_key(rep_key_t key);

// Ends a subscription; when it returns, its callback is not running and will not run. The handle 0 (no
// subscription was made) is accepted.
KERNEL_API void rep_notify_del(rep_notifier_t notifier);
