// The registry of a machine: a tree of keys with integer values. A user can set values at run time. A module opens a
// key, reads its values, and subscribes to their changes.
#pragma once

#include <cstdint>

#include "kernel/export.h"

using rep_key_t = intptr_t;
using rep_notifier_t = intptr_t;

// A subscriber's callback. The task that has set a value of the key calls the callback. Until the callback has
// returned, other tasks that set a value wait. The callback must not use the registry and must not sleep. `context` is
// the argument of rep_notify_key_change.
using rep_change_fn_t = void (*)(const char* value_name, intptr_t new_value, void* context);

constexpr int REP_OPEN_EXISTING = 0;   // rep_open_key: do not create a missing key
constexpr int REP_NOTIFY_THIS_KEY = 0; // rep_notify_key_change: this key only, not those below it
constexpr int REP_NOTIFY_ON_VALUE = 2; // rep_notify_key_change: report values that are set

// The calls below may sleep.

// Returns the root of the machine's registry. The caller does not close it.
KERNEL_API rep_key_t rep_get_root();

// Opens the key at `path` below `parent`. The path is a list of names with slashes between them, and may end with a
// slash. `flags` must be REP_OPEN_EXISTING. Returns 0 and stores the key in `*key`; the caller closes it with
// rep_close_key. On failure, returns a negative error number: -EK_NOENT if there is no such key.
KERNEL_API int rep_open_key(rep_key_t parent, const char* path, int flags, rep_key_t* key);

// Reads the value `name` of `key`. `flags` must be 0, and `*length` must be 8, the size of `*value`. Returns 0. On
// failure, returns a negative error number and does not change `*value`: -EK_NOENT if there is no such value.
KERNEL_API int rep_get_value(rep_key_t key, const char* name, int flags, intptr_t* value, int* length);

// Subscribes to a key. The registry calls `callback` each time a value of the key is set, until rep_notify_del. The
// caller may close the key meanwhile. `scope` must be REP_NOTIFY_THIS_KEY and `events` must be REP_NOTIFY_ON_VALUE.
// Returns 0 and stores the handle of the subscription in `*notifier`; it is never 0. On failure, returns a negative
// error number.
KERNEL_API int rep_notify_key_change(rep_key_t key, int scope, int events, rep_change_fn_t callback, void* context,
                                     rep_notifier_t* notifier);

// Closes a key. Subscriptions to the key continue.
KERNEL_API void rep_close_key(rep_key_t key);

// Ends a subscription. After the return, its callback does not run. Does nothing if `notifier` is 0.
KERNEL_API void rep_notify_del(rep_notifier_t notifier);
