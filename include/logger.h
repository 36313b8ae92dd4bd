// The trace lines of a module. A trace line has a level. The line is printed only if the logger's level and the
// module's level are both at least as high. A line that is not printed costs almost nothing: the code compares the two
// levels and does not evaluate the arguments. ZR_TRACE may be used in any context.
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

// The names of the levels as trace lines show them.
inline constexpr const char* zrlog_levels[] = {"PANIC  ", "ERROR  ", "WARNING", "INFO   ", "DEBUG  ", "FUNC   "};

// The module's own copy of the logger's level. Each module defines this variable and stores its address in
// kernel_module_t::logger_level. When the logger's level changes, the kernel's loader writes the new level to this
// variable.
extern std::atomic<int32_t> logger_trace_level;

inline bool zr_is_traced(int32_t level, const std::atomic<int32_t>& module_level)
{
    return module_level.load(std::memory_order_relaxed) >= level &&
           logger_trace_level.load(std::memory_order_relaxed) >= level;
}

// Prints "<6>LEVEL : TITLE : OPERATION:(UNIT):" and then `format` with its arguments, if zr_is_traced().
#define ZR_TRACE(level, module_level, title, operation, unit, format, ...)                                             \
    do {                                                                                                               \
        if (__builtin_expect(zr_is_traced(level, module_level), false))                                                \
            printk("<6>%s : " title " : %s:(%s):" format, zrlog_levels[level], operation,                              \
                   unit __VA_OPT__(, ) __VA_ARGS__);                                                                   \
    } while (false)

// The registry calls this function when a value of the module's key is set. It stores a new "debug-level" in the
// module's level, to which `context` points.
KERNEL_API void trace_lvl_change_cb(const char* value_name, intptr_t new_value, void* context);

// Sets the module's level to the value "debug-level" of the registry key at `key_path`, and subscribes to changes of
// this value. If the key or the value is missing, logs a line and sets the level to 0. May sleep.
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
            // Set the level before the subscription begins. A change that the registry reports is newer.
            *module_level = static_cast<int32_t>(level);
            // If the subscription fails, the level does not change any more.
            (void)rep_notify_key_change(key, REP_NOTIFY_THIS_KEY, REP_NOTIFY_ON_VALUE, trace_lvl_change_cb,
                                        module_level, notifier);
        }
        rep_close_key(key);
    }
}

// Ends the subscription that zr_logger_init has begun. The level keeps its last value. Does nothing if `notifier` is 0.
// May sleep.
inline void zr_logger_exit(rep_notifier_t notifier)
{
    rep_notify_del(notifier);
}
