// The files that a mount shows, by path: what a path is, what a folder lists, what a file reads and takes. Knows
// nothing of FUSE.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

#include "host/kernel/machine.h"

namespace cli
{

struct mount_entry {
    std::string name;
    bool is_directory = false;
    mode_t permissions = 0;
    uint64_t size = 0;
};

// The size of a log as a file. The log drops its oldest lines, but a file that somebody reads must not slip under him:
// while it is open, it begins where it began, and only grows.
class log_size
{
  public:
    explicit log_size(kernel::log& of);
    ~log_size();
    log_size(const log_size&) = delete;
    log_size& operator=(const log_size&) = delete;

    uint64_t bytes() const { return written_ - dropped_; }
    void opened();
    void closed();

  private:
    kernel::log& log_;
    int follower_;
    std::atomic<uint64_t> written_{0}; // ever
    std::atomic<uint64_t> dropped_{0}; // when the file was opened last, nobody else having it open
    std::mutex mutex_;                 // over opened() and closed()
    int readers_ = 0;
};

// One opening of a log. Not for two threads at once.
class log_reader
{
  public:
    log_reader(kernel::log& log, log_size& size);
    ~log_reader() { size_.closed(); }
    log_reader(const log_reader&) = delete;
    log_reader& operator=(const log_reader&) = delete;

    // At most `size` bytes from `offset` on; empty at the end.
    std::string read(size_t offset, size_t size);

  private:
    bool next_piece();

    kernel::log& log_;
    log_size& size_;
    uint64_t first_line_ = 0;
    uint64_t next_line_ = 0; // after the piece
    std::string piece_;      // some lines, as the file has them from piece_offset_ on
    size_t piece_offset_ = 0;
};

class mount_tree
{
  public:
    explicit mount_tree(const std::vector<kernel::machine*>& machines);

    // Results are 0 or more, or a negative errno. Paths are relative to the mount, "" is its root.
    int stat(const std::string& path, mount_entry* into);
    int list(const std::string& path, std::vector<mount_entry>* into);
    int read_proc(const std::string& path, size_t offset, size_t size, std::string* into);

    // `started` is told the task in which the write runs, before it runs; `ended` that it is over.
    template <class started_t, class ended_t>
    int write_proc(const std::string& path, const std::string& bytes, started_t started, ended_t ended);

    // Null unless `path` is a host's log.
    std::unique_ptr<log_reader> open_log(const std::string& path);

  private:
    struct host_files {
        explicit host_files(kernel::machine& shown) : machine(shown), size_of_log(shown.log) {}
        kernel::machine& machine;
        log_size size_of_log;
    };
    struct place {
        host_files* host = nullptr; // null: the root
        std::string rest;           // below the host: "", "log", "proc" or "proc/..."
    };

    bool locate(const std::string& path, place* into);
    kernel::machine* machine_of(const std::string& path, std::string* proc_path);

    std::vector<std::unique_ptr<host_files>> hosts_;
};

template <class started_t, class ended_t>
int mount_tree::write_proc(const std::string& path, const std::string& bytes, started_t started, ended_t ended)
{
    std::string proc_path;
    kernel::machine* machine = machine_of(path, &proc_path);
    if (!machine) return -ENOENT;
    int result = 0;
    machine->enter("write " + proc_path, [&] {
        started(*exec::current_task());
        result = machine->proc.write(proc_path, bytes);
        ended();
    });
    return result;
}

} // namespace cli
