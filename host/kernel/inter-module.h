// The registry by which modules find each other's functions. Modules reach it through kernel/module.h.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

struct kernel_module_t;

namespace kernel
{

class machine;

class inter_module_registry
{
  public:
    explicit inter_module_registry(machine& home) : home_(home) {}

    void publish(const std::string& name, const kernel_module_t* owner, const void* pointer);
    void withdraw(const std::string& name);

    // With a reference on the owner until put(); null when nobody published the name.
    const void* get(const std::string& name);
    void put(const std::string& name);

    std::vector<std::string> names() const;
    int references(const std::string& name) const; // 0 for an unknown name

    // A name that this module has published and not withdrawn, or "".
    std::string published_by(const kernel_module_t& owner) const;

  private:
    struct entry {
        const kernel_module_t* owner;
        const void* pointer;
        int references;
    };
    machine& home_;
    mutable std::mutex mutex_;
    std::map<std::string, entry> entries_;
};

} // namespace kernel
