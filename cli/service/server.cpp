#include "cli/service/server.h"

#include <condition_variable>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "cli/service/requests.h"
#include "console/errors.h"
#include "console/log-filter.h"
#include "host/exec/shortage.h"

namespace cli
{

namespace
{

using ats::error_kind;

// A line of the protocol. Modules may print bytes that are not UTF-8; those are replaced.
std::string line_of(const json& answer)
{
    constexpr int on_one_line = -1;
    return answer.dump(on_one_line, ' ', false, json::error_handler_t::replace);
}

json refusal(const ats::error& error)
{
    return {{"error", error.text}, {"exit_code", int{console::exit_code_of(error.kind)}}};
}

bool client_is_gone(int fd)
{
    pollfd wait{fd, POLLRDHUP, 0};
    return poll(&wait, 1, 0) > 0;
}

// Calls `on_line` for every new line of a log, as long as this lives.
class follower
{
  public:
    follower(kernel::log& log, std::function<void(const kernel::log_line&)> on_line)
        : log_(log), handle_(log.follow(std::move(on_line)))
    {
    }
    ~follower() { log_.unfollow(handle_); }
    follower(const follower&) = delete;
    follower& operator=(const follower&) = delete;

  private:
    kernel::log& log_;
    const int handle_;
};

// Sends the lines of at most `level`. With `follow` it goes on until the client leaves.
void stream_log(kernel::log& log, int level, bool follow, line_channel& channel)
{
    // The follower only rings: it runs in printing contexts, which must not wait for a slow client.
    std::mutex mutex;
    std::condition_variable bell;
    bool has_news = true;
    const follower follower(log, [&](const kernel::log_line&) {
        const std::lock_guard lock(mutex);
        has_news = true;
        bell.notify_one();
    });

    constexpr size_t lines_at_once = 256;
    constexpr std::chrono::milliseconds hangup_check_interval(200);
    uint64_t next_line = 0;
    bool is_connected = true;
    while (is_connected) {
        uint64_t dropped_lines = 0;
        const std::vector<kernel::log_line> lines =
            log.lines_from(next_line, lines_at_once, &next_line, &dropped_lines);
        if (dropped_lines > 0) is_connected = channel.write(line_of({{"dropped", dropped_lines}}));
        for (const kernel::log_line& line : lines)
            if (is_connected && console::trace_level_of(line.text) <= level)
                is_connected = channel.write(line_of({{"tick", line.tick}, {"line", kernel::format_line(line)}}));
        if (!lines.empty()) continue;
        if (!follow) break;
        std::unique_lock lock(mutex);
        bell.wait_for(lock, hangup_check_interval, [&] { return has_news; });
        has_news = false;
        is_connected = !client_is_gone(channel.fd());
    }
}

// {"host", "level", "follow"}: many lines, then {"end"}.
ats::result<json> answer_log(running_hosts& hosts, const json& request, line_channel& channel)
{
    const ats::result<world::host*> host = find_host(hosts, request);
    if (!host) return ats::pass_on(host);
    stream_log((*host)->machine().log, request.value("level", console::trace_level_everything),
               request.value("follow", false), channel);
    return json{{"end", true}};
}

ats::result<json> answer_line(running_hosts& hosts, const std::string& line, line_channel& channel)
{
    try {
        const json request = json::parse(line, nullptr, false);
        if (!request.is_object()) return ats::fail(error_kind::invalid, "a request is one JSON object on a line");
        if (request.value("request", "") == "log") return answer_log(hosts, request, channel);
        return answer_request(hosts, request);
    } catch (const json::exception& error) {
        return ats::fail(error_kind::invalid, std::string("the request is malformed: ") + error.what());
    } catch (const std::exception& error) { // a used-up limit of the process
        return ats::fail(error.what());
    }
}

} // namespace

ats::result<std::unique_ptr<server>> server::start(running_hosts& hosts, std::unique_ptr<listening_socket> socket)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return ats::fail("cannot make a pipe: too many open files?");
    std::unique_ptr<server> instance(new server(hosts, std::move(socket), descriptor(ends[0]), descriptor(ends[1])));
    try {
        instance->acceptor_ = exec::new_thread([&server = *instance] { server.accept_clients(); });
    } catch (const exec::shortage& shortage) {
        return ats::fail(error_kind::no_memory, shortage.what());
    }
    return instance;
}

server::server(running_hosts& hosts, std::unique_ptr<listening_socket> socket, descriptor stop_reader,
               descriptor stop_writer)
    : hosts_(hosts), socket_(std::move(socket)), stop_reader_(std::move(stop_reader)),
      stop_writer_(std::move(stop_writer))
{
}

server::~server()
{
    stop_writer_ = descriptor(); // wakes the acceptor
    if (acceptor_.joinable()) acceptor_.join();
    const std::lock_guard lock(mutex_);
    for (conversation& conversation : conversations_) conversation.channel.hang_up();
    for (conversation& conversation : conversations_) conversation.thread.join();
}

void server::accept_clients()
{
    while (std::optional<descriptor> client = socket_->accept_client(stop_reader_.get())) {
        remove_ended();
        if (client->get() < 0) continue;
        const std::lock_guard lock(mutex_);
        conversation& conversation = conversations_.emplace_back(std::move(*client));
        try {
            conversation.thread = std::thread([this, &conversation] { converse(conversation); });
        } catch (const std::system_error&) { // no threads left: only this client loses its connection
            conversations_.pop_back();
        }
    }
}

void server::remove_ended()
{
    const std::lock_guard lock(mutex_);
    conversations_.remove_if([](conversation& conversation) {
        if (!conversation.is_over) return false;
        conversation.thread.join();
        return true;
    });
}

void server::converse(conversation& conversation)
{
    line_channel& channel = conversation.channel;
    bool is_connected = true;
    while (is_connected) {
        const std::optional<std::string> line = channel.read();
        if (!line) break;
        const ats::result<json> answer = answer_line(hosts_, *line, channel);
        is_connected = channel.write(line_of(answer ? *answer : refusal(answer.error())));
    }
    channel.hang_up();
    conversation.is_over = true;
}

} // namespace cli
