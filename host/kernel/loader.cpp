#include "host/kernel/loader.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "host/kernel/machine.h"
#include "host/kernel/module-image.h"
#include "host/kernel/module-parameters.h"
#include "kernel/errno.h"
#include "kernel/module.h"

namespace kernel
{

// One loaded module. The object is not moved while the module is loaded.
class loaded_module
{
  public:
    std::list<std::string> texts;     // values of text parameters; the image points to them
    module_image image;               // unmapped before `texts` is destroyed
    int references = 0;               // taken with hold(); rmmod() fails while there are any
    int visitors = 0;                 // tasks between enter() and leave(); rmmod() waits for them
    bool is_unloading = false;        // if true, hold() and enter() fail
    const task* start_task = nullptr; // the task that runs the entry function; null when the function has returned
    task* unload_task = nullptr;      // the task that waits until `references` and `visitors` are 0

    const kernel_module_t& declaration() const { return *image.declaration(); }
    const char* name() const { return declaration().name; }
};

loader::loader(machine& machine) : machine_(machine) {}
loader::~loader() = default;

ats::result<> loader::insmod(const std::string& path, const std::string& parameters)
{
    ats::result<> result;
    machine_.enter("insmod", [&] { result = load(path, parameters); });
    return result;
}

ats::result<> loader::load(const std::string& path, const std::string& parameters)
{
    might_sleep("insmod");
    auto image = std::make_unique<loaded_module>();
    loaded_module& module = *image;
    if (const ats::result<> result = module.image.map(path); !result) {
        // No memory is left, or a limit of the process was reached. The name of the call would not help a reader.
        if (result.error().kind == ats::error_kind::no_memory) return result;
        return ats::fail(result.error().kind, "insmod: " + result.error().text);
    }

    const std::string title = std::string("insmod ") + module.name() + ": ";
    if (const ats::result<> result = set_parameters(module.declaration(), parameters, &module.texts); !result)
        return ats::fail(result.error().kind, title + result.error().text);
    {
        const std::lock_guard lock(mutex_);
        if (find(std::string(module.name())))
            return ats::fail(ats::error_kind::exists, title + "it is loaded already; unload it first");
        if (module.declaration().logger_level) *module.declaration().logger_level = logger_level_;
        machine_.addresses.add_image(parts_of_image(&module.declaration()));
        module.start_task = current_task(); // makes rmmod() fail; set it before another task can find the module
        modules_.push_back(std::move(image));
    }
    const int start_result = start(module);
    if (start_result >= 0) return {};

    const std::string number = std::to_string(start_result);
    wait_for_users(module); // another task may still be in a handler of its /proc entries
    unmap(module);
    const ats::error_kind kind = start_result == -EK_INVAL ? ats::error_kind::invalid : ats::error_kind::failed;
    return ats::fail(kind, title + "start-up failed with " + number + " (" + std::strerror(-start_result) +
                               "); the kernel log says why");
}

int loader::start(loaded_module& module)
{
    const int result = module.declaration().init();
    const std::lock_guard lock(mutex_);
    module.start_task = nullptr;
    module.is_unloading = result < 0;
    return result;
}

ats::result<> loader::rmmod(const std::string& name)
{
    ats::result<> result;
    machine_.enter("rmmod", [&] { result = unload(name); });
    return result;
}

ats::result<> loader::unload(const std::string& name)
{
    might_sleep("rmmod");
    const std::string title = "rmmod " + name + ": ";
    loaded_module* module = nullptr;
    {
        const std::lock_guard lock(mutex_);
        module = find(name);
        if (!module || module->is_unloading) return ats::fail(ats::error_kind::not_found, title + "it is not loaded");
        if (module->start_task)
            return ats::fail(ats::error_kind::busy, title + "it is still starting; try again later");
        if (module->references > 0)
            return ats::fail(ats::error_kind::busy, title + "it is in use (" + std::to_string(module->references) +
                                                        " references); unload its users first");
        module->is_unloading = true;
    }
    wait_for_users(*module);
    module->declaration().exit();
    unmap(*module);
    return {};
}

void loader::wait_for_users(loaded_module& module)
{
    const auto has_users = [&] {
        const std::lock_guard lock(mutex_);
        assert(module.is_unloading);
        module.unload_task = current_task();
        return module.references + module.visitors > 0;
    };
    while (has_users()) current_task()->exec.park(never, "rmmod", module.name());
}

// Panics if the module has left something behind. Its code is unmapped next, and pointers to the code become invalid.
void loader::check_leftovers(const loaded_module& module) const
{
    const kernel_module_t& declaration = module.declaration();
    if (const std::string name = machine_.inter_modules.name_owned_by(declaration); !name.empty())
        panic("%s is unloaded without withdrawing the inter-module name %s", declaration.name, name.c_str());
    if (const std::string path = machine_.proc.path_owned_by(declaration); !path.empty())
        panic("%s is unloaded without removing the /proc entry %s", declaration.name, path.c_str());
    std::string leftovers;
    for (const std::string& each : machine_.left_by(module_code(declaration.name, &declaration)))
        leftovers += (leftovers.empty() ? "" : ", ") + each;
    if (!leftovers.empty()) panic("%s is unloaded and leaves behind %s", declaration.name, leftovers.c_str());
}

void loader::unmap(loaded_module& module)
{
    check_leftovers(module);
    const kernel_module_t& declaration = module.declaration();
    machine_.memory.note_unmapping(module_code(declaration.name, &declaration));
    machine_.addresses.remove_image(parts_of_image(&declaration));

    // The image's destructors may call the kernel. Therefore `image` is declared before the lock and destroyed after
    // the lock is released.
    std::unique_ptr<loaded_module> image;
    const std::lock_guard lock(mutex_);
    const auto position =
        std::find_if(modules_.begin(), modules_.end(), [&module](const auto& each) { return each.get() == &module; });
    assert(position != modules_.end());
    image = std::move(*position);
    modules_.erase(position);
}

bool loader::is_loaded(const std::string& name) const
{
    const std::lock_guard lock(mutex_);
    return find(name) != nullptr;
}

std::vector<std::string> loader::loaded() const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& each : modules_) names.push_back(each->declaration().name);
    return names;
}

void* loader::symbol(const std::string& module_name, const std::string& symbol) const
{
    const std::lock_guard lock(mutex_);
    const loaded_module* module = find(module_name);
    if (!module || module->start_task || module->is_unloading) return nullptr;
    return module->image.symbol(symbol);
}

bool loader::hold(const kernel_module_t* owner)
{
    return add_user(owner, &loaded_module::references);
}

void loader::release(const kernel_module_t* owner)
{
    drop_user(owner, &loaded_module::references);
}

bool loader::enter(const kernel_module_t* owner)
{
    return add_user(owner, &loaded_module::visitors);
}

void loader::leave(const kernel_module_t* owner)
{
    drop_user(owner, &loaded_module::visitors);
}

bool loader::add_user(const kernel_module_t* owner, int loaded_module::*count)
{
    if (!owner) return true;
    const std::lock_guard lock(mutex_);
    loaded_module* module = find(owner);
    if (!module || module->is_unloading) return false;
    ++(module->*count);
    return true;
}

void loader::drop_user(const kernel_module_t* owner, int loaded_module::*count)
{
    if (!owner) return;
    const std::lock_guard lock(mutex_);
    loaded_module* module = find(owner);
    if (!module || module->*count == 0) panic("a reference on a module is returned but was never taken");
    --(module->*count);
    // Wake the unloading task while holding the lock. The task must take the lock to read the counts, so it has not
    // ended yet.
    if (module->unload_task) module->unload_task->exec.wake(*module->unload_task);
}

void loader::set_logger_level(int32_t level)
{
    const std::lock_guard lock(mutex_);
    logger_level_ = level;
    for (const auto& each : modules_)
        if (std::atomic<int32_t>* copy = each->declaration().logger_level) *copy = level;
}

int32_t loader::logger_level() const
{
    const std::lock_guard lock(mutex_);
    return logger_level_;
}

loaded_module* loader::find(const std::string& name) const
{
    for (const auto& each : modules_)
        if (each->declaration().name == name) return each.get();
    return nullptr;
}

loaded_module* loader::find(const kernel_module_t* declaration) const
{
    for (const auto& each : modules_)
        if (&each->declaration() == declaration) return each.get();
    return nullptr;
}

} // namespace kernel
