// A service for tests of libatsclient. It listens on a socket of its own, and a function of the test makes its answers.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <list>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace client_tests
{

using json = nlohmann::json;

// The reaction of the service to one line of a client.
struct reaction {
    std::string bytes;    // sent to the client; may be empty
    bool hang_up = false; // the service then closes the connection
};
using behaviour = std::function<reaction(const json& request)>;

// Greets the client, and answers every question with the same record.
inline reaction usual(const json& request)
{
    if (request.value("request", "") == "hello")
        return {R"({"protocol":1,"version":"test"})"
                "\n"};
    json answer = {{"id", request["id"]},       {"status", "ok"}, {"address", "10.0.0.2"},
                   {"gid6", "fe80::200:0:2:1"}, {"source", "SA"}, {"microseconds", 7}};
    return {answer.dump() + "\n"};
}

// Answers the hello as usual, and everything else with `react`.
inline behaviour after_hello(behaviour react)
{
    return [react](const json& request) { return request["request"] == "hello" ? usual(request) : react(request); };
}

class fake_service
{
  public:
    explicit fake_service(behaviour react = usual, int backlog = 64, const std::string& socket_path = path())
        : react_(std::move(react)), socket_(socket_path)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        socket_.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(socket_.c_str());
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(listener_, backlog);
    }
    ~fake_service()
    {
        shutdown(listener_, SHUT_RDWR);
        if (acceptor_.joinable()) acceptor_.join();
        for (talk& each : talks_) shutdown(each.fd, SHUT_RDWR);
        for (talk& each : talks_) {
            each.thread.join();
            close(each.fd);
        }
        close(listener_);
        unlink(socket_.c_str());
    }

    // Accepts connections. Without this call, connections stay in the backlog.
    fake_service& serve()
    {
        acceptor_ = std::thread([this] { accept_all(); });
        return *this;
    }

    static std::string path() { return "/tmp/ats-client-test-" + std::to_string(getpid()) + ".sock"; }

  private:
    struct talk {
        int fd;
        std::thread thread;
    };

    void accept_all()
    {
        int fd = -1;
        while ((fd = accept(listener_, nullptr, nullptr)) >= 0) {
            talk& added = talks_.emplace_back(talk{fd, std::thread()});
            added.thread = std::thread([this, fd] { converse(fd); });
        }
    }

    void converse(int fd)
    {
        std::string input;
        char piece[4096];
        for (ssize_t size = 0; (size = recv(fd, piece, sizeof piece, 0)) > 0;) {
            input.append(piece, static_cast<size_t>(size));
            for (size_t end = 0; (end = input.find('\n')) != std::string::npos;) {
                const reaction reaction = react_(json::parse(input.substr(0, end)));
                input.erase(0, end + 1);
                ::send(fd, reaction.bytes.data(), reaction.bytes.size(), MSG_NOSIGNAL);
                if (!reaction.hang_up) continue;
                shutdown(fd, SHUT_RDWR);
                return;
            }
        }
    }

    const behaviour react_;
    const std::string socket_;
    int listener_;
    std::thread acceptor_;
    std::list<talk> talks_; // used by the thread `acceptor_`, and by the destructor after that thread has ended
};

} // namespace client_tests
