// The functions that a peer publishes by inter-module name, as one table.
#pragma once

#include "kernel/module.h"

struct publication {
    // `function_t` is the published type, so that a function of another shape does not get into the table.
    template <class function_t>
    static publication of(const char* name, function_t function)
    {
        return {name, reinterpret_cast<const void*>(function)};
    }

    const char* name;
    const void* function;
};

template <class table_t>
void publish(const table_t& table)
{
    for (const publication& each : table) inter_module_register(each.name, THIS_MODULE, each.function);
}

template <class table_t>
void withdraw(const table_t& table)
{
    for (const publication& each : table) inter_module_unregister(each.name);
}
