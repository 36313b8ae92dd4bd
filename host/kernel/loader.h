// Loads and unloads modules.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/result.h"

struct kernel_module_t;

namespace kernel
{

class machine;

class loaded_module;

// The modules of one machine. Any thread may call it.
class loader
{
  public:
    explicit loader(machine& machine);
    ~loader();

    // Loads a module. Maps a private copy of the image at `path`; its statics are its own and start at zero. Sets the
    // parameters, which are written as "name=value name=\"two words\"". Writes the logger level and runs the entry
    // function. After a failure, nothing stays loaded. Fails if
    // - there is no image at `path` (not_found),
    // - the image does not fit, or a parameter is unknown, malformed or repeated (invalid),
    // - a module with that name is already loaded (exists),
    // - a limit of the process is reached (no_memory),
    // - the entry function fails (invalid for -EK_INVAL, otherwise failed).
    // If the caller is outside of the machine, the call enters it. May sleep.
    ats::result<> insmod(const std::string& path, const std::string& parameters = "");

    // Unloads a module: waits for its running /proc handlers, runs its exit function, unmaps it. Fails if no module
    // with that name is loaded (not_found). Also fails while others hold references or it is still starting (busy).
    // Once the unloading has begun, no handler of its /proc entries is called. It is a hard error if the exit function
    // leaves a published name, a /proc entry, or something in a service of the machine. The caller may be outside of
    // the machine. May sleep.
    ats::result<> rmmod(const std::string& name);

    bool is_loaded(const std::string& name) const;

    // The names of all loaded modules, in order of loading.
    std::vector<std::string> loaded() const;

    // Returns the address of an exported symbol of a loaded module, or null if there is none. Also returns null while
    // the module is starting or unloading, because the symbol may not be initialised then.
    void* symbol(const std::string& module_name, const std::string& symbol) const;

    // Take and return a reference on a module. rmmod() is refused while there are references. hold() returns false once
    // unloading has begun. A null `owner` means the kernel itself, which is never unloaded. Any context.
    bool hold(const kernel_module_t* owner);
    void release(const kernel_module_t* owner);

    // Does the same for a /proc handler that is about to run. rmmod() then waits instead of failing.
    bool enter(const kernel_module_t* owner);
    void leave(const kernel_module_t* owner);

    // Writes the logger's level into every loaded image. Images that are loaded later get it, too.
    void set_logger_level(int32_t level);
    int32_t logger_level() const;

  private:
    ats::result<> load(const std::string& path, const std::string& parameters);
    ats::result<> unload(const std::string& name);
    int start(loaded_module& module);
    void wait_for_users(loaded_module& module);
    void check_leftovers(const loaded_module& module) const;
    void unmap(loaded_module& module);
    bool add_user(const kernel_module_t* owner, int loaded_module::*count);
    void drop_user(const kernel_module_t* owner, int loaded_module::*count);
    loaded_module* find(const std::string& name) const; // both: the caller holds mutex_
    loaded_module* find(const kernel_module_t* declaration) const;

    machine& machine_;
    // Guards the following members and the counts in modules_; never held while module code runs.
    mutable std::mutex mutex_;
    std::list<std::unique_ptr<loaded_module>> modules_;
    int32_t logger_level_ = 5;
};

// A symbol of a loaded module. The module stays loaded during its lifetime.
class held_symbol
{
  public:
    held_symbol(loader& modules, const std::string& module_name, const std::string& symbol)
        : modules_(modules), owner_(static_cast<const kernel_module_t*>(modules.symbol(module_name, "this_module")))
    {
        if (owner_ && modules_.hold(owner_))
            address_ = modules_.symbol(module_name, symbol);
        else
            owner_ = nullptr;
    }
    ~held_symbol() { modules_.release(owner_); }
    held_symbol(const held_symbol&) = delete;
    held_symbol& operator=(const held_symbol&) = delete;

    explicit operator bool() const { return address_ != nullptr; }

    // Casts the symbol to a type that the caller knows, for example a function pointer.
    template <class pointer_t>
    pointer_t as() const
    {
        return reinterpret_cast<pointer_t>(address_);
    }

  private:
    loader& modules_;
    const kernel_module_t* owner_;
    void* address_ = nullptr;
};

} // namespace kernel
