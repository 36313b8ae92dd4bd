// A machine's /proc tree as its users see it: list, read, write. Modules reach it through kernel/proc.h.
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

struct proc_listing {
    std::string name;
    bool is_directory = false;
    mode_t mode = 0;
};

class proc_tree
{
  public:
    explicit proc_tree(machine& home);
    ~proc_tree();

    // Paths are relative to the root, "" is the root itself. Results are 0 or more, or a negative error number:
    // -EK_NOENT for no such entry or an owner that is unloading, -EK_INVAL for the wrong kind of entry or an entry
    // without that handler (yet). Called inside the machine: handlers run in the calling task and may sleep.
    int list(const std::string& path, std::vector<proc_listing>* into) const;
    int stat(const std::string& path, proc_listing* into) const;

    // Reads on from `offset`, page by page as the kernel does, until `size` bytes, the handler's end of file or an
    // empty answer. `into` receives what was read. A handler that answers beyond its bounds is dealt with as
    // kernel/proc.h says.
    int read(const std::string& path, size_t offset, size_t size, std::string* into);

    // One write call, handed to the handler whole. Returns what the handler returned, or -EK_RESTARTSYS when a signal
    // arrives while it waits for another writer.
    int write(const std::string& path, const std::string& bytes);

    // The module-facing calls.
    proc_dir_entry* create(const std::string& path, mode_t mode, bool directory);
    void remove(const std::string& path);

    // The path of an entry of this module, or "".
    std::string owned_by(const kernel_module_t& owner) const;

  private:
    struct node;
    class visit;
    std::shared_ptr<node> find(const std::string& path) const; // with mutex_ held
    static std::string path_of_entry(const node& in, const kernel_module_t& owner);

    machine& home_;
    mutable std::mutex mutex_; // guards the tree, never held over a handler
    std::shared_ptr<node> root_;
};

} // namespace kernel
