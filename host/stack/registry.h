// A machine's registry: keys in a tree, each with named integers. Its owner sets values, at run time too; modules read
// them and follow their changes through repository.h.
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
    std::string key; // its path: names separated by slashes, none at the ends
    std::string name;
    intptr_t value;
};

// The owner's calls take paths from the root, slashes at the ends and doubled slashes being ignored. They may come from
// outside of any machine; set() and remove() may sleep.
class registry final : public kernel::service
{
  public:
    explicit registry(kernel::machine& home);

    // Makes the key with those above it as needed, stores the value and tells the subscribers before it returns.
    void set(const std::string& path, const std::string& name, intptr_t value);

    // False, and `*value` untouched, when there is none.
    bool get(const std::string& path, const std::string& name, intptr_t* value) const;

    // Removes the key and those below it: open handles become stale, subscriptions end. False for the root and for a
    // key that is not there.
    bool remove(const std::string& path);

    // The values of the key and of those below it, by path and name.
    std::vector<registry_value> list(const std::string& path = "") const;

    std::vector<std::string> left_by(const kernel::module_code& leaving) const override;

    // repository.h tells about these; `opener` is the calling code.
    int open(rep_key_t parent, const char* path, rep_key_t* opened, const void* opener);
    int read(rep_key_t of, const char* name, intptr_t* value) const;
    int follow(rep_key_t followed, rep_change_fn_t changed, void* context, rep_notifier_t* notifier);
    void close(rep_key_t closed);
    void unfollow(rep_notifier_t notifier);

    static constexpr rep_key_t root = 1;

  private:
    struct key {
        uint64_t serial; // tells it from an earlier key of the same path
        std::map<std::string, intptr_t> values;
    };
    using key_map = std::map<std::string, key>;

    struct reference {
        std::string path;
        uint64_t serial;
    };
    struct opened_key {
        reference to;
        const void* opener;
    };
    struct subscription {
        reference to;
        rep_change_fn_t changed;
        void* context;
    };

    // All with mutex_ held.
    key& make_key(const std::string& path);
    const key* find(const reference& to) const;
    const key* find(rep_key_t handle, std::string* path) const;
    std::vector<subscription> followers_of(const std::string& path) const;

    kernel::machine& home_;
    semaphore changes_;        // held over set() with its callbacks, and to take a subscription back
    mutable std::mutex mutex_; // guards the rest; never held over a callback
    key_map keys_;
    std::map<rep_key_t, opened_key> open_;
    std::map<rep_notifier_t, subscription> subscriptions_;
    uint64_t next_serial_ = 1;
    rep_key_t next_handle_ = root + 1;
};

} // namespace stack
