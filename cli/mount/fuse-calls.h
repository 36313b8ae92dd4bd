// What a FUSE session serves: the files of a mount tree, by inode number.
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

// Paths by inode number. Numbers are given to paths as they are met and stay theirs: there are as many as files.
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

// The logs that are open, by file handle. One that nobody closes before the mount ends goes with it.
class open_logs
{
  public:
    struct open_log {
        std::mutex mutex;
        std::unique_ptr<log_reader> reader;
    };
    static constexpr uint64_t no_log = 0; // the handle of a /proc entry

    uint64_t add(std::unique_ptr<log_reader> reader)
    {
        if (!reader) return no_log;
        const std::lock_guard lock(mutex_);
        auto opened = std::make_shared<open_log>();
        opened->reader = std::move(reader);
        logs_[++last_handle_] = std::move(opened);
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

struct mounted {
    explicit mounted(const std::vector<kernel::machine*>& machines) : tree(machines) {}
    mount_tree tree;
    inode_table inodes;
    open_logs logs; // before the tree they belong to goes
    const time_t since = time(nullptr);

    struct stat attributes(const std::string& path, const mount_entry& entry)
    {
        struct stat found {
        };
        found.st_ino = inodes.number(path);
        found.st_mode = (entry.is_directory ? S_IFDIR : S_IFREG) | entry.permissions;
        found.st_nlink = entry.is_directory ? 2 : 1;
        found.st_size = static_cast<off_t>(entry.size);
        found.st_uid = geteuid();
        found.st_gid = getegid();
        found.st_atime = found.st_mtime = found.st_ctime = since;
        return found;
    }
};

// The calls of a session whose user data is a `mounted`.
fuse_lowlevel_ops fuse_calls();

} // namespace cli
