// The mount through libfuse 3's low-level interface, which alone tells of interrupted requests.

#define FUSE_USE_VERSION 312

#include "cli/proc-mount.h"

#include <cerrno>
#include <cstring>
#include <fuse_lowlevel.h>
#include <map>
#include <mutex>
#include <thread>

#include "cli/failure.h"
#include "cli/mount-tree.h"

namespace cli
{

namespace
{

constexpr double no_caching = 0.0; // entries come and go with the modules that made them

// What an open file is: the log of a host with its reader, or (null) a /proc entry.
struct open_file {
    std::mutex mutex;
    std::unique_ptr<log_reader> log;
};

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

struct mounted {
    explicit mounted(std::vector<kernel::machine*> machines) : tree(std::move(machines)) {}
    mount_tree tree;
    inode_table inodes;

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
        return found;
    }
};

mounted& of(fuse_req_t request)
{
    return *static_cast<mounted*>(fuse_req_userdata(request));
}

std::string join(const std::string& folder, const std::string& name)
{
    return folder.empty() ? name : folder + "/" + name;
}

void on_lookup(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    mounted& mount = of(request);
    const std::string path = join(mount.inodes.path(parent), name);
    mount_entry found;
    if (const int result = mount.tree.stat(path, &found); result < 0) {
        fuse_reply_err(request, -result);
        return;
    }
    fuse_entry_param entry{};
    entry.attr = mount.attributes(path, found);
    entry.ino = entry.attr.st_ino;
    entry.attr_timeout = no_caching;
    entry.entry_timeout = no_caching;
    fuse_reply_entry(request, &entry);
}

void on_getattr(fuse_req_t request, fuse_ino_t inode, fuse_file_info*)
{
    mounted& mount = of(request);
    const std::string path = mount.inodes.path(inode);
    mount_entry found;
    if (const int result = mount.tree.stat(path, &found); result < 0) {
        fuse_reply_err(request, -result);
        return;
    }
    const struct stat attributes = mount.attributes(path, found);
    fuse_reply_attr(request, &attributes, no_caching);
}

// A shell's `>` truncates before it writes. There is nothing to cut off, and nothing else to change.
void on_setattr(fuse_req_t request, fuse_ino_t inode, struct stat*, int changes, fuse_file_info* file)
{
    if ((changes & (FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) != 0)
        fuse_reply_err(request, EPERM);
    else
        on_getattr(request, inode, file);
}

void on_readdir(fuse_req_t request, fuse_ino_t inode, size_t size, off_t offset, fuse_file_info*)
{
    mounted& mount = of(request);
    const std::string path = mount.inodes.path(inode);
    std::vector<mount_entry> entries;
    if (const int result = mount.tree.list(path, &entries); result < 0) {
        fuse_reply_err(request, -result);
        return;
    }
    std::vector<char> answer(size);
    size_t used = 0;
    for (size_t i = static_cast<size_t>(offset); i < entries.size(); ++i) {
        const struct stat attributes = mount.attributes(join(path, entries[i].name), entries[i]);
        const size_t needs = fuse_add_direntry(request, answer.data() + used, size - used, entries[i].name.c_str(),
                                               &attributes, static_cast<off_t>(i + 1));
        if (needs > size - used) break;
        used += needs;
    }
    fuse_reply_buf(request, answer.data(), used);
}

void on_open(fuse_req_t request, fuse_ino_t inode, fuse_file_info* file)
{
    mounted& mount = of(request);
    mount_entry found;
    const std::string path = mount.inodes.path(inode);
    if (const int result = mount.tree.stat(path, &found); result < 0) {
        fuse_reply_err(request, -result);
        return;
    }
    const bool writes = (file->flags & O_ACCMODE) != O_RDONLY;
    if (writes && (found.permissions & 0222) == 0) {
        fuse_reply_err(request, EACCES);
        return;
    }
    auto* opened = new open_file;
    opened->log = mount.tree.open_log(path);
    file->fh = reinterpret_cast<uint64_t>(opened);
    file->direct_io = 1; // sizes of /proc entries say nothing, and every read asks the module
    fuse_reply_open(request, file);
}

void on_release(fuse_req_t request, fuse_ino_t, fuse_file_info* file)
{
    delete reinterpret_cast<open_file*>(file->fh);
    fuse_reply_err(request, 0);
}

void on_read(fuse_req_t request, fuse_ino_t inode, size_t size, off_t offset, fuse_file_info* file)
{
    mounted& mount = of(request);
    auto& opened = *reinterpret_cast<open_file*>(file->fh);
    std::string bytes;
    int result = 0;
    if (opened.log) {
        const std::lock_guard lock(opened.mutex);
        bytes = opened.log->read(static_cast<size_t>(offset), size);
    } else {
        result = mount.tree.read_proc(mount.inodes.path(inode), static_cast<size_t>(offset), size, &bytes);
    }
    if (result < 0)
        fuse_reply_err(request, -result);
    else
        fuse_reply_buf(request, bytes.data(), bytes.size());
}

void on_interrupt(fuse_req_t, void* task)
{
    kernel::send_signal(*static_cast<kernel::task*>(task));
}

void on_write(fuse_req_t request, fuse_ino_t inode, const char* bytes, size_t size, off_t, fuse_file_info*)
{
    mounted& mount = of(request);
    // libfuse holds the request's lock around on_interrupt, so that none is running once it is withdrawn.
    const int result = mount.tree.write_proc(
        mount.inodes.path(inode), std::string(bytes, size),
        [request](kernel::task& writer) { fuse_req_interrupt_func(request, on_interrupt, &writer); },
        [request] { fuse_req_interrupt_func(request, nullptr, nullptr); });
    if (result < 0)
        fuse_reply_err(request, -result);
    else
        fuse_reply_write(request, static_cast<size_t>(result));
}

fuse_lowlevel_ops operations()
{
    fuse_lowlevel_ops ops{};
    ops.lookup = on_lookup;
    ops.getattr = on_getattr;
    ops.setattr = on_setattr;
    ops.readdir = on_readdir;
    ops.open = on_open;
    ops.release = on_release;
    ops.read = on_read;
    ops.write = on_write;
    return ops;
}

void check_mount_point(const std::string& directory)
{
    struct stat itself {
    };
    struct stat parent {
    };
    if (stat(directory.c_str(), &itself) != 0) {
        if (errno == ENOTCONN)
            throw failure(exit_usage,
                          directory + " is a mount whose service is gone: run 'fusermount3 -u " + directory + "'");
        if (errno == ENOENT) throw failure(exit_usage, "no folder " + directory + " to mount on: make it with mkdir");
        throw failure(exit_usage, "cannot look at " + directory + ": " + std::strerror(errno));
    }
    if (!S_ISDIR(itself.st_mode)) throw failure(exit_usage, directory + " is no folder: name one to mount on");
    if (stat((directory + "/..").c_str(), &parent) == 0 && parent.st_dev != itself.st_dev)
        throw failure(exit_usage, "something is mounted on " + directory + " already: choose another folder");
}

class fuse_mount final : public proc_mount
{
  public:
    fuse_mount(const std::string& directory, std::vector<kernel::machine*> machines) : mounted_(std::move(machines))
    {
        check_mount_point(directory);
        const fuse_lowlevel_ops ops = operations();
        char program[] = "ats";
        char option[] = "-o";
        char value[] = "fsname=ats,subtype=ats";
        char* arguments[] = {program, option, value, nullptr};
        fuse_args args = FUSE_ARGS_INIT(3, arguments);
        session_ = fuse_session_new(&args, &ops, sizeof ops, &mounted_);
        fuse_opt_free_args(&args);
        if (!session_) throw failure(exit_usage, "libfuse refuses to start a session");
        if (fuse_session_mount(session_, directory.c_str()) != 0) {
            fuse_session_destroy(session_);
            throw failure(exit_usage, "cannot mount on " + directory + ": see that /dev/fuse is there and may be used");
        }
        server_ = std::thread([this] {
            fuse_loop_config* config = fuse_loop_cfg_create();
            fuse_session_loop_mt(session_, config);
            fuse_loop_cfg_destroy(config);
        });
    }

    ~fuse_mount() override
    {
        fuse_session_exit(session_);
        fuse_session_unmount(session_); // the reads that the loop waits in come back
        server_.join();
        fuse_session_destroy(session_);
    }

  private:
    mounted mounted_;
    fuse_session* session_ = nullptr;
    std::thread server_;
};

} // namespace

std::unique_ptr<proc_mount> proc_mount::open(const std::string& directory, std::vector<kernel::machine*> machines)
{
    return std::make_unique<fuse_mount>(directory, std::move(machines));
}

} // namespace cli
