// One host computer. A process can have many machines. Kernel calls find their machine through the calling task.
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
#include "host/kernel/fault.h"
#include "host/kernel/inter-module.h"
#include "host/kernel/loader.h"
#include "host/kernel/log.h"
#include "host/kernel/memory.h"
#include "host/kernel/proc-tree.h"
#include "host/kernel/random.h"
#include "host/kernel/tasks.h"

struct semaphore;

namespace kernel
{

// A part of a machine that a layer above the kernel adds, for example verbs, GSI, timers or the registry (host/stack).
class service
{
  public:
    virtual ~service() = default;

    // Called before a module is unmapped: after its exit function has returned, or after its entry function has failed.
    // Returns one text for each thing that the service still holds for the module: a subscription or a timer that can
    // call the module, or a resource that only the module can release. May sleep.
    virtual std::vector<std::string> left_by(const module_code&) const { return {}; }
};

struct machine_options {
    uint64_t random_seed = 0;             // 0 means random bytes from the system
    size_t log_bytes = default_log_bytes; // memory for the lines of the log; older lines are dropped
};

class machine final : public exec::task_home
{
  public:
    // The executor must outlive the machine.
    machine(executor& exec, std::string name, const machine_options& options = {});

    // Panics if a module is still loaded. Destroys the services in reverse order of creation. Then prints a line to
    // stderr about each leak: memory from kmalloc that was not freed.
    ~machine();
    machine(const machine&) = delete;
    machine& operator=(const machine&) = delete;

    executor& exec() const { return exec_; }

    // Plug HCAs before loading modules that look for them. The fabric owns the HCAs.
    void plug(fabric::hca& adapter) { hcas_.push_back(&adapter); }
    const std::vector<fabric::hca*>& hcas() const { return hcas_; }

    // Returns the machine's only `service_t`. The first call creates it with service_t(machine&) and may sleep. Code
    // that may not sleep must get the service beforehand and keep a pointer to it. Any thread.
    template <class service_t>
    service_t& get();

    // Runs `body` inside this machine and returns when it has ended; see executor::enter.
    void enter(const std::string& task_name, const std::function<void()>& body) { exec_.enter(this, task_name, body); }

    // Starts a task inside this machine; see executor::start. Reports show its name as "machine/name".
    task& start(const std::string& task_name, std::function<void()> body)
    {
        return exec_.start(this, task_name, std::move(body));
    }

    // Calls service::left_by() of all services and returns all their texts. May sleep.
    std::vector<std::string> left_by(const module_code& code) const;

    kernel::log log;
    fault_injector faults;
    // Counts the waits that a signal has ended, and the calls of signal_pending() that have returned true.
    std::atomic<uint64_t> signals_seen{0};
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
    mutable std::mutex services_mutex_; // guards the following members
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

// Returns the machine of the calling task. Panics with the name `caller` if the task is outside of all machines.
inline machine& current_machine(const char* caller)
{
    auto* home = static_cast<machine*>(current_task_of(caller).home);
    if (!home) [[unlikely]]
        panic("%s is called outside of any machine", caller);
    return *home;
}

// Returns the machine of the calling task. Most kernel calls that may sleep begin with this function. Other tasks may
// run before it returns, as in a real kernel. Panics in a context that may not sleep.
inline machine& current_machine_may_sleep(const char* call)
{
    might_sleep(call);
    machine& home = current_machine(call);
    home.exec().switch_point();
    return home;
}

// Does the same as down_interruptible() of kernel/sync.h. But the fault injector cannot make it fail. The kernel itself
// uses it.
int down_or_signal(semaphore* sem);

} // namespace kernel
