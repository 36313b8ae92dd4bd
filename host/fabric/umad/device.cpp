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
#include <utility>

#include "host/fabric/umad/self-query.h"

namespace umad
{

namespace
{

// What MADs wait for their answer in the kernel: a little longer than anybody above waits. Not 0: the kernel hands an
// answer up only while its request is waiting. It resends nothing, because everybody above has time-outs of his own.
constexpr int answer_time_ms = 2500;
constexpr int no_retries = 0;

// How long a wait lasts where wake() cannot end it.
constexpr uint64_t deaf_wait_ms = 100;

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
        const std::string described = SYS_INFINIBAND_MAD "/" + name + "/";
        if (read_line(described + SYS_IB_MAD_DEV) == hca &&
            read_line(described + SYS_IB_MAD_PORT) == std::to_string(port))
            return "/dev/infiniband/" + name;
    }
    return "";
}

std::string why_not_opened(const std::string& hca, int port, int reason)
{
    const std::string called = hca + " port " + std::to_string(port);
    const std::string file = device_file(hca, port);
    if (file.empty()) return called + " has no management device: load ib_umad ('modprobe ib_umad')";
    if (reason == EACCES || reason == EPERM)
        return called + ": no permission for " + file + ": run as root, or give your group the file (a udev rule)";
    return called + ": cannot open " + file + ": " + std::strerror(reason);
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

std::string device::open()
{
    const std::string called = hca_ + " port " + std::to_string(port_);
    const std::lock_guard lock(sending_);
    errno = 0;
    const int opened = umad_open_port(hca_.c_str(), port_);
    if (opened < 0) return why_not_opened(hca_, port_, errno);
    descriptor_ = opened;
    poll_descriptor_ = umad_get_fd(opened);
    is_broken_ = false;
    sa_agent_ = register_client(MAD_CLASS_SUBN_ADM, MAD_CLASS_VERSION_SUBN_ADM);
    if (sa_agent_ < 0) {
        const std::string why = std::strerror(errno);
        close_port();
        return called + " lets nobody talk to the SA through it: " + why;
    }
    self_agent_ = register_client(class_directed_route, class_version_smp);

    // ibsim's poll looks at one descriptor of its own and at no other. Where that is so, waits must be short.
    wake();
    pollfd both[] = {{poll_descriptor_, POLLIN, 0}, {wakeup_, POLLIN, 0}};
    sees_wakeup_ = ::poll(both, 2, 0) > 0 && both[1].revents != 0;
    return "";
}

int device::register_client(uint8_t mgt_class, uint8_t class_version)
{
    constexpr uint8_t no_rmpp = 0;
    return umad_register(descriptor_, mgt_class, class_version, no_rmpp, nullptr);
}

void device::close()
{
    const std::lock_guard lock(sending_);
    if (descriptor_ < 0) return;
    for (int* agent : {&sa_agent_, &self_agent_})
        if (*agent >= 0) umad_unregister(descriptor_, std::exchange(*agent, -1));
    close_port();
}

// A poll of a descriptor that is closed, or is another file's by now, would return at once.
void device::close_port()
{
    poll_descriptor_ = -1;
    umad_close_port(std::exchange(descriptor_, -1));
}

bool device::send(client from, packet& leaving)
{
    const std::lock_guard lock(sending_);
    const int agent = from == client::sa ? sa_agent_ : self_agent_;
    if (agent < 0) return false;
    return umad_send(descriptor_, agent, leaving.bytes(), sizeof(fabric::mad_bytes), answer_time_ms, no_retries) == 0;
}

void device::wait(uint64_t longest_ms)
{
    pollfd both[] = {{poll_descriptor_, POLLIN, 0}, {wakeup_, POLLIN, 0}};
    if (!sees_wakeup_) longest_ms = std::min(longest_ms, deaf_wait_ms);
    const int ready = ::poll(both, 2, static_cast<int>(longest_ms));
    // Nothing is known to make a poll of two good descriptors fail for long; it must not become a spin all the same.
    if (ready < 0 && errno != EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (ready > 0 && (both[0].revents & (POLLERR | POLLHUP | POLLNVAL))) is_broken_ = true;
    uint64_t wakeups;
    if (ready > 0 && both[1].revents != 0 && ::read(wakeup_, &wakeups, sizeof wakeups) < 0 && errno != EAGAIN)
        sees_wakeup_ = false;
}

device::outcome device::receive(packet& arrived)
{
    if (is_broken_) return outcome::gone;
    constexpr int no_wait = 0;
    int length = sizeof(fabric::mad_bytes);
    const int agent = umad_recv(descriptor_, arrived.bytes(), &length, no_wait);
    if (agent == -EWOULDBLOCK || (agent < 0 && (errno == EWOULDBLOCK || errno == EINTR))) return outcome::nothing;
    if (agent < 0) return outcome::gone;
    arrived.to = agent == self_agent_ ? client::self : client::sa;
    arrived.length = std::clamp(length, 0, static_cast<int>(sizeof(fabric::mad_bytes)));
    std::fill(arrived.mad().begin() + arrived.length, arrived.mad().end(), uint8_t{0});
    return umad_status(arrived.bytes()) != 0 ? outcome::returned : outcome::datagram;
}

void device::wake()
{
    const uint64_t once = 1;
    // Fails only when wake-ups have piled up to the limit, and one of them is enough.
    [[maybe_unused]] const ssize_t written = ::write(wakeup_, &once, sizeof once);
}

} // namespace umad
