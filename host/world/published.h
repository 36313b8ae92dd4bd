// A function that a module of a machine published by inter-module name.
#pragma once

#include "host/kernel/machine.h"

namespace world
{

// Holds the reference that keeps the module loaded as long as it lives. False when nobody published the name. The
// caller runs inside the machine when it calls the function, unless that works in any context.
template <class function_t>
class published
{
  public:
    published(kernel::machine& machine, const char* name) : machine_(machine), name_(name)
    {
        // The registry holds plain pointers; the name says which function it is.
        function_ = reinterpret_cast<function_t>(const_cast<void*>(machine_.inter_modules.get(name_)));
    }
    ~published()
    {
        if (function_) machine_.inter_modules.put(name_);
    }
    published(const published&) = delete;
    published& operator=(const published&) = delete;

    explicit operator bool() const { return function_ != nullptr; }
    function_t operator*() const { return function_; }

  private:
    kernel::machine& machine_;
    const char* name_;
    function_t function_;
};

} // namespace world
