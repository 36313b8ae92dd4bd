// Loads and unloads modules. Each machine has its own image of a module, so machines share no variables.
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

// The modules of one machine. Any thread.
class loader
{
  public:
    explicit loader(machine& machine);
    ~loader();

    // Loads the module file at `path`. Makes an image of it, whose variables have their initial values. Sets the
    // module's parameters, which are written as "name=value name=\"two words\"". Writes the machine's logger level into
    // the image and runs the entry function. After a failure, this image is gone. Fails if
    // - there is no regular file at `path`, or it cannot be read (not_found),
    // - the file is not a module for this kernel (invalid),
    // - a parameter is unknown, malformed or repeated (invalid),
    // - a module with that name is already loaded (exists),
    // - there is no memory, or a limit of the process is reached (no_memory),
    // - the entry function fails (invalid for -EK_INVAL, otherwise failed).
    //
    // The caller may be outside of the machine; the call enters the machine. May sleep.
    ats::result<> insmod(const std::string& path, const std::string& parameters = "");

    // Unloads a module: waits for its running /proc handlers, runs its exit function, unmaps its image. Fails if no
    // module with that name is loaded (not_found). Fails if there are references on it (hold()), or if its entry
    // function still runs (busy). As soon as the unloading has begun, no further handler of its /proc entries is
    // called. Panics if the exit function leaves behind a published name, a /proc entry, or something in a service of
    // the machine, for example a timer. insmod() panics in the same way after a failed entry function. The caller may
    // be outside of the machine; the call enters the machine. May sleep.
    ats::result<> rmmod(const std::string& name);

    bool is_loaded(const std::string& name) const;

    // The names of all loaded modules, in order of loading.
    std::vector<std::string> loaded() const;

    // Returns the address of an exported symbol of a loaded module, or null if there is no such module or symbol. Also
    // returns null while the module is starting or unloading, because its variables may not be usable then.
    void* symbol(const std::string& module_name, const std::string& symbol) const;

    // hold() takes a reference on a module, release() gives it back. rmmod() fails while there are references. hold()
    // returns false if the module is not loaded or is being unloaded. A null `owner` means the kernel itself, which is
    // never unloaded. Any context.
    bool hold(const kernel_module_t* owner);
    void release(const kernel_module_t* owner);

    // A task calls enter() before it runs a /proc handler of the module, and leave() afterwards. enter() returns false
    // in the same cases as hold(). rmmod() does not fail because of these tasks, but waits until they have left. Any
    // context.
    bool enter(const kernel_module_t* owner);
    void leave(const kernel_module_t* owner);

    // Writes the logger's level into every loaded image that has a `logger_level`, and into those that are loaded
    // later.
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

    // The caller of find() holds mutex_.
    loaded_module* find(const std::string& name) const;
    loaded_module* find(const kernel_module_t* declaration) const;

    machine& machine_;
    // Guards the following members, and all members of loaded_module except `texts` and `image`. Never held while
    // module code runs.
    mutable std::mutex mutex_;
    std::list<std::unique_ptr<loaded_module>> modules_;
    int32_t logger_level_ = 5;
};

// A symbol of a loaded module. The module stays loaded as long as the held_symbol exists. Converts to false if the
// module or the symbol is not available.
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
