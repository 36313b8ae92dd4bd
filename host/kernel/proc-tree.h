// A machine's /proc tree. Users list, read and write it. Modules use it through kernel/proc.h.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

struct kernel_module_t;
struct proc_dir_entry;

namespace kernel
{

class machine;

// One entry, as list() and stat() report it.
struct proc_listing {
    std::string name;
    bool is_directory = false;
    mode_t mode = 0; // permission bits
};

// Any thread.
class proc_tree
{
  public:
    explicit proc_tree(machine& machine);
    ~proc_tree();

    // Paths are relative to the root of the tree; "" is the root itself. The next four functions return 0 or more, or a
    // negative error number. -EK_NOENT means that there is no such entry or its owner is being unloaded. -EK_INVAL
    // means that the entry has the wrong kind, or that its module has not set the necessary handler. The handlers may
    // return other error numbers.

    // Appends the entries of a directory to `entries`.
    int list(const std::string& path, std::vector<proc_listing>* entries) const;

    // Describes one entry.
    int stat(const std::string& path, proc_listing* entry) const;

    // The calling task of read() and write() is inside the machine. It runs the handlers, which may sleep.

    // Reads from `offset` on, page by page like a kernel, and appends to `text`. Ends when `text` has `size` bytes,
    // when the handler reports the end of the file, or when the handler returns 0 bytes. Returns the length of `text`.
    // kernel/proc.h describes what happens if a handler exceeds its bounds.
    int read(const std::string& path, size_t offset, size_t size, std::string* text);

    // Passes the bytes to the handler in one call, and returns the handler's result. First waits until no other task
    // writes to the entry. Returns -EK_RESTARTSYS if a signal ends this wait.
    int write(const std::string& path, const std::string& bytes);

    // These functions implement create_proc_entry(), proc_mkdir() and remove_proc_entry() of kernel/proc.h.
    proc_dir_entry* create(const std::string& path, mode_t mode, bool is_directory);
    void remove(const std::string& path);

    // Returns the path of an entry that belongs to this module, or "".
    std::string path_owned_by(const kernel_module_t& owner) const;

  private:
    struct node;
    class visit;
    std::shared_ptr<node> find(const std::string& path) const; // the caller holds mutex_
    static std::string find_path(const node& directory, const kernel_module_t& owner);

    machine& machine_;
    mutable std::mutex mutex_; // guards the tree; never held while a handler runs
    std::shared_ptr<node> root_;
};

} // namespace kernel
