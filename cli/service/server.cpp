#include "cli/service/server.h"

#include <condition_variable>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "cli/service/requests.h"
#include "console/failure.h"
#include "console/log-filter.h"
#include "host/exec/shortage.h"

namespace cli
{

namespace
{

// A line of the protocol. What modules print may be no UTF-8; then it is made to be some.
std::string line_of(const json& answer)
{
    constexpr int on_one_line = -1;
    return answer.dump(on_one_line, ' ', false, json::error_handler_t::replace);
}

// Runs `answer`; what goes wrong in it becomes a refusal.
template <class answer_t>
json answer_or_refusal(const answer_t& answer)
{
    try {
        return answer();
    } catch (const console::failure& wrong) {
        return {{"error", wrong.what()}, {"exit_code", int{wrong.code}}};
    } catch (const json::exception& wrong) {
        return {{"error", std::string("the request is malformed: ") + wrong.what()},
                {"exit_code", int{console::exit_usage}}};
    } catch (const std::exception& wrong) {
        return {{"error", wrong.what()}, {"exit_code", int{console::exit_failed}}};
    }
}

bool client_is_gone(int fd)
{
    pollfd wait{fd, POLLRDHUP, 0};
    return poll(&wait, 1, 0) > 0;
}

// Hears of a log's lines as long as it lives.
class follower
{
  public:
    follower(kernel::log& log, std::function<void(const kernel::log_line&)> seen)
        : log_(log), handle_(log.follow(std::move(seen)))
    {
    }
    ~follower() { log_.unfollow(handle_); }
    follower(const follower&) = delete;
    follower& operator=(const follower&) = delete;

  private:
    kernel::log& log_;
    const int handle_;
};

struct log_request {
    kernel::log& log;
    int level;
    bool follow;
};

// Sends a log line by line, and with `follow` goes on until the client leaves.
void stream_log(const log_request& wanted, line_channel& to)
{
    // A follower only rings: it runs in printing contexts, which must not wait for a slow client.
    std::mutex mutex;
    std::condition_variable rung;
    bool news = true;
    const follower rings(wanted.log, [&](const kernel::log_line&) {
        const std::lock_guard lock(mutex);
        news = true;
        rung.notify_one();
    });

    constexpr size_t lines_at_once = 256;
    constexpr std::chrono::milliseconds look_for_hangup(200);
    uint64_t next = 0;
    bool connected = true;
    while (connected) {
        uint64_t dropped = 0;
        const std::vector<kernel::log_line> lines = wanted.log.lines_from(next, lines_at_once, &next, &dropped);
        if (dropped > 0) connected = to.write(line_of({{"dropped", dropped}}));
        for (const kernel::log_line& line : lines)
            if (connected && console::trace_level_of(line.text) <= wanted.level)
                connected = to.write(line_of({{"tick", line.tick}, {"line", kernel::format_line(line)}}));
        if (!lines.empty()) continue;
        if (!wanted.follow) break;
        std::unique_lock lock(mutex);
        rung.wait_for(lock, look_for_hangup, [&] { return news; });
        news = false;
        connected = !client_is_gone(to.fd());
    }
}

json answer_log(running_hosts& hosts, const json& request, line_channel& to)
{
    const log_request wanted{hosts.named(request.value("host", "")).machine().log,
                             request.value("level", console::trace_level_everything), request.value("follow", false)};
    stream_log(wanted, to);
    return {{"end", true}};
}

json answer(running_hosts& hosts, const std::string& line, line_channel& to)
{
    const json request = json::parse(line, nullptr, false);
    if (!request.is_object()) throw console::failure(console::exit_usage, "a request is one JSON object on a line");
    if (request.value("request", "") == "log") return answer_log(hosts, request, to);
    return answer_request(hosts, request);
}

} // namespace

server::server(running_hosts& hosts, std::unique_ptr<listening_socket> listening)
    : hosts_(hosts), listening_(std::move(listening))
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw console::failure(console::exit_failed, "cannot make a pipe: too many open files?");
    stop_read_ = descriptor(ends[0]);
    stop_write_ = descriptor(ends[1]);
    acceptor_ = exec::new_thread([this] { accept_clients(); });
}

server::~server()
{
    stop_write_ = descriptor(); // the acceptor sees the pipe's end
    acceptor_.join();
    const std::lock_guard lock(mutex_);
    for (conversation& with : conversations_) with.channel.hang_up();
    for (conversation& with : conversations_) with.thread.join();
}

void server::accept_clients()
{
    while (std::optional<descriptor> client = listening_->accept_client(stop_read_.get())) {
        reap();
        if (client->get() < 0) continue;
        const std::lock_guard lock(mutex_);
        conversation& with = conversations_.emplace_back(std::move(*client));
        try {
            with.thread = std::thread([this, &with] { converse(with); });
        } catch (const std::system_error&) { // no more threads: this client is hung up on, the others go on
            conversations_.pop_back();
        }
    }
}

void server::reap()
{
    const std::lock_guard lock(mutex_);
    conversations_.remove_if([](conversation& with) {
        if (!with.over) return false;
        with.thread.join();
        return true;
    });
}

void server::converse(conversation& with)
{
    bool connected = true;
    while (connected) {
        const std::optional<std::string> line = with.channel.read();
        if (!line) break;
        const json said = answer_or_refusal([&] { return answer(hosts_, *line, with.channel); });
        connected = with.channel.write(line_of(said));
    }
    with.channel.hang_up();
    with.over = true;
}

} // namespace cli
