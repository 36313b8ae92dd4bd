#include "host/fabric/umad/device.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

#include "host/fabric/umad/self-query.h"

namespace umad
{

namespace
{

// The time for which the kernel remembers a request. The kernel delivers an answer only during this time, so the time
// is a little longer than senders wait for an answer by default.
constexpr int answer_time_ms = 2500;
constexpr int no_retries = 0; // senders repeat their requests themselves

// The longest wait() if wake() cannot end it.
constexpr uint64_t short_wait_ms = 100;

std::string read_line(const std::string& path)
{
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return "";
    char text[64] = {};
    const ssize_t length = ::read(file, text, sizeof text - 1);
    ::close(file);
    return length > 0 ? std::string(text, strcspn(text, "\n")) : "";
}

} // namespace

std::string device_file(const std::string& hca, int port)
{
    for (int i = 0; i < UMAD_MAX_PORTS; ++i) {
        const std::string name = "umad" + std::to_string(i);
        const std::string folder = SYS_INFINIBAND_MAD "/" + name + "/";
        if (read_line(folder + SYS_IB_MAD_DEV) == hca && read_line(folder + SYS_IB_MAD_PORT) == std::to_string(port))
            return "/dev/infiniband/" + name;
    }
    return "";
}

std::string open_error_text(const std::string& hca, int port, int error_number)
{
    const std::string name = hca + " port " + std::to_string(port);
    const std::string file = device_file(hca, port);
    if (file.empty()) return name + " has no management device: load ib_umad ('modprobe ib_umad')";
    if (error_number == EACCES || error_number == EPERM)
        return name + ": no permission for " + file + ": run as root, or give your group the file (a udev rule)";
    return name + ": cannot open " + file + ": " + std::strerror(error_number);
}

device::device(std::string hca, int port)
    : hca_(std::move(hca)), port_(port), wakeup_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
}

device::~device()
{
    close();
    if (wakeup_ >= 0) ::close(wakeup_);
}

ats::result<> device::open()
{
    const std::lock_guard lock(send_mutex_);
    errno = 0;
    const int descriptor = umad_open_port(hca_.c_str(), port_);
    if (descriptor < 0) return ats::fail(open_error_text(hca_, port_, errno));
    descriptor_ = descriptor;
    poll_descriptor_ = umad_get_fd(descriptor);
    is_broken_ = false;
    sa_agent_ = register_client(MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM);
    if (sa_agent_ < 0) {
        const std::string reason = std::strerror(errno);
        close_port();
        return ats::fail(hca_ + " port " + std::to_string(port_) + " accepts no client of the SA: " + reason);
    }
    self_agent_ = register_client(class_directed_route, class_version_smp);

    // ibsim replaces poll() with a function that ignores the second descriptor. Then wake() cannot end a wait(), and
    // all waits must be short. Test this with a wake-up and a poll().
    wake();
    pollfd descriptors[] = {{poll_descriptor_, POLLIN, 0}, {wakeup_, POLLIN, 0}};
    sees_wakeup_ = ::poll(descriptors, 2, 0) > 0 && descriptors[1].revents != 0;
    return {};
}

int device::register_client(uint8_t mgt_class, uint8_t class_version)
{
    constexpr uint8_t no_rmpp = 0;
    return umad_register(descriptor_, mgt_class, class_version, no_rmpp, nullptr);
}

void device::close()
{
    const std::lock_guard lock(send_mutex_);
    if (descriptor_ < 0) return;
    for (int* agent : {&sa_agent_, &self_agent_}) {
        if (*agent >= 0) umad_unregister(descriptor_, *agent);
        *agent = -1;
    }
    close_port();
}

void device::close_port()
{
    poll_descriptor_ = -1; // poll() ignores -1, but not a descriptor that is closed or used for another file
    umad_close_port(descriptor_);
    descriptor_ = -1;
}

bool device::send(client sender, packet& packet)
{
    const std::lock_guard lock(send_mutex_);
    const int agent = sender == client::sa ? sa_agent_ : self_agent_;
    if (agent < 0) return false;
    return umad_send(descriptor_, agent, packet.bytes(), sizeof(fabric::mad_bytes), answer_time_ms, no_retries) == 0;
}

void device::wait(uint64_t limit_ms)
{
    pollfd descriptors[] = {{poll_descriptor_, POLLIN, 0}, {wakeup_, POLLIN, 0}};
    if (!sees_wakeup_) limit_ms = std::min(limit_ms, short_wait_ms);
    const int ready = ::poll(descriptors, 2, static_cast<int>(limit_ms));
    // If poll() fails again and again, the sleep avoids a busy loop.
    if (ready < 0 && errno != EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (ready > 0 && (descriptors[0].revents & (POLLERR | POLLHUP | POLLNVAL))) is_broken_ = true;
    uint64_t wakeups;
    if (ready > 0 && descriptors[1].revents != 0 && ::read(wakeup_, &wakeups, sizeof wakeups) < 0 && errno != EAGAIN)
        sees_wakeup_ = false;
}

device::arrival device::receive(packet& packet)
{
    if (is_broken_) return arrival::gone;
    constexpr int no_wait = 0;
    int length = sizeof(fabric::mad_bytes);
    const int agent = umad_recv(descriptor_, packet.bytes(), &length, no_wait);
    if (agent == -EWOULDBLOCK || (agent < 0 && (errno == EWOULDBLOCK || errno == EINTR))) return arrival::nothing;
    if (agent < 0) return arrival::gone;
    packet.receiver = agent == self_agent_ ? client::self : client::sa;
    packet.length = std::clamp(length, 0, static_cast<int>(sizeof(fabric::mad_bytes)));
    std::fill(packet.mad().begin() + packet.length, packet.mad().end(), uint8_t{0});
    return umad_status(packet.bytes()) != 0 ? arrival::returned : arrival::datagram;
}

void device::wake()
{
    const uint64_t one = 1;
    // The write fails only if the counter of wake-ups is full. Then wait() ends anyway.
    [[maybe_unused]] const ssize_t written = ::write(wakeup_, &one, sizeof one);
}

} // namespace umad
