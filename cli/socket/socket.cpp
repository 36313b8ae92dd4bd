#include "cli/socket/socket.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "cli/socket/service-origin.h"
#include "console/failure.h"

namespace cli
{

namespace
{

constexpr const char* choose_another = ": choose another path with --socket";

std::string reason()
{
    return std::string(": ") + std::strerror(errno);
}

sockaddr_un socket_address(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        throw console::failure(console::exit_usage, "a socket's path has 1 to " +
                                                        std::to_string(sizeof address.sun_path - 1) +
                                                        " bytes: " + console::quote(path) + " cannot be one");
    path.copy(address.sun_path, path.size());
    return address;
}

descriptor new_socket()
{
    descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (made.get() < 0) throw console::failure(console::exit_failed, "cannot make a socket" + reason());
    return made;
}

bool connects(const descriptor& to, const sockaddr_un& address)
{
    return connect(to.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

[[noreturn]] void refuse_live(const std::string& path)
{
    throw console::failure(console::exit_usage, "a service is listening on " + path +
                                                    " already: stop it, or choose another path with --socket");
}

// A service that ended without cleaning up leaves its socket file behind; nobody answers there.
void remove_stale(const std::string& path, const sockaddr_un& address)
{
    struct stat found {
    };
    if (lstat(path.c_str(), &found) != 0) return;
    if (!S_ISSOCK(found.st_mode))
        throw console::failure(console::exit_usage, path + " exists and is no socket" + choose_another);
    if (connects(new_socket(), address)) refuse_live(path);
    if (errno == EACCES)
        throw console::failure(console::exit_usage, path + " belongs to another user" + choose_another);
    if (errno != ECONNREFUSED || (unlink(path.c_str()) != 0 && errno != ENOENT))
        throw console::failure(console::exit_usage,
                               "cannot take over the stale socket " + path + reason() + choose_another);
}

// Whether the process at the other end is of this user or of root.
bool is_trusted(const descriptor& connected)
{
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(connected.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
    return peer.uid == geteuid() || peer.uid == 0;
}

// Its value; nothing when it is unset or empty.
const char* variable(const char* name)
{
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : nullptr;
}

// Calls on this socket that send, connect() among them, give up after that long.
void limit_sending(const descriptor& socket, std::chrono::milliseconds patience)
{
    using namespace std::chrono;
    const auto whole = duration_cast<seconds>(patience);
    const timeval limit{whole.count(), duration_cast<microseconds>(patience - whole).count()};
    setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
}

std::string seconds_text(std::chrono::milliseconds time)
{
    char text[32];
    std::snprintf(text, sizeof text, "%g s", static_cast<double>(time.count()) / 1000);
    return text;
}

[[noreturn]] void refuse_foreign(const std::string& path)
{
    throw console::failure(console::exit_unreachable,
                           "the service on " + path + " belongs to another user: start your own with 'ats run'");
}

} // namespace

descriptor::~descriptor()
{
    if (fd_ >= 0) close(fd_);
}

descriptor& descriptor::operator=(descriptor&& other) noexcept
{
    if (this != &other) {
        if (fd_ >= 0) close(fd_);
        fd_ = other.release();
    }
    return *this;
}

int descriptor::release()
{
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

std::string default_socket_path()
{
    if (const char* chosen = variable("ATS_SOCKET")) return chosen;
    if (geteuid() == 0) return socket_of_root;
    if (const char* runtime = variable("XDG_RUNTIME_DIR")) return std::string(runtime) + "/ats.sock";
    return "/tmp/ats-" + std::to_string(geteuid()) + ".sock";
}

path_lock::path_lock(const std::string& path) : file_(lock_file_of(path))
{
    struct stat locked {
    }, named{};
    do {
        held_ = descriptor(open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        if (held_.get() < 0)
            throw console::failure(console::exit_usage, "cannot create " + file_ + reason() + choose_another);
        if (flock(held_.get(), LOCK_EX | LOCK_NB) != 0) {
            if (errno == EWOULDBLOCK) refuse_live(path);
            throw console::failure(console::exit_usage, "cannot lock " + file_ + reason() + choose_another);
        }
        // Its last owner may have removed the file meanwhile, and another stands there now.
    } while (fstat(held_.get(), &locked) != 0 || stat(file_.c_str(), &named) != 0 || locked.st_ino != named.st_ino);

    const std::string origin = origin_of_this_process();
    if (ftruncate(held_.get(), 0) != 0 ||
        write(held_.get(), origin.data(), origin.size()) != static_cast<ssize_t>(origin.size())) {
        const std::string why = reason();
        unlink(file_.c_str());
        throw console::failure(console::exit_failed, "cannot write " + file_ + why);
    }
}

path_lock::~path_lock()
{
    unlink(file_.c_str());
}

listening_socket::listening_socket(const std::string& path) : path_(socket_address(path).sun_path), lock_(path_)
{
    const sockaddr_un address = socket_address(path);
    remove_stale(path, address);

    socket_ = new_socket();
    const mode_t previous = umask(0177); // 0600 from the first moment on
    const int bound = bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int bind_error = errno;
    umask(previous);
    errno = bind_error;
    if (bound != 0)
        throw console::failure(console::exit_usage, "cannot create the socket " + path + reason() + choose_another);
    if (listen(socket_.get(), SOMAXCONN) != 0)
        throw console::failure(console::exit_failed, "cannot listen on " + path + reason());
}

// The file goes first: once nobody listens, another service may put its own there.
listening_socket::~listening_socket()
{
    unlink(path_.c_str());
}

std::optional<descriptor> listening_socket::accept_client(int stop_fd) const
{
    constexpr int pause_ms = 100;
    while (true) {
        pollfd waits[] = {{socket_.get(), POLLIN, 0}, {stop_fd, POLLIN, 0}};
        if (poll(waits, 2, -1) < 0) continue; // interrupted
        if (waits[1].revents != 0) return std::nullopt;
        descriptor client(accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (client.get() < 0) {
            if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) continue;
            poll(&waits[1], 1, pause_ms);
            return client;
        }
        if (is_trusted(client)) return client;
        line_channel(std::move(client)).write(R"({"error":"this service belongs to another user","exit_code":3})");
    }
}

console::failure no_sign_of_life(const std::string& path, std::chrono::milliseconds patience)
{
    return {console::exit_unreachable, "the service on " + path + " gives no sign of life for " +
                                           seconds_text(patience) + ": " + how_to_wake(path)};
}

descriptor connect_to(const std::string& path, std::chrono::milliseconds patience)
{
    descriptor made = new_socket();
    if (patience != no_limit) limit_sending(made, patience);
    if (connects(made, socket_address(path))) {
        // Root may look at everybody's; nobody else believes what a stranger's process says.
        if (geteuid() != 0 && !is_trusted(made)) refuse_foreign(path);
        return made;
    }
    if (errno == EACCES) refuse_foreign(path);
    if (errno == EAGAIN) throw no_sign_of_life(path, patience);
    const std::string why = reason();
    throw console::failure(console::exit_unreachable, "no service on " + path + why + " (" + how_to_start(path) + ")");
}

std::optional<std::string> line_channel::read()
{
    std::string line;
    if (read(line, no_limit) == outcome::line) return line;
    return std::nullopt;
}

line_channel::outcome line_channel::read(std::string& line, std::chrono::milliseconds patience)
{
    while (true) {
        if (const size_t end = unread_.find('\n'); end != std::string::npos) {
            line = unread_.substr(0, end);
            unread_.erase(0, end + 1);
            return outcome::line;
        }
        if (unread_.size() > line_limit) return outcome::gone;
        pollfd wait{socket_.get(), POLLIN, 0};
        const int ready = poll(&wait, 1, static_cast<int>(patience.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready == 0) return outcome::silent;
        char piece[4096];
        const ssize_t got = recv(socket_.get(), piece, sizeof piece, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return outcome::gone;
        unread_.append(piece, static_cast<size_t>(got));
    }
}

bool line_channel::write(const std::string& line)
{
    const std::string whole = line + '\n';
    for (size_t sent = 0; sent < whole.size();) {
        const ssize_t took = send(socket_.get(), whole.data() + sent, whole.size() - sent, MSG_NOSIGNAL);
        if (took < 0 && errno == EINTR) continue;
        if (took <= 0) return false;
        sent += static_cast<size_t>(took);
    }
    return true;
}

void line_channel::hang_up()
{
    shutdown(socket_.get(), SHUT_RDWR);
}

} // namespace cli
