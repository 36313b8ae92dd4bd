// Measures lookups that bypass the cache, through libatsclient. One process runs for each address.
//   client-lookups SOCKET LOOKUPS ADDRESS...
// Each process looks up its address again and again. It makes an equal part of the LOOKUPS, but at least one. Prints
// the lookups per second of all processes together.
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "client/ats/client.h"

namespace
{

// Runs the lookups of one process. Returns its exit code: 0 if each lookup found a GID.
int look_up(const char* socket, const char* address, long count)
{
    ats_client_t* client = nullptr;
    if (ats_open(&client, socket) != ATS_OK) return 2;
    ats_options_t options = ATS_OPTIONS_INIT;
    options.flags = ATS_FRESH;
    for (long i = 0; i < count; ++i) {
        ats_answer_t answer;
        if (ats_resolve(client, inet_addr(address), &options, &answer) == ATS_OK) continue;
        std::fprintf(stderr, "client-lookups: %s: %s\n", address, answer.reason);
        return 2;
    }
    ats_close(client);
    return 0;
}

} // namespace

int main(int count, char** arguments)
{
    if (count < 4) {
        std::fprintf(stderr, "usage: client-lookups SOCKET LOOKUPS ADDRESS...\n");
        return 2;
    }
    const int processes = count - 3;
    const long process_lookups = std::max(1L, std::atol(arguments[2]) / processes);
    std::vector<pid_t> children;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < processes; ++i) {
        const pid_t child = fork();
        if (child == 0) _exit(look_up(arguments[1], arguments[3 + i], process_lookups));
        children.push_back(child);
    }
    int failures = 0;
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        failures += status != 0;
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::printf("%.0f lookups/s\n", static_cast<double>(process_lookups * processes) / seconds);
    return failures == 0 ? 0 : 2;
}
