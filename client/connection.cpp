#include "client/connection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "client/socket-path.h"

namespace client
{

namespace
{

// Frees the memory of an empty buffer, if the memory is large.
void shrink(std::string& buffer)
{
    constexpr size_t usual_size = size_t{1} << 18;
    if (buffer.capacity() > usual_size) std::string().swap(buffer);
}

// Returns what an error number of socket(2) or connect(2) means for the attempt to connect.
connection::attempt attempt_of(int number)
{
    switch (number) {
    case EAGAIN:
    case EINTR:
        return connection::attempt::busy;
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
        return connection::attempt::failed;
    case EACCES:
        return connection::attempt::foreign;
    default:
        return connection::attempt::nobody;
    }
}

std::string foreign_service(const std::string& path)
{
    return "the service on " + path + " belongs to another user: start your own with 'ats run'";
}

} // namespace

connection::attempt connection::open(const std::string& path, std::string& error)
{
    const auto refuse = [&](int number) {
        const attempt result = attempt_of(number);
        error = "no service on " + path + ": " + std::strerror(number);
        if (result == attempt::foreign) error = foreign_service(path);
        if (result == attempt::failed) error = std::string("cannot make a socket: ") + std::strerror(number);
        return result;
    };
    descriptor new_socket(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!new_socket.is_open()) return refuse(errno);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(new_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return refuse(errno);
    if (!is_trusted_service(new_socket.get(), path)) {
        error = foreign_service(path);
        return attempt::foreign;
    }
    const int flags = fcntl(new_socket.get(), F_GETFL);
    fcntl(new_socket.get(), F_SETFL, flags & ~O_NONBLOCK); // from here on, recv(2) may block; see wait()
    close();
    socket_ = std::move(new_socket);
    return attempt::connected;
}

void connection::close()
{
    socket_.reset();
    receive_limit_ = {};
    output_.clear();
    input_.clear();
    shrink(output_);
    shrink(input_);
    sent_bytes_ = read_bytes_ = scanned_bytes_ = byte_count_ = 0;
}

void connection::hang_up() const
{
    shutdown(socket_.get(), SHUT_RDWR);
}

bool connection::send(std::string_view bytes)
{
    if (unsent_bytes() > 0) {
        output_ += bytes;
        return flush();
    }
    const ssize_t count = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count < 0 && errno != EAGAIN && errno != EINTR) return false;
    output_ += bytes.substr(static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return true;
}

bool connection::flush()
{
    while (unsent_bytes() > 0) {
        const ssize_t count =
            ::send(socket_.get(), output_.data() + sent_bytes_, unsent_bytes(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno == EAGAIN;
        sent_bytes_ += static_cast<size_t>(count);
    }
    output_.clear();
    sent_bytes_ = 0;
    return true;
}

// Limits the time for which recv(2) blocks. If the limit is almost the same as before, does not set the socket option
// again: this saves a system call for each question.
void connection::limit_receiving(std::chrono::microseconds time)
{
    using namespace std::chrono;
    if (receive_limit_.count() > 0 && abs(time - receive_limit_) < milliseconds(2)) return;
    const timeval limit{time.count() / 1'000'000, time.count() % 1'000'000};
    setsockopt(socket_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    receive_limit_ = time;
}

// Calls recv(2) once, and stores the received bytes in bytes_.
connection::outcome connection::receive(int flags)
{
    const ssize_t count = recv(socket_.get(), bytes_.data(), bytes_.size(), flags);
    if (count > 0) {
        byte_count_ = static_cast<size_t>(count);
        return outcome::input;
    }
    return count < 0 && (errno == EAGAIN || errno == EINTR) ? outcome::nothing : outcome::gone;
}

connection::outcome connection::wait(clock::time_point deadline, bool until_writable)
{
    using namespace std::chrono;
    constexpr microseconds longest = hours(1);
    const auto now = clock::now();
    if (deadline <= now) return receive(MSG_DONTWAIT);
    const auto time = std::clamp<microseconds>(duration_cast<microseconds>(deadline - now), milliseconds(1), longest);
    if (until_writable) {
        pollfd events{socket_.get(), POLLIN | POLLOUT, 0};
        poll(&events, 1, static_cast<int>(duration_cast<milliseconds>(time).count()));
        return receive(MSG_DONTWAIT);
    }
    limit_receiving(time);
    return receive(0);
}

void connection::take_bytes()
{
    if (read_bytes_ > 0) {
        input_.erase(0, read_bytes_);
        scanned_bytes_ -= read_bytes_;
        read_bytes_ = 0;
    }
    input_.append(bytes_.data(), byte_count_);
    byte_count_ = 0;
}

bool connection::next_line(std::string_view& line)
{
    const size_t end = input_.find('\n', std::max(read_bytes_, scanned_bytes_));
    if (end == std::string::npos) {
        scanned_bytes_ = input_.size();
        return false;
    }
    line = std::string_view(input_).substr(read_bytes_, end - read_bytes_);
    read_bytes_ = scanned_bytes_ = end + 1;
    return true;
}

} // namespace client
