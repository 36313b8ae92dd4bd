// The functions that libfuse calls for the requests of a FUSE session. They serve the files of a mount tree by inode
// number. libfuse calls them in any of its threads.
#pragma once

#define FUSE_USE_VERSION 312

#include <ctime>
#include <fuse_lowlevel.h>
#include <map>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "cli/mount/mount-tree.h"

namespace cli
{

// Maps paths to inode numbers and back. A path gets a number at its first use and keeps the number. Only paths of
// existing files get numbers, so the table stays small. Any thread.
class inode_table
{
  public:
    std::string path(fuse_ino_t inode)
    {
        const std::lock_guard lock(mutex_);
        return inode - 1 < paths_.size() ? paths_[inode - 1] : std::string();
    }

    fuse_ino_t number(const std::string& path)
    {
        const std::lock_guard lock(mutex_);
        const auto [entry, is_new] = numbers_.try_emplace(path, paths_.size() + 1);
        if (is_new) paths_.push_back(path);
        return entry->second;
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> paths_{""}; // the root is inode 1
    std::map<std::string, fuse_ino_t> numbers_{{"", 1}};
};

// Stores the open log files by file handle. The destructor closes files that are still open. Any thread.
class open_logs
{
  public:
    struct open_log {
        std::mutex mutex; // guards the reader
        std::unique_ptr<log_reader> reader;
    };
    static constexpr uint64_t no_log = 0; // the handle of a /proc entry

    // Stores `reader` and returns its handle. Returns no_log if `reader` is null.
    uint64_t add(std::unique_ptr<log_reader> reader)
    {
        if (!reader) return no_log;
        auto log = std::make_shared<open_log>();
        log->reader = std::move(reader);
        const std::lock_guard lock(mutex_);
        ++last_handle_;
        logs_[last_handle_] = std::move(log);
        return last_handle_;
    }
    std::shared_ptr<open_log> find(uint64_t handle)
    {
        const std::lock_guard lock(mutex_);
        return logs_.at(handle);
    }
    void remove(uint64_t handle)
    {
        const std::lock_guard lock(mutex_);
        logs_.erase(handle);
    }

  private:
    std::mutex mutex_;
    std::map<uint64_t, std::shared_ptr<open_log>> logs_;
    uint64_t last_handle_ = no_log;
};

// The state of a FUSE session. libfuse passes it to each call as the user data of the session.
struct mount_state {
    explicit mount_state(const std::vector<kernel::machine*>& machines) : tree(machines) {}
    mount_tree tree;
    inode_table inodes;
    open_logs logs; // destroyed before the tree, to which the readers refer
    const time_t start_time = time(nullptr);

    struct stat attributes(const std::string& path, const mount_entry& entry)
    {
        struct stat attributes {
        };
        attributes.st_ino = inodes.number(path);
        attributes.st_mode = (entry.is_directory ? S_IFDIR : S_IFREG) | entry.permissions;
        attributes.st_nlink = entry.is_directory ? 2 : 1;
        attributes.st_size = static_cast<off_t>(entry.size);
        attributes.st_uid = geteuid();
        attributes.st_gid = getegid();
        attributes.st_atime = start_time;
        attributes.st_mtime = start_time;
        attributes.st_ctime = start_time;
        return attributes;
    }
};

// Returns the functions for a session. The user data of the session must be a `mount_state`.
fuse_lowlevel_ops fuse_calls();

} // namespace cli
