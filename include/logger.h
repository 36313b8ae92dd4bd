// The logger's filter. A trace line has a level. It is printed if both the logger's level and the module's level are at
// least as high. A line that is not printed only costs the reading of both levels; its arguments are not evaluated. Any
// context.
#pragma once

#include <atomic>
#include <cstdint>

#include "kernel/export.h"
#include "kernel/printk.h"
#include "repository.h"

enum zr_trace_level_t : int32_t {
    ZR_PANIC = 0,
    ZR_ERROR = 1,   // failures
    ZR_WARNING = 2, // failures with a workaround
    ZR_INFO = 3,
    ZR_DEBUG = 4, // progress and detail
    ZR_FUNC = 5,  // the most detailed level
};

// The names of the levels in trace lines.
inline constexpr const char* zrlog_levels[] = {"PANIC  ", "ERROR  ", "WARNING", "INFO   ", "DEBUG  ", "FUNC   "};

// This image's copy of the logger's level. Each module defines it; the loader updates it.
extern std::atomic<int32_t> logger_trace_level;

inline bool zr_is_traced(int32_t level, const std::atomic<int32_t>& module_level)
{
    return module_level.load(std::memory_order_relaxed) >= level &&
           logger_trace_level.load(std::memory_order_relaxed) >= level;
}

// Prints `format` with its arguments after "<6>LEVEL : TITLE : OPERATION:(UNIT):", if both levels allow it.
#define ZR_TRACE(level, module_level, title, operation, unit, format, ...)                                             \
    do {                                                                                                               \
        if (__builtin_expect(zr_is_traced(level, module_level), false))                                                \
            printk("<6>%s : " title " : %s:(%s):" format, zrlog_levels[level], operation,                              \
                   unit __VA_OPT__(, ) __VA_ARGS__);                                                                   \
    } while (false)

// The registry's callback that updates a module's level; `context` points at the level. The logger service implements
// it.
KERNEL_API void trace_lvl_change_cb(const char* value_name, intptr_t new_value, void* context);

// Reads the level of a module from the registry key at `key_path` and subscribes to its changes. If the key or its
// value is missing, logs this and sets the level to 0. May sleep.
inline void zr_logger_init(const char* key_path, std::atomic<int32_t>* module_level, rep_notifier_t* notifier)
{
    *module_level = 0;
    intptr_t level = 0;
    rep_key_t key;
    if (rep_open_key(rep_get_root(), key_path, REP_OPEN_EXISTING, &key) != 0) {
        printk("ZR_LOGGER: rep_open_key failed for, %s -- disabling logging\n", key_path);
    } else {
        int length = sizeof level;
        if (rep_get_value(key, "debug-level", 0, &level, &length) != 0) {
            printk("ZR_LOGGER: rep_get_value failed for, %s -- disabling logging\n", key_path);
        } else {
            printk("LOGGER: Added key %s, trace level %d\n", key_path, static_cast<int>(level));
            *module_level = static_cast<int32_t>(level); // before the first change can be reported
            // If the subscription fails, the level stays as it is.
            (void)rep_notify_key_change(key, REP_NOTIFY_THIS_KEY, REP_NOTIFY_ON_VALUE, trace_lvl_change_cb,
                                        module_level, notifier);
        }
        rep_close_key(key);
    }
}

// Ends the subscription; the level keeps its last value. The notifier 0 means no subscription. May sleep.
inline void zr_logger_exit(rep_notifier_t notifier)
{
    rep_notify_del(notifier);
}
