#include "cli/socket/socket.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "cli/socket/service-origin.h"
#include "console/errors.h"

namespace cli
{

namespace
{

using ats::error_kind;

std::string choose_another(const std::string& option)
{
    return ": choose another path with " + option;
}

// Returns the text for errno, after a colon.
std::string errno_text()
{
    return std::string(": ") + std::strerror(errno);
}

ats::result<sockaddr_un> socket_address(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return ats::fail(error_kind::invalid, "a socket's path has 1 to " +
                                                  std::to_string(sizeof address.sun_path - 1) +
                                                  " bytes: " + console::quote(path) + " cannot be one");
    path.copy(address.sun_path, path.size());
    return address;
}

ats::result<descriptor> new_socket(int flags = 0)
{
    descriptor endpoint(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    if (endpoint.get() < 0) return ats::fail("cannot make a socket" + errno_text());
    return endpoint;
}

// Returns true if the socket has connected. Otherwise errno has the reason.
bool connects(const descriptor& socket, const sockaddr_un& address)
{
    return connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

tl::unexpected<ats::error> service_exists(const std::string& path, const std::string& option)
{
    return ats::fail(error_kind::invalid,
                     "a service is listening on " + path + " already: stop it, or choose another path with " + option);
}

// Removes the file at `path` if it is the socket of a service that has ended and left it. The test is a connection: the
// kernel refuses it if no process listens. Fails if a process listens there, or if the file is not a socket.
ats::result<> remove_stale(const std::string& path, const sockaddr_un& address, const std::string& option)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) return {};
    if (!S_ISSOCK(status.st_mode))
        return ats::fail(error_kind::invalid, path + " exists and is not a socket" + choose_another(option));
    const ats::result<descriptor> probe = new_socket();
    if (!probe) return ats::pass_on(probe);
    if (connects(*probe, address)) return service_exists(path, option);
    if (errno == EACCES)
        return ats::fail(error_kind::invalid, path + " belongs to another user" + choose_another(option));
    if (errno == ECONNREFUSED && (unlink(path.c_str()) == 0 || errno == ENOENT)) return {};
    return ats::fail(error_kind::invalid,
                     "cannot take over the stale socket " + path + errno_text() + choose_another(option));
}

// Creates the socket file and listens. The file has mode 0600 from the start, because Linux takes the mode of the file
// from the unbound socket. Returns false on failure; errno has the reason.
bool listens_privately(const descriptor& socket, const sockaddr_un& address)
{
    return fchmod(socket.get(), 0600) == 0 &&
           bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
           listen(socket.get(), SOMAXCONN) == 0;
}

// Returns true if the path `file` still names the open file. If it does not, the process that held the lock before has
// removed the file, and another service may have created a new file at this path.
bool is_named(const descriptor& open_file, const std::string& file)
{
    struct stat open_status = {};
    struct stat named_status = {};
    return fstat(open_file.get(), &open_status) == 0 && stat(file.c_str(), &named_status) == 0 &&
           open_status.st_dev == named_status.st_dev && open_status.st_ino == named_status.st_ino;
}

// Opens and locks `file`, the lock file of the socket at `path`.
ats::result<descriptor> locked_file(const std::string& path, const std::string& file, const std::string& option)
{
    while (true) {
        descriptor lock(open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (lock.get() < 0)
            return ats::fail(error_kind::invalid, "cannot create " + file + errno_text() + choose_another(option));
        if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno == EWOULDBLOCK) return service_exists(path, option);
            return ats::fail(error_kind::invalid, "cannot lock " + file + errno_text() + choose_another(option));
        }
        if (is_named(lock, file)) return lock;
    }
}

bool writes_whole(const descriptor& file, const std::string& text)
{
    return ftruncate(file.get(), 0) == 0 &&
           write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

} // namespace

ats::result<socket_state> state_of_socket(const std::string& path)
{
    const ats::result<sockaddr_un> address = socket_address(path);
    if (!address) return ats::pass_on(address);
    const ats::result<descriptor> probe = new_socket(SOCK_NONBLOCK);
    if (!probe) return ats::pass_on(probe);
    // EAGAIN: a process listens, but does not accept, and its queue of connections is full.
    if (connects(*probe, *address) || errno == EAGAIN) return socket_state::live;
    if (errno == ECONNREFUSED) return socket_state::stale;
    return ats::fail("cannot connect to " + path + errno_text());
}

ats::result<path_lock> path_lock::acquire(const std::string& path, const std::string& option)
{
    const std::string file = lock_file_of(path);
    ats::result<descriptor> descriptor_of_lock = locked_file(path, file, option);
    if (!descriptor_of_lock) return ats::pass_on(descriptor_of_lock);
    path_lock lock(file, std::move(*descriptor_of_lock));
    if (writes_whole(lock.lock_, origin_of_this_process())) return lock;
    return ats::fail("cannot write " + file + errno_text());
}

path_lock::~path_lock()
{
    if (lock_.get() >= 0) unlink(file_.c_str()); // an object that was moved from has no descriptor
}

ats::result<std::unique_ptr<listening_socket>> listening_socket::open(const std::string& path, bool is_for_all,
                                                                      const std::string& option)
{
    const ats::result<sockaddr_un> address = socket_address(path);
    if (!address) return ats::pass_on(address);
    ats::result<path_lock> lock = path_lock::acquire(path, option);
    if (!lock) return ats::pass_on(lock);
    if (const ats::result<> removal = remove_stale(path, *address, option); !removal) return ats::pass_on(removal);
    ats::result<descriptor> socket = new_socket();
    if (!socket) return ats::pass_on(socket);
    if (!listens_privately(*socket, *address))
        return ats::fail(error_kind::invalid,
                         "cannot create the socket " + path + errno_text() + choose_another(option));
    std::unique_ptr<listening_socket> new_listener(new listening_socket(path, std::move(*lock), std::move(*socket)));
    if (is_for_all)
        if (const ats::result<> permission = new_listener->set_for_all(true); !permission)
            return ats::pass_on(permission);
    return new_listener;
}

ats::result<std::unique_ptr<listening_socket>> listening_socket::adopt(const std::string& path, descriptor socket)
{
    ats::result<path_lock> lock = path_lock::acquire(path);
    if (!lock) return ats::pass_on(lock);
    sockaddr_un bound_address{};
    socklen_t size = sizeof bound_address;
    struct stat status = {};
    const bool is_at_path = getsockname(socket.get(), reinterpret_cast<sockaddr*>(&bound_address), &size) == 0 &&
                            path == bound_address.sun_path && lstat(path.c_str(), &status) == 0 &&
                            S_ISSOCK(status.st_mode);
    if (!is_at_path) return ats::fail("the socket that an earlier process left is not the one at " + path);
    return std::unique_ptr<listening_socket>(new listening_socket(path, std::move(*lock), std::move(socket)));
}

listening_socket::listening_socket(std::string path, path_lock lock, descriptor socket)
    : path_(std::move(path)), lock_(std::move(lock)), socket_(std::move(socket)), file_(identity_of(path_))
{
}

// Removes the file before the members release the socket and the lock. After that, the file may belong to another
// service.
listening_socket::~listening_socket()
{
    if (is_in_place()) unlink(path_.c_str());
}

std::optional<listening_socket::file_identity> listening_socket::identity_of(const std::string& path)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) return std::nullopt;
    return file_identity{status.st_dev, status.st_ino};
}

bool listening_socket::is_in_place() const
{
    const std::lock_guard lock(mutex_);
    return file_ && identity_of(path_) == file_;
}

ats::result<> listening_socket::restore()
{
    const std::lock_guard lock(mutex_);
    if (identity_of(path_)) return ats::fail(path_ + " is another file now: remove it");
    const ats::result<sockaddr_un> address = socket_address(path_);
    if (!address) return ats::pass_on(address);
    ats::result<descriptor> socket = new_socket();
    if (!socket) return ats::pass_on(socket);
    if (!listens_privately(*socket, *address)) return ats::fail("cannot create the socket " + path_ + errno_text());
    socket_ = std::move(*socket);
    file_ = identity_of(path_);
    return give_permissions();
}

ats::result<> listening_socket::set_for_all(bool is_for_all)
{
    const std::lock_guard lock(mutex_);
    is_for_all_ = is_for_all;
    return give_permissions();
}

ats::result<> listening_socket::give_permissions()
{
    constexpr mode_t everyone = 0666; // safe, because the service asks the kernel for the user of each client
    constexpr mode_t owner = 0600;
    if (chmod(path_.c_str(), is_for_all_ ? everyone : owner) == 0) return {};
    return ats::fail("cannot " + std::string(is_for_all_ ? "open the socket " : "close the socket ") + path_ +
                     " to other users" + errno_text());
}

descriptor listening_socket::duplicate() const
{
    const std::lock_guard lock(mutex_);
    return descriptor(fcntl(socket_.get(), F_DUPFD_CLOEXEC, 0));
}

} // namespace cli
