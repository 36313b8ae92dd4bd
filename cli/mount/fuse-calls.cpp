// Implements the calls of libfuse's low-level interface. The high-level interface calls no function when a request is
// interrupted, so it cannot be used.

#include "cli/mount/fuse-calls.h"

#include <cerrno>

#include "kernel/errno.h"

namespace cli
{

namespace
{

constexpr double no_caching = 0.0; // in seconds; entries appear and disappear when modules are loaded and unloaded

mount_state& mount_of(fuse_req_t request)
{
    return *static_cast<mount_state*>(fuse_req_userdata(request));
}

std::string join(const std::string& folder, const std::string& name)
{
    return folder.empty() ? name : folder + "/" + name;
}

void on_lookup(fuse_req_t request, fuse_ino_t parent, const char* name)
{
    mount_state& mount = mount_of(request);
    const std::string path = join(mount.inodes.path(parent), name);
    mount_entry entry;
    if (const int result = mount.tree.stat(path, &entry); result < 0) {
        fuse_reply_err(request, -result);
        return;
    }
    fuse_entry_param reply{};
    reply.attr = mount.attributes(path, entry);
    reply.ino = reply.attr.st_ino;
    reply.attr_timeout = no_caching;
    reply.entry_timeout = no_caching;
    fuse_reply_entry(request, &reply);
}

void on_getattr(fuse_req_t request, fuse_ino_t inode, fuse_file_info*)
{
    mount_state& mount = mount_of(request);
    const std::string path = mount.inodes.path(inode);
    mount_entry entry;
    if (const int result = mount.tree.stat(path, &entry); result < 0) {
        fuse_reply_err(request, -result);
        return;
    }
    const struct stat attributes = mount.attributes(path, entry);
    fuse_reply_attr(request, &attributes, no_caching);
}

// A shell's `>` truncates a file before it writes. Therefore a truncation succeeds and does nothing. Mode and owner
// cannot be changed.
void on_setattr(fuse_req_t request, fuse_ino_t inode, struct stat*, int changes, fuse_file_info* file)
{
    if ((changes & (FUSE_SET_ATTR_MODE | FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID)) != 0)
        fuse_reply_err(request, EPERM);
    else
        on_getattr(request, inode, file);
}

void on_readdir(fuse_req_t request, fuse_ino_t inode, size_t size, off_t offset, fuse_file_info*)
{
    mount_state& mount = mount_of(request);
    const std::string path = mount.inodes.path(inode);
    std::vector<mount_entry> entries;
    if (const int result = mount.tree.list(path, &entries); result < 0) {
        fuse_reply_err(request, -result);
        return;
    }
    std::vector<char> answer(size);
    size_t length = 0;
    for (size_t i = static_cast<size_t>(offset); i < entries.size(); ++i) {
        const struct stat attributes = mount.attributes(join(path, entries[i].name), entries[i]);
        const size_t entry_length = fuse_add_direntry(request, answer.data() + length, size - length,
                                                      entries[i].name.c_str(), &attributes, static_cast<off_t>(i + 1));
        if (entry_length > size - length) break;
        length += entry_length;
    }
    fuse_reply_buf(request, answer.data(), length);
}

void on_open(fuse_req_t request, fuse_ino_t inode, fuse_file_info* file)
{
    mount_state& mount = mount_of(request);
    mount_entry entry;
    const std::string path = mount.inodes.path(inode);
    if (const int result = mount.tree.stat(path, &entry); result < 0) {
        fuse_reply_err(request, -result);
        return;
    }
    const bool is_for_writing = (file->flags & O_ACCMODE) != O_RDONLY;
    if (is_for_writing && (entry.permissions & 0222) == 0) {
        fuse_reply_err(request, EACCES);
        return;
    }
    file->fh = mount.logs.add(mount.tree.open_log(path));
    file->direct_io = 1; // a /proc entry has size 0, and every read must reach its module
    fuse_reply_open(request, file);
}

void on_release(fuse_req_t request, fuse_ino_t, fuse_file_info* file)
{
    mount_of(request).logs.remove(file->fh);
    fuse_reply_err(request, 0);
}

void on_read(fuse_req_t request, fuse_ino_t inode, size_t size, off_t offset, fuse_file_info* file)
{
    mount_state& mount = mount_of(request);
    std::string bytes;
    int result = 0;
    if (file->fh != open_logs::no_log) {
        const auto log = mount.logs.find(file->fh);
        const std::lock_guard lock(log->mutex);
        bytes = log->reader->read(static_cast<size_t>(offset), size);
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
    exec::send_signal(*static_cast<exec::task*>(task));
}

void on_write(fuse_req_t request, fuse_ino_t inode, const char* bytes, size_t size, off_t, fuse_file_info*)
{
    mount_state& mount = mount_of(request);
    // The first function below registers on_interrupt for this request, and the second function removes it. Both wait
    // for the lock of the request, which libfuse holds while on_interrupt runs. After the second function, on_interrupt
    // therefore does not run any more, and the task may end.
    const int result = mount.tree.write_proc(
        mount.inodes.path(inode), std::string(bytes, size),
        [request](exec::task& writer) { fuse_req_interrupt_func(request, on_interrupt, &writer); },
        [request] { fuse_req_interrupt_func(request, nullptr, nullptr); });
    if (result == -EK_RESTARTSYS) // an error code inside the kernel; programs get EINTR instead
        fuse_reply_err(request, EINTR);
    else if (result < 0)
        fuse_reply_err(request, -result);
    else
        fuse_reply_write(request, static_cast<size_t>(result));
}

} // namespace

fuse_lowlevel_ops fuse_calls()
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

} // namespace cli
