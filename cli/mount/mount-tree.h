// The files of a mount: finds the file for a path, lists folders, and reads and writes files. Does not depend on FUSE.
#pragma once

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <optional>
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

// The size of a log file. When a reader opens the file and no other reader has it open, the size becomes that of the
// stored lines. From then on it only grows, although the log drops its oldest lines. Any thread.
class log_size
{
  public:
    explicit log_size(kernel::log& log); // `log` must outlive this object
    ~log_size();
    log_size(const log_size&) = delete;
    log_size& operator=(const log_size&) = delete;

    uint64_t bytes() const { return written_bytes_ - dropped_bytes_; }
    void add_reader();
    void remove_reader();

  private:
    kernel::log& log_;
    int follower_;
    std::atomic<uint64_t> written_bytes_{0}; // of the lines at the time of the construction, and of all later lines
    std::atomic<uint64_t> dropped_bytes_{0}; // of the lines that were already dropped when readers_ became 1
    std::mutex mutex_;                       // guards the changes of readers_ and dropped_bytes_
    int readers_ = 0;
};

// An open log file. Only one thread at a time may use it. `log` and `size` must outlive this object.
class log_reader
{
  public:
    log_reader(kernel::log& log, log_size& size);
    ~log_reader() { size_.remove_reader(); }
    log_reader(const log_reader&) = delete;
    log_reader& operator=(const log_reader&) = delete;

    // Returns at most `size` bytes from `offset` on. May return fewer bytes. Returns none at the end.
    std::string read(size_t offset, size_t size);

  private:
    bool read_next_piece();

    kernel::log& log_;
    log_size& size_;
    uint64_t first_line_ = 0;
    uint64_t next_line_ = 0; // the first line after piece_
    std::string piece_;      // the text of the lines that were read last; piece_offset_ is its place in the file
    size_t piece_offset_ = 0;
};

// Any thread that is not a task of a machine may call these functions.
class mount_tree
{
  public:
    explicit mount_tree(const std::vector<kernel::machine*>& machines); // the machines must outlive this object

    // Paths are relative to the mount; "" is its root. As in a kernel, a result is 0 or more, or a negative errno. The
    // program that uses the file gets the errno.
    int stat(const std::string& path, mount_entry* entry);
    int list(const std::string& path, std::vector<mount_entry>* entries);
    int read_proc(const std::string& path, size_t offset, size_t size, std::string* bytes);

    // Writes to a /proc entry. Calls `on_start` with the task that makes the write, before the task enters the module.
    // Calls `on_end` after the module has returned.
    template <class on_start_t, class on_end_t>
    int write_proc(const std::string& path, const std::string& bytes, on_start_t on_start, on_end_t on_end);

    // Returns a reader if `path` is a host's log, otherwise null. This object must outlive the reader.
    std::unique_ptr<log_reader> open_log(const std::string& path);

  private:
    struct host_files {
        explicit host_files(kernel::machine& machine) : machine(machine), size_of_log(machine.log) {}
        kernel::machine& machine;
        log_size size_of_log;
    };
    struct place {
        host_files* host = nullptr; // null for the root
        std::string rest = {};      // the path below the host, for example "log" or "proc/dorvex"; "": the host itself
    };
    struct proc_place {
        kernel::machine* machine = nullptr; // null outside of the /proc trees
        std::string path = {};              // relative to the machine's /proc
    };

    // Finds the host of a path. Returns nothing if no host has the name at the beginning of `path`.
    std::optional<place> locate(const std::string& path);
    proc_place locate_proc(const std::string& path);

    std::vector<std::unique_ptr<host_files>> hosts_;
};

template <class on_start_t, class on_end_t>
int mount_tree::write_proc(const std::string& path, const std::string& bytes, on_start_t on_start, on_end_t on_end)
{
    const proc_place place = locate_proc(path);
    if (!place.machine) return -ENOENT;
    int result = 0;
    place.machine->enter("write " + place.path, [&] {
        on_start(*exec::current_task());
        result = place.machine->proc.write(place.path, bytes);
        on_end();
    });
    return result;
}

} // namespace cli
