// A machine's registry: a tree of keys. Each key has named integers. The program that owns the machine sets the values,
// also at run time. Modules read values and subscribe to changes through repository.h.
#pragma once

#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "host/kernel/machine.h"
#include "kernel/sync.h"
#include "repository.h"

namespace stack
{

struct registry_value {
    std::string key; // path of the key from the root, for example "a/b"
    std::string name;
    intptr_t value;
};

// The program that owns the machine calls set(), get(), remove() and list(), also from outside of the machine. A path
// starts at the root; leading, trailing and double slashes are ignored. Of these four, only set() may sleep.
class registry final : public kernel::service
{
  public:
    explicit registry(kernel::machine& home);

    // Creates the key and its parent keys if they are missing. Stores the value. Calls the subscribers before it
    // returns.
    void set(const std::string& path, const std::string& name, intptr_t value);

    // Stores the value in `*value`. If there is no such value, returns false and does not change `*value`.
    bool get(const std::string& path, const std::string& name, intptr_t* value) const;

    // Removes the key and all keys below it. Open handles of these keys become stale. A later set() does not call the
    // subscribers of these keys. Returns false if the key is the root or does not exist.
    bool remove(const std::string& path);

    // Returns the values of the key and of all keys below it, ordered by path and name. An empty `path` is the root.
    std::vector<registry_value> list(const std::string& path = "") const;

    std::vector<std::string> left_by(const kernel::module_code& module) const override;

    // repository.h describes these calls. `opener` is an address in the caller's code, for left_by().
    int open(rep_key_t parent, const char* path, rep_key_t* handle, const void* opener);
    int read(rep_key_t handle, const char* name, intptr_t* value) const;
    int follow(rep_key_t handle, rep_change_fn_t callback, void* context, rep_notifier_t* notifier);
    void close(rep_key_t handle);
    void unfollow(rep_notifier_t notifier);

    static constexpr rep_key_t root = 1;

  private:
    struct key {
        uint64_t serial; // differs if the key was removed and created again
        std::map<std::string, intptr_t> values;
    };
    using key_map = std::map<std::string, key>;

    struct reference {
        std::string path;
        uint64_t serial;
    };
    struct opened_key {
        reference target;
        const void* opener;
    };
    struct subscription {
        reference target;
        rep_change_fn_t callback;
        void* context;
    };

    // The caller holds mutex_.
    key& make_key(const std::string& path);
    const key* find(const reference& target) const;
    const key* find(rep_key_t handle, std::string* path) const;
    std::vector<subscription> followers_of(const std::string& path) const;

    kernel::machine& home_;
    // set() holds it during the callbacks. unfollow() takes it, so that the callback does not run after unfollow().
    semaphore change_semaphore_;
    mutable std::mutex mutex_; // guards the members below; not held during a callback
    key_map keys_;
    std::map<rep_key_t, opened_key> open_keys_;
    std::map<rep_notifier_t, subscription> subscriptions_;
    uint64_t next_serial_ = 1;
    rep_key_t next_handle_ = root + 1;
};

} // namespace stack
