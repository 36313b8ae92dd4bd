// Fuzzes libatsclient. An input is the bytes that a service sends. libatsclient must not crash, and each question must
// end exactly once.
#include <cstdlib>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "client/ats/client.h"

namespace
{

constexpr int questions = 3;

struct listener {
    listener() : path("/tmp/ats-fuzz-answers-" + std::to_string(getpid()) + ".sock")
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(path.c_str());
        bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
        listen(fd, 16);
    }
    ~listener() { unlink(path.c_str()); }

    const std::string path;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
};

// Sends the bytes to the client that waits at the socket, and closes the connection. Most inputs get a valid hello
// before them. The other inputs contain their own hello, or none.
void answer(int listening_socket, const uint8_t* data, size_t size)
{
    const int fd = accept(listening_socket, nullptr, nullptr);
    if (fd < 0) return;
    constexpr char hello[] = "{\"protocol\":1}\n";
    if (size > 0 && data[0] % 8 != 0) send(fd, hello, sizeof hello - 1, MSG_NOSIGNAL | MSG_DONTWAIT);
    send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    close(fd);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const listener service;
    ats_client_t* client = nullptr;
    if (ats_open(&client, service.path.c_str()) != ATS_OK) std::abort();
    for (uint64_t tag = 0; tag < questions; ++tag)
        if (ats_submit_resolve(client, 1, nullptr, tag) != ATS_OK) std::abort();
    if (ats_request_begin(client, R"({"request":"log"})", 1000) != ATS_OK) std::abort();
    size_t ended_count = 0;
    // After a broken connection, libatsclient connects again.
    for (int connection = 0; connection < 3; ++connection) {
        answer(service.fd, data, size);
        ats_answer_t answers[questions];
        ended_count += ats_collect(client, answers, questions);
    }
    for (char* line = nullptr; ats_request_next(client, 1, &line) == ATS_OK;) ats_free(line);
    if (ended_count != questions) std::abort();
    ats_close(client);
    return 0;
}
