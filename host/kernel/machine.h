// One host computer. A process can hold many; kernel calls find theirs through the calling task.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <typeindex>
#include <unordered_map>
#include <vector>

#include "host/fabric/fabric.h"
#include "host/kernel/address-layout.h"
#include "host/kernel/current-machine.h"
#include "host/kernel/fault.h"
#include "host/kernel/inter-module.h"
#include "host/kernel/loader.h"
#include "host/kernel/log.h"
#include "host/kernel/memory.h"
#include "host/kernel/proc-tree.h"
#include "host/kernel/random.h"
#include "host/kernel/tasks.h"

namespace kernel
{

// A part of a machine that a layer above the kernel brings along (verbs, GSI, timing, the registry, ...).
class service
{
  public:
    virtual ~service() = default;

    // What the service still holds for a module whose exit function has run, one text each: what would call into the
    // module later, and what nobody can give back any more. May sleep.
    virtual std::vector<std::string> left_by(const module_code&) const { return {}; }
};

struct machine_options {
    uint64_t random_seed = 0; // 0: the system's randomness
    size_t log_bytes = default_log_bytes;
};

class machine final : public exec::task_home
{
  public:
    machine(executor& runs_it, std::string name, const machine_options& options = {});

    // Everything must be unloaded: a loaded module is a hard error. Services end in reverse order of creation.
    ~machine();
    machine(const machine&) = delete;
    machine& operator=(const machine&) = delete;

    executor& exec() const { return exec_; }

    // HCAs are plugged before a module that looks for them is loaded; the fabric owns them.
    void plug(fabric::hca& adapter) { hcas_.push_back(&adapter); }
    const std::vector<fabric::hca*>& hcas() const { return hcas_; }

    // The machine's only `service_t`, made with service_t(machine&) at its first use. Services are made in a
    // thread that may sleep: what runs in other contexts keeps a pointer.
    template <class service_t>
    service_t& get();

    // Runs `body` inside this machine for a thread from outside; see executor::enter.
    void enter(const std::string& task_name, const std::function<void()>& body) { exec_.enter(this, task_name, body); }

    // Starts a task inside this machine; its reports read "machine/name".
    task& start(const std::string& task_name, std::function<void()> body)
    {
        return exec_.start(this, task_name, std::move(body));
    }

    // Lists what a module has left in any service.
    std::vector<std::string> left_by(const module_code& leaving) const;

    kernel::log log;
    fault_injector faults;
    std::atomic<uint64_t> signals_seen{0}; // waits that a signal ended, and calls of signal_pending() that found one
    memory_account memory;
    address_layout addresses{memory};
    random_source random;
    proc_tree proc;
    inter_module_registry inter_modules;
    loader modules;

  private:
    service& find_or_make(std::type_index type, std::unique_ptr<service> (*make)(machine&));

    executor& exec_;
    std::vector<fabric::hca*> hcas_;
    mutable std::mutex services_mutex_;
    std::unordered_map<std::type_index, service*> services_by_type_;
    std::vector<std::unique_ptr<service>> services_; // in order of creation
};

template <class service_t>
service_t& machine::get()
{
    return static_cast<service_t&>(find_or_make(typeid(service_t), [](machine& self) -> std::unique_ptr<service> {
        return std::make_unique<service_t>(self);
    }));
}

} // namespace kernel
