// The table of functions that a peer publishes by inter-module name.
#pragma once

#include <type_traits>

#include "kernel/module.h"

struct publication {
    const char* name;
    const void* function;
};

// `function_t` is the published type. A function of another type does not compile.
template <class function_t>
publication make_publication(const char* name, std::type_identity_t<function_t> function)
{
    return {name, reinterpret_cast<const void*>(function)};
}

// Publishes every function of the table. May sleep.
template <class table_t>
void publish(const table_t& table)
{
    for (const publication& each : table) inter_module_register(each.name, THIS_MODULE, each.function);
}

// Removes the names. No other module may hold a reference on one of them. May sleep.
template <class table_t>
void withdraw(const table_t& table)
{
    for (const publication& each : table) inter_module_unregister(each.name);
}
