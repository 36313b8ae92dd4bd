// The logger's own trace level, above which no module of the machine traces. The loader keeps it, and writes it into
// every image; it follows the registry.
#pragma once

#include <cstdint>

#include "host/kernel/machine.h"

namespace stack
{

class logger final : public kernel::service
{
  public:
    explicit logger(kernel::machine& home) : home_(home) {}

    // 0 (no traces) to 5 (every trace, the default). By way of the registry; may sleep.
    void set_level(int32_t level);
    int32_t level() const { return home_.modules.logger_level(); }

    static constexpr const char* registry_key = "dorvex/logger";
    static constexpr const char* registry_value_name = "trace-level";

    // A rep_change_fn_t: takes the new level over for the machine that `home` points at.
    static void level_changed(const char* value_name, intptr_t new_value, void* home);

  private:
    kernel::machine& home_;
};

} // namespace stack
