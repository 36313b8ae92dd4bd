#include "cli/metrics/textfile.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace metrics
{

namespace
{

constexpr mode_t readable_by_all = 0644; // node_exporter runs as another user

tl::unexpected<ats::error> system_error(const std::string& what)
{
    return ats::fail(what + ": " + std::strerror(errno));
}

bool write_all(int file, const std::string& text)
{
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(file, text.data() + written, text.size() - written);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        written += static_cast<size_t>(count);
    }
    return true;
}

} // namespace

textfile::~textfile()
{
    if (!lock_.is_open()) return;
    unlink(path().c_str());
    unlink(lock_path().c_str()); // lock() of another service notices that the file was removed
}

ats::result<> textfile::lock()
{
    if (lock_.is_open()) return {};
    const std::string name = lock_path();
    client::descriptor file(open(name.c_str(), O_CREAT | O_RDONLY | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.is_open())
        return system_error(name + " cannot be made, does the folder exist, and may the service write there");
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0)
        return ats::fail("another service writes " + path() + ": give each its own folder");
    // The service that held the lock before may have removed the file between our open() and our flock(). A lock on a
    // removed file protects nothing. The next call of lock() creates a new file.
    struct stat status = {};
    if (fstat(file.get(), &status) != 0 || status.st_nlink == 0)
        return ats::fail("another service that wrote " + path() + " has just ended");
    lock_ = std::move(file);
    return {};
}

// Writes a draft and renames it. If the disk is full, only the draft is incomplete, and the file does not change.
ats::result<> textfile::write(const std::string& text)
{
    if (const ats::result<> locked = lock(); !locked) return locked;
    unlink(draft().c_str()); // a service that was killed may have left its draft
    const client::descriptor file(open(draft().c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, readable_by_all));
    if (!file.is_open()) return system_error(draft() + " cannot be made");
    fchmod(file.get(), readable_by_all); // independent of the umask
    if (write_all(file.get(), text) && rename(draft().c_str(), path().c_str()) == 0) return {};
    const auto error = system_error(path() + " cannot be written");
    unlink(draft().c_str());
    return error;
}

} // namespace metrics
