#include "host/stack/registry.h"

#include "host/kernel/module-image.h"
#include "host/stack/logger.h"
#include "kernel/errno.h"

namespace stack
{

namespace
{

// Removes superfluous slashes: "/a//b/" becomes "a/b".
std::string normal_path(const std::string& path)
{
    std::string normal;
    for (size_t begin = 0; begin < path.size();) {
        const size_t end = std::min(path.find('/', begin), path.size());
        if (end > begin) normal += (normal.empty() ? "" : "/") + path.substr(begin, end - begin);
        begin = end + 1;
    }
    return normal;
}

std::string path_below(const std::string& parent, const std::string& path)
{
    return normal_path(parent + "/" + path);
}

bool is_at_or_below(const std::string& path, const std::string& top)
{
    return top.empty() || path == top || path.starts_with(top + "/");
}

} // namespace

registry::registry(kernel::machine& home) : home_(home)
{
    sema_init_named(&change_semaphore_, 1, "registry changes");
    make_key("");
    make_key(logger::registry_key).values[logger::registry_value_name] = home.modules.logger_level();
    rep_notifier_t unused_notifier; // never used: the logger's subscription lasts as long as the registry
    rep_key_t logger_key;
    open(root, logger::registry_key, &logger_key, nullptr);
    follow(logger_key, logger::level_changed, &home, &unused_notifier);
    close(logger_key);
}

void registry::set(const std::string& path, const std::string& name, intptr_t value)
{
    home_.enter("registry", [&] {
        const std::string key_path = normal_path(path);
        down(&change_semaphore_);
        std::vector<subscription> followers;
        {
            const std::lock_guard lock(mutex_);
            make_key(key_path).values[name] = value;
            followers = followers_of(key_path);
        }
        for (const subscription& follower : followers) {
            const exec::atomic_section no_sleep("a registry notification");
            follower.callback(name.c_str(), value, follower.context);
        }
        up(&change_semaphore_);
    });
}

bool registry::get(const std::string& path, const std::string& name, intptr_t* value) const
{
    const std::lock_guard lock(mutex_);
    const auto holder = keys_.find(normal_path(path));
    if (holder == keys_.end()) return false;
    const auto entry = holder->second.values.find(name);
    if (entry == holder->second.values.end()) return false;
    *value = entry->second;
    return true;
}

bool registry::remove(const std::string& path)
{
    const std::string top = normal_path(path);
    const std::lock_guard lock(mutex_);
    if (top.empty()) return false;
    return std::erase_if(keys_, [&](const auto& each) { return is_at_or_below(each.first, top); }) > 0;
}

std::vector<registry_value> registry::list(const std::string& path) const
{
    const std::string top = normal_path(path);
    const std::lock_guard lock(mutex_);
    std::vector<registry_value> values;
    for (const auto& [key_path, holder] : keys_) {
        if (!is_at_or_below(key_path, top)) continue;
        for (const auto& [name, value] : holder.values) values.push_back({key_path, name, value});
    }
    return values;
}

std::vector<std::string> registry::left_by(const kernel::module_code& module) const
{
    const std::lock_guard lock(mutex_);
    std::vector<std::string> leftovers;
    for (const auto& [handle, each] : open_keys_)
        if (module.holds(each.opener)) leftovers.push_back("open registry key " + each.target.path);
    for (const auto& [notifier, each] : subscriptions_)
        if (module.holds(each.callback) || module.holds(each.context))
            leftovers.push_back("a subscription to the registry key " + each.target.path);
    return leftovers;
}

int registry::open(rep_key_t parent, const char* path, rep_key_t* handle, const void* opener)
{
    const std::lock_guard lock(mutex_);
    std::string parent_path;
    if (!find(parent, &parent_path)) return -EK_INVAL;
    const std::string key_path = path_below(parent_path, path);
    const auto entry = keys_.find(key_path);
    if (entry == keys_.end()) return -EK_NOENT;
    *handle = next_handle_++;
    open_keys_[*handle] = {{key_path, entry->second.serial}, opener};
    return 0;
}

int registry::read(rep_key_t handle, const char* name, intptr_t* value) const
{
    const std::lock_guard lock(mutex_);
    const key* holder = find(handle, nullptr);
    if (!holder) return -EK_INVAL;
    const auto entry = holder->values.find(name);
    if (entry == holder->values.end()) return -EK_NOENT;
    *value = entry->second;
    return 0;
}

int registry::follow(rep_key_t handle, rep_change_fn_t callback, void* context, rep_notifier_t* notifier)
{
    const std::lock_guard lock(mutex_);
    std::string path;
    const key* holder = find(handle, &path);
    if (!holder) return -EK_INVAL;
    *notifier = next_handle_++;
    subscriptions_[*notifier] = {{path, holder->serial}, callback, context};
    return 0;
}

void registry::close(rep_key_t handle)
{
    const std::lock_guard lock(mutex_);
    open_keys_.erase(handle);
}

void registry::unfollow(rep_notifier_t notifier)
{
    if (notifier == 0) return;
    down(&change_semaphore_);
    {
        const std::lock_guard lock(mutex_);
        subscriptions_.erase(notifier);
    }
    up(&change_semaphore_);
}

registry::key& registry::make_key(const std::string& path)
{
    for (size_t end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1))
        if (keys_.try_emplace(path.substr(0, end), key{next_serial_, {}}).second) ++next_serial_;
    const auto [entry, is_new] = keys_.try_emplace(path, key{next_serial_, {}});
    if (is_new) ++next_serial_;
    return entry->second;
}

const registry::key* registry::find(const reference& target) const
{
    const auto entry = keys_.find(target.path);
    const bool exists = entry != keys_.end() && entry->second.serial == target.serial;
    return exists ? &entry->second : nullptr;
}

const registry::key* registry::find(rep_key_t handle, std::string* path) const
{
    if (handle == root) return &keys_.at("");
    const auto entry = open_keys_.find(handle);
    if (entry == open_keys_.end()) return nullptr;
    if (path) *path = entry->second.target.path;
    return find(entry->second.target);
}

std::vector<registry::subscription> registry::followers_of(const std::string& path) const
{
    std::vector<subscription> followers;
    for (const auto& [handle, each] : subscriptions_)
        if (each.target.path == path && find(each.target)) followers.push_back(each);
    return followers;
}

} // namespace stack
