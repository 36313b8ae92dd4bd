// The registry in which modules find each other's functions. Modules use it through kernel/module.h.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

struct kernel_module_t;

namespace kernel
{

class machine;

// An entry has a name, a pointer, and the module that owns the entry. All calls: any thread, any context.
class inter_module_registry
{
  public:
    explicit inter_module_registry(machine& machine) : machine_(machine) {}

    // Adds an entry. Panics if the name is in use.
    void publish(const std::string& name, const kernel_module_t* owner, const void* pointer);

    // Removes an entry. Panics if the name is unknown or if references taken with get() remain.
    void withdraw(const std::string& name);

    // Returns the pointer with that name and takes a reference on its owner. The caller gives the reference back with
    // put(). Returns null, without a reference, if there is no such name or its owner is being unloaded.
    const void* get(const std::string& name);

    // Gives back one reference that get() has taken. Panics if there is none.
    void put(const std::string& name);

    std::vector<std::string> names() const;

    // The number of references taken with get(); 0 for an unknown name.
    int references(const std::string& name) const;

    // Returns a name that belongs to this module, or "".
    std::string name_owned_by(const kernel_module_t& owner) const;

  private:
    struct entry {
        const kernel_module_t* owner;
        const void* pointer;
        int references;
    };
    machine& machine_;
    mutable std::mutex mutex_; // guards the following members
    std::map<std::string, entry> entries_;
};

} // namespace kernel
