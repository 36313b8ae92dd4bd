#include "host/stack/logger.h"

#include <atomic>
#include <cstring>

#include "host/stack/registry.h"
#include "kernel/export.h"

// A rep_change_fn_t that modules pass to rep_notify_key_change. When the value "debug-level" is set, this callback
// stores the new trace level in the module's variable to which `context` points.
KERNEL_API void trace_lvl_change_cb(const char* value_name, intptr_t new_value, void* context);

void trace_lvl_change_cb(const char* value_name, intptr_t new_value, void* context)
{
    if (std::strcmp(value_name, "debug-level") == 0)
        *static_cast<std::atomic<int32_t>*>(context) = static_cast<int32_t>(new_value);
}

namespace stack
{

void logger::set_level(int32_t level)
{
    home_.get<registry>().set(registry_key, registry_value_name, level);
}

void logger::level_changed(const char* value_name, intptr_t new_value, void* home)
{
    if (std::strcmp(value_name, registry_value_name) == 0)
        static_cast<kernel::machine*>(home)->modules.set_logger_level(static_cast<int32_t>(new_value));
}

} // namespace stack
