// Publishes a table of functions of a module (IBAT or UCM) under inter-module names, so that other modules find them.
#pragma once

#include <type_traits>

#include "kernel/module.h"

struct publication {
    const char* name;
    const void* function;
};

// Makes an entry of the table. `function_t` is the type that belongs to the name. If `function` has another type, the
// call does not compile.
template <class function_t>
publication make_publication(const char* name, std::type_identity_t<function_t> function)
{
    return {name, reinterpret_cast<const void*>(function)};
}

// Publishes every function of the table. Panics if one of the names is in use. Does not sleep.
template <class table_t>
void publish(const table_t& table)
{
    for (const publication& each : table) inter_module_register(each.name, THIS_MODULE, each.function);
}

// Removes all names of the table. Panics if another module holds a reference on one of them. Does not sleep.
template <class table_t>
void withdraw(const table_t& table)
{
    for (const publication& each : table) inter_module_unregister(each.name);
}
