// Finds a function that a module has published under an inter-module name.
#pragma once

#include "host/kernel/machine.h"

namespace world
{

// The function with the name `name`. This object holds a reference on the module that has published it, so the module
// stays loaded. Converts to false if no module has published the name, or if this module is being unloaded. If the
// function makes kernel calls, call it inside the machine (see machine::enter). `machine` and `name` must outlive this
// object.
template <class function_t>
class published
{
  public:
    published(kernel::machine& machine, const char* name) : machine_(machine), name_(name)
    {
        // inter_modules stores untyped pointers. The name determines the type of the function.
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
