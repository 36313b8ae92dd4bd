// insmod and rmmod.
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

    // Loads a module: maps a private copy of the image at `path`, so that its statics are its own and zero; sets the
    // parameters, given as "name=value name=\"two words\""; writes the logger level; runs its entry function. Nothing
    // stays loaded after a failure. Fails if
    // - there is no image at `path` (not_found),
    // - the image does not fit, or a parameter is unknown, malformed or repeated (invalid),
    // - a module of that name is loaded already (exists),
    // - a limit of the process is used up (no_memory),
    // - the entry function fails (invalid for -EK_INVAL, otherwise failed).
    // The caller may be outside of the machine; the call then enters it. May sleep.
    ats::result<> insmod(const std::string& path, const std::string& parameters = "");

    // Unloads a module: waits for the /proc handlers that run in it, runs its exit function, unmaps it. Fails if no
    // module of that name is loaded (not_found), or while others hold references or it is still starting (busy).
    // From the start of an unloading on, no handler of its /proc entries is called. A hard error is raised if the exit
    // function leaves a name, a /proc entry, or something that a service of the machine holds. The caller may be
    // outside of the machine. May sleep.
    ats::result<> rmmod(const std::string& name);

    bool is_loaded(const std::string& name) const;

    // The names of all loaded modules, in order of loading.
    std::vector<std::string> loaded() const;

    // Returns the address of an exported symbol of a loaded module, or null if there is none. Also returns null while
    // the module starts or unloads, because the symbol may not be initialised then.
    void* symbol(const std::string& module_name, const std::string& symbol) const;

    // Takes and returns a reference on a module; rmmod() is refused meanwhile. hold() is false once unloading has
    // begun. A null `owner` stands for the kernel itself, which is never unloaded. Any context.
    bool hold(const kernel_module_t* owner);
    void release(const kernel_module_t* owner);

    // The same for a /proc handler that is about to run. rmmod() waits for it instead of being refused.
    bool enter(const kernel_module_t* owner);
    void leave(const kernel_module_t* owner);

    // Writes the logger's level into every loaded image, and into those loaded later.
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
    loaded_module* find(const std::string& name) const; // the caller of both holds mutex_
    loaded_module* find(const kernel_module_t* declaration) const;

    machine& machine_;
    mutable std::mutex mutex_; // guards the rest and the counts of modules_; never held while module code runs
    std::list<std::unique_ptr<loaded_module>> modules_;
    int32_t logger_level_ = 5;
};

// A symbol of a loaded module. The module stays loaded while this lives.
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

    // The symbol as the type that the caller knows it to have, such as a function pointer.
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
