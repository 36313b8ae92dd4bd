// insmod and rmmod.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct kernel_module_t;

namespace kernel
{

class machine;

// 0, or a negative error number and one line that says what to do about it.
struct load_result {
    int error = 0;
    std::string why;
    explicit operator bool() const { return error == 0; }
};

// One loaded image. Its address is stable while it is loaded.
class loaded_module;

class loader
{
  public:
    explicit loader(machine& home);
    ~loader();

    // Maps a private copy of the image at `path` (so that its statics are its own and zero), sets the parameters
    // given as "name=value name=\"two words\"" (unknown names, malformed numbers and repeated names are refused with
    // the list of valid ones), writes the logger level, and runs its entry function. On any failure nothing stays
    // loaded. A module of the same name is refused (-EK_EXIST). Called inside the machine (or from outside: enters
    // it). Throws a shortage when the process has no room for the image. May sleep.
    load_result insmod(const std::string& path, const std::string& parameters = "");

    // Waits for the /proc handlers that run in the module, runs its exit function and unmaps it. Refused (-EK_BUSY)
    // while others hold references, (-EK_NOENT) for a name that is not loaded; the refusal names the holders' count.
    // From the beginning of the unloading on the module's /proc entries refuse to be entered. What the exit function
    // leaves behind (a name, a /proc entry, what a service of the machine holds) is a hard error. May sleep.
    load_result rmmod(const std::string& name);

    bool is_loaded(const std::string& name) const;
    std::vector<std::string> loaded() const; // in order of loading

    // The address of an exported symbol of a loaded module, or null. While the module starts, or leaves, it has none:
    // what it exports may not be initialised.
    void* symbol(const std::string& module_name, const std::string& symbol) const;

    // References on a module, such as the inter-module registry hands out. hold() is false once unloading has begun.
    // `owner` may be null (the kernel itself): always held. Any context.
    bool hold(const kernel_module_t* owner);
    void release(const kernel_module_t* owner);

    // The same for a /proc handler about to run, but unloading waits for it instead of being refused.
    bool enter(const kernel_module_t* owner);
    void leave(const kernel_module_t* owner);

    // Writes the logger's level into every image, now and as each is loaded.
    void set_logger_level(int32_t level);
    int32_t logger_level() const;

  private:
    load_result load(const std::string& path, const std::string& parameters);
    load_result unload(const std::string& name);
    int start(loaded_module& loading);
    void wait_for_users(loaded_module& leaving);
    void unmap(loaded_module& leaving);
    bool add_user(const kernel_module_t* owner, int loaded_module::*count);
    void drop_user(const kernel_module_t* owner, int loaded_module::*count);
    loaded_module* find(const std::string& name) const; // both with mutex_ held
    loaded_module* find(const kernel_module_t* declaration) const;

    machine& home_;
    mutable std::mutex mutex_; // guards modules_ and the counts in it, never held over module code
    std::list<std::unique_ptr<loaded_module>> modules_;
    int32_t logger_level_ = 5;
};

// A symbol of a loaded module, which stays loaded as long as this lives.
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

    // The symbol as what the caller knows it to be, a function pointer say.
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
