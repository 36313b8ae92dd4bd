// The logger's own trace level. It limits all modules of the machine: a module does not print a trace of a higher
// level. The registry stores the level. kernel::loader copies it into each module that has a `logger_level`.
#pragma once

#include <cstdint>

#include "host/kernel/machine.h"

namespace stack
{

class logger final : public kernel::service
{
  public:
    explicit logger(kernel::machine& home) : home_(home) {}

    // Stores the level in the registry. Levels go from 0 (no traces) to 5 (every trace, the default). May sleep.
    void set_level(int32_t level);
    int32_t level() const { return home_.modules.logger_level(); }

    static constexpr const char* registry_key = "dorvex/logger";
    static constexpr const char* registry_value_name = "trace-level";

    // The callback of the logger's subscription to the registry (a rep_change_fn_t). Passes the new level to the loader
    // of the machine to which `home` points.
    static void level_changed(const char* value_name, intptr_t new_value, void* home);

  private:
    kernel::machine& home_;
};

} // namespace stack
