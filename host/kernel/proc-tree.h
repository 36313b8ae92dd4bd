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

// One entry in a list for users.
struct proc_listing {
    std::string name;
    bool is_directory = false;
    mode_t mode = 0;
};

// Any thread.
class proc_tree
{
  public:
    explicit proc_tree(machine& machine);
    ~proc_tree();

    // Paths are relative to the root; "" is the root itself. Results are 0 or more, or a negative error number, like
    // the results of the handlers. -EK_NOENT means that there is no such entry or its owner is being unloaded.
    // -EK_INVAL means that the entry has the wrong kind or does not have that handler (yet). Call read() and write()
    // inside the machine. The handlers run in the calling task and may sleep.

    // Appends the entries of a directory to `entries`.
    int list(const std::string& path, std::vector<proc_listing>* entries) const;

    int stat(const std::string& path, proc_listing* entry) const;

    // Reads from `offset` on, page by page like a kernel. Stops when `size` bytes are read, when the handler signals
    // the end of the file, or when its answer is empty. Appends to `text`, which is usually empty, and returns its
    // whole length. kernel/proc.h describes what happens if a handler exceeds its bounds.
    int read(const std::string& path, size_t offset, size_t size, std::string* text);

    // Passes the bytes to the handler in one call. Returns the handler's result. Returns -EK_RESTARTSYS if a signal
    // arrives while it waits for another writer.
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
