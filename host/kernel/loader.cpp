#include "host/kernel/loader.h"

#include <algorithm>
#include <cstring>

#include "host/kernel/machine.h"
#include "host/kernel/module-image.h"
#include "host/kernel/module-parameters.h"
#include "kernel/errno.h"
#include "kernel/module.h"

namespace kernel
{

class loaded_module
{
  public:
    std::list<std::string> texts; // values of text parameters
    module_image image;           // unmapped before the texts go
    int references = 0;           // unloading is refused
    int visitors = 0;             // unloading waits
    bool is_unloading = false;
    const task* starter = nullptr; // runs the entry function
    task* unloader = nullptr;      // waits for the users to leave

    const kernel_module_t& declaration() const { return *image.declaration(); }
    const char* name() const { return declaration().name; }
};

loader::loader(machine& home) : home_(home) {}
loader::~loader() = default;

load_result loader::insmod(const std::string& path, const std::string& parameters)
{
    load_result result;
    home_.enter("insmod", [&] { result = load(path, parameters); });
    return result;
}

load_result loader::load(const std::string& path, const std::string& parameters)
{
    might_sleep("insmod");
    auto image = std::make_unique<loaded_module>();
    if (const auto failure = image->image.map(path); failure.error != 0)
        return {failure.error, "insmod: " + failure.why};

    loaded_module& loading = *image;
    const std::string title = std::string("insmod ") + loading.name() + ": ";
    if (const std::string why = set_parameters(loading.declaration(), parameters, &loading.texts); !why.empty())
        return {-EK_INVAL, title + why};
    {
        const std::lock_guard lock(mutex_);
        if (find(std::string(loading.name()))) return {-EK_EXIST, title + "it is loaded already; unload it first"};
        if (loading.declaration().logger_level) *loading.declaration().logger_level = logger_level_;
        const image_range range = range_of_image(&loading.declaration());
        home_.addresses.add_image(range.begin, range.bytes);
        loading.starter = current_task(); // as soon as it is seen: nobody may unload it before it has started
        modules_.push_back(std::move(image));
    }
    const int result = start(loading);
    if (result >= 0) return {};

    const std::string number = std::to_string(result);
    wait_for_users(loading); // of /proc entries that it has removed
    unmap(loading);
    return {result,
            title + "start-up failed with " + number + " (" + std::strerror(-result) + "); the kernel log says why"};
}

int loader::start(loaded_module& loading)
{
    const int result = loading.declaration().init();
    const std::lock_guard lock(mutex_);
    loading.starter = nullptr;
    loading.is_unloading = result < 0;
    return result;
}

load_result loader::rmmod(const std::string& name)
{
    load_result result;
    home_.enter("rmmod", [&] { result = unload(name); });
    return result;
}

load_result loader::unload(const std::string& name)
{
    might_sleep("rmmod");
    const std::string title = "rmmod " + name + ": ";
    loaded_module* leaving = nullptr;
    {
        const std::lock_guard lock(mutex_);
        leaving = find(name);
        if (!leaving || leaving->is_unloading) return {-EK_NOENT, title + "it is not loaded"};
        if (leaving->starter) return {-EK_BUSY, title + "it is still starting; try again later"};
        if (leaving->references > 0)
            return {-EK_BUSY, title + "it is in use (" + std::to_string(leaving->references) +
                                  " references); unload its users first"};
        leaving->is_unloading = true;
    }
    wait_for_users(*leaving);
    leaving->declaration().exit();
    unmap(*leaving);
    return {};
}

// Nobody can become a user any more.
void loader::wait_for_users(loaded_module& leaving)
{
    const auto has_users = [&] {
        const std::lock_guard lock(mutex_);
        leaving.unloader = current_task();
        return leaving.references + leaving.visitors > 0;
    };
    while (has_users()) current_task()->exec.park(never, "rmmod", leaving.name());
}

// The module has ended.
void loader::unmap(loaded_module& leaving)
{
    const kernel_module_t& declaration = leaving.declaration();
    if (const std::string left = home_.inter_modules.published_by(declaration); !left.empty())
        panic("%s goes without withdrawing the inter-module name %s", declaration.name, left.c_str());
    if (const std::string left = home_.proc.owned_by(declaration); !left.empty())
        panic("%s goes without removing the /proc entry %s", declaration.name, left.c_str());
    const module_code code(declaration.name, &declaration);
    std::string left;
    for (const std::string& each : home_.left_by(code)) left += (left.empty() ? "" : ", ") + each;
    if (!left.empty()) panic("%s goes and leaves behind %s", declaration.name, left.c_str());
    home_.memory.image_leaves(code);
    home_.addresses.remove(range_of_image(&declaration).begin);

    std::unique_ptr<loaded_module> unmapped; // without the lock: the image's destructors may call the kernel
    const std::lock_guard lock(mutex_);
    const auto position =
        std::find_if(modules_.begin(), modules_.end(), [&leaving](const auto& each) { return each.get() == &leaving; });
    unmapped = std::move(*position);
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
    const loaded_module* found = find(module_name);
    return found && !found->starter && !found->is_unloading ? found->image.symbol(symbol) : nullptr;
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
    loaded_module* found = find(owner);
    if (!found || found->is_unloading) return false;
    ++(found->*count);
    return true;
}

void loader::drop_user(const kernel_module_t* owner, int loaded_module::*count)
{
    if (!owner) return;
    const std::lock_guard lock(mutex_);
    loaded_module* found = find(owner);
    if (!found || found->*count == 0) panic("a reference on a module is returned that nobody took");
    --(found->*count);
    // Woken under the lock: it goes on, and may end, only after it has looked at the counts.
    if (found->unloader) found->unloader->exec.wake(*found->unloader);
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
