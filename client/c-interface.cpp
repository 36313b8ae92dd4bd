// Implements client/ats/client.h. Each function checks its arguments and calls class client. No exception leaves a
// function.
#include <bit>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

#include "client/ats/client.h"
#include "client/client.h"
#include "client/last-error.h"
#include "client/parallel-requests.h"
#include "client/socket-path.h"

// These layouts must not change, because compiled programs contain them.
static_assert(sizeof(ats_options_t) == 24 && offsetof(ats_options_t, host) == 16);
static_assert(sizeof(ats_answer_t) == 240 && offsetof(ats_answer_t, gid) == 24 &&
              offsetof(ats_answer_t, reason) == 48 && offsetof(ats_answer_t, path) == 208);
static_assert(sizeof(ats_path_t) == 32 && offsetof(ats_path_t, dlid) == 20 && offsetof(ats_path_t, sl) == 26);

struct ats_client {
    explicit ats_client(std::string path) : client(std::move(path)) {}
    client::client client;
};

namespace client
{

namespace
{

thread_local std::string error_text;

constexpr size_t longest_host_bytes = 30; // the longest host name that a ServiceRecord can contain

constexpr ats_options_t usual_options = ATS_OPTIONS_INIT;

// Runs `call` and returns its status. Converts an exception to an error status: it must not reach C code.
template <class call_t>
ats_status_t guarded(call_t call)
{
    try {
        return call();
    } catch (const std::bad_alloc&) {
        return failed(ATS_NO_MEMORY, "out of memory"); // a std::string stores such a short text without allocation
    } catch (const std::exception& error) {
        return failed(ATS_INVALID, error.what());
    }
}

// Does the same for a call with a client. Fails if the client belongs to the parent of this process.
template <class call_t>
ats_status_t guarded(const ats_client_t* client, call_t call)
{
    return guarded([&] {
        if (client->client.belongs_to_parent())
            return failed(ATS_INVALID, "a child of fork() must open its own client");
        return call();
    });
}

// Returns the deadline of a call. A negative number means no limit.
clock::time_point deadline_after(int milliseconds)
{
    return milliseconds < 0 ? clock::time_point::max() : clock::now() + std::chrono::milliseconds(milliseconds);
}

// Returns the options to use: `options`, or the defaults if `options` is null. If `options` has a wrong value, stores
// the error and returns null. A program that was compiled with a later version of the structure passes a larger size,
// never a smaller one.
const ats_options_t* checked(const ats_options_t* options)
{
    if (!options) return &usual_options;
    const char* error = nullptr;
    if (options->size < sizeof(ats_options_t))
        error = "the options have no size: begin with ATS_OPTIONS_INIT";
    else if (options->timeout_ms <= 0)
        error = "timeout_ms must be above 0";
    else if ((options->flags & ~(ATS_CACHED_ONLY | ATS_VERIFY | ATS_FRESH)) != 0 || options->reserved != 0)
        error = "the options have flags that this library does not know";
    else if (options->host && std::strlen(options->host) > longest_host_bytes)
        error = "a host's name has at most 30 bytes";
    else if (std::popcount(options->flags) > 1)
        error = "ATS_CACHED_ONLY, ATS_VERIFY and ATS_FRESH exclude each other";
    if (!error) return options;
    failed(ATS_INVALID, error);
    return nullptr;
}

ats_status_t no_arguments()
{
    return failed(ATS_INVALID, "a pointer is null");
}

// Makes the body of a request. Returns the reason why the request cannot be sent, or null if it can be sent. A line
// that is too long must not be sent: the service would close the connection, which the client's other questions use,
// too.
const char* make_request_body(std::string_view request, std::string& body)
{
    constexpr size_t longest_body = 65000; // a service accepts lines of 65536 bytes by default
    constexpr const char* too_long = "a request has at most 65000 bytes";
    if (request.size() > longest_body) return too_long;
    body = request_body(request);
    if (body.empty()) return "a request is one JSON object of at most 16 levels";
    return body.size() > longest_body ? too_long : nullptr;
}

// Returns the error if a flag of the options is not allowed for this lookup, otherwise null.
const char* misuse_of(const lookup& lookup, const ats_options_t& options)
{
    const bool is_path = lookup.request == std::string_view("path");
    if (is_path && (options.flags & ATS_VERIFY))
        return "ATS_VERIFY is for addresses and GIDs only: ATS_FRESH asks the SA for a path";
    if (!is_path && lookup.family == AF_INET6 && (options.flags & ATS_FRESH))
        return "ATS_FRESH is for addresses and paths only: ATS_VERIFY asks the SA about a GID";
    return nullptr;
}

// Asks a question and waits for its answer.
ats_status_t blocking(ats_client_t* client, const ats_options_t* options, const std::string& body, ats_answer_t* answer)
{
    *answer = client->client.ask(*options, body);
    if (answer->status != ATS_OK) failed(answer->status, answer->reason);
    return answer->status;
}

// Completes the answer of a call that has returned `status`. If the call failed before blocking() stored an answer,
// `answer` has no error yet: stores `status` and the text of the last error in it.
ats_status_t complete_answer(ats_status_t status, ats_answer_t* answer)
{
    if (answer && status != ATS_OK && answer->status != status) {
        *answer = {};
        answer->status = status;
        answer->verified = -1;
        set_reason(*answer, error_text);
    }
    return status;
}

// Checks the arguments of a lookup, makes its body, and calls `ask` with the options and the body.
template <class ask_t>
ats_status_t with_body(const ats_client_t* client, const lookup& lookup, const ats_options_t* options, const ask_t& ask)
{
    if (!client || !lookup.subject) return no_arguments();
    return guarded(client, [&] {
        const ats_options_t* usable = checked(options);
        if (!usable) return ATS_INVALID;
        if (const char* misuse = misuse_of(lookup, *usable)) return failed(ATS_INVALID, misuse);
        return ask(*usable, lookup_body(lookup, *usable));
    });
}

ats_status_t ask(ats_client_t* client, const lookup& lookup, const ats_options_t* options, ats_answer_t* answer)
{
    if (!answer) return no_arguments();
    answer->status = ATS_OK;
    const auto ask_and_wait = [&](const ats_options_t& usable, const std::string& body) {
        return blocking(client, &usable, body, answer);
    };
    return complete_answer(with_body(client, lookup, options, ask_and_wait), answer);
}

ats_status_t submit(ats_client_t* client, const lookup& lookup, const ats_options_t* options, uint64_t tag)
{
    return with_body(client, lookup, options, [&](const ats_options_t& usable, const std::string& body) {
        return client->client.submit(usable, tag, body);
    });
}

// Returns a copy from malloc(), which the program frees with ats_free().
char* copy_of(const std::string& text)
{
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (!copy) throw std::bad_alloc();
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

// Checks a request and calls `send` with its body.
template <class send_t>
ats_status_t with_request_body(const ats_client_t* client, const char* request, const send_t& send)
{
    if (!client || !request) return no_arguments();
    return guarded(client, [&] {
        std::string body;
        if (const char* reason = make_request_body(request, body)) return failed(ATS_INVALID, reason);
        return send(body);
    });
}

} // namespace

ats_status_t add_request(ats_client_t* client, const char* request, int timeout_ms, uint64_t& id)
{
    return with_request_body(client, request, [&](const std::string& body) {
        return client->client.add_request(body, deadline_after(timeout_ms), id);
    });
}

ats_status_t next_line(ats_client_t* client, int timeout_ms, uint64_t& id, char** line)
{
    if (!client || !line) return no_arguments();
    *line = nullptr;
    return guarded(client, [&] {
        request_line next;
        const ats_status_t status = client->client.next_request_line(deadline_after(timeout_ms), next);
        if (status == ATS_OK) *line = copy_of(next.text);
        id = next.id;
        return status;
    });
}

const std::string& last_error()
{
    return error_text;
}

ats_status_t failed(ats_status_t status, const std::string& text)
{
    if (&text != &error_text) error_text = text;
    return status;
}

} // namespace client

using client::failed;
using client::guarded;

extern "C" {

ats_status_t ats_open(ats_client_t** client, const char* path)
{
    if (!client) return client::no_arguments();
    *client = nullptr;
    return guarded([&] {
        const std::string socket = path ? path : client::default_socket_path();
        if (socket.empty() || socket.size() >= sizeof(sockaddr_un::sun_path))
            return failed(ATS_INVALID, "a socket's path has 1 to " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) +
                                           " bytes: '" + socket + "' cannot be one");
        auto handle = std::make_unique<ats_client>(socket);
        if (handle->client.open() != ATS_OK) return failed(ATS_NO_MEMORY, "no descriptors are left");
        *client = handle.release();
        return ATS_OK;
    });
}

void ats_close(ats_client_t* client)
{
    if (client && client->client.belongs_to_parent())
        client->client.close_in_child();
    else
        delete client;
}

ats_status_t ats_resolve(ats_client_t* client, uint32_t address, const ats_options_t* options, ats_answer_t* answer)
{
    return client::ask(client, {"resolve", AF_INET, &address}, options, answer);
}

ats_status_t ats_reverse(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                         ats_answer_t* answer)
{
    return client::ask(client, {"reverse", AF_INET6, gid}, options, answer);
}

ats_status_t ats_find_path(ats_client_t* client, uint32_t address, const ats_options_t* options, ats_answer_t* answer)
{
    return client::ask(client, {"path", AF_INET, &address}, options, answer);
}

ats_status_t ats_find_path_to_gid(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                                  ats_answer_t* answer)
{
    return client::ask(client, {"path", AF_INET6, gid}, options, answer);
}

ats_status_t ats_submit_resolve(ats_client_t* client, uint32_t address, const ats_options_t* options, uint64_t tag)
{
    return client::submit(client, {"resolve", AF_INET, &address}, options, tag);
}

ats_status_t ats_submit_reverse(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options, uint64_t tag)
{
    return client::submit(client, {"reverse", AF_INET6, gid}, options, tag);
}

ats_status_t ats_submit_path(ats_client_t* client, uint32_t address, const ats_options_t* options, uint64_t tag)
{
    return client::submit(client, {"path", AF_INET, &address}, options, tag);
}

ats_status_t ats_submit_path_to_gid(ats_client_t* client, const uint8_t gid[16], const ats_options_t* options,
                                    uint64_t tag)
{
    return client::submit(client, {"path", AF_INET6, gid}, options, tag);
}

int ats_descriptor(const ats_client_t* client)
{
    return client ? client->client.descriptor() : -1;
}

size_t ats_collect(ats_client_t* client, ats_answer_t* answers, size_t capacity)
{
    return ats_wait(client, answers, capacity, 0);
}

size_t ats_wait(ats_client_t* client, ats_answer_t* answers, size_t capacity, int timeout_ms)
{
    if (!client || !answers || capacity == 0) return 0;
    size_t count = 0;
    guarded(client, [&] {
        count = timeout_ms == 0 ? client->client.collect(answers, capacity)
                                : client->client.wait(answers, capacity, client::deadline_after(timeout_ms));
        return ATS_OK;
    });
    return count;
}

ats_status_t ats_request_begin(ats_client_t* client, const char* request, int timeout_ms)
{
    return client::with_request_body(client, request, [&](const std::string& body) {
        return client->client.begin_request(body, client::deadline_after(timeout_ms));
    });
}

ats_status_t ats_request_next(ats_client_t* client, int timeout_ms, char** line)
{
    uint64_t id = 0;
    return client::next_line(client, timeout_ms, id, line);
}

ats_status_t ats_request(ats_client_t* client, const char* request, int timeout_ms, char** answer)
{
    if (!answer) return client::no_arguments();
    *answer = nullptr;
    return client::with_request_body(client, request, [&](const std::string& body) {
        std::string text;
        const ats_status_t status = client->client.request(body, client::deadline_after(timeout_ms), text);
        if (status == ATS_OK) *answer = client::copy_of(text);
        return status;
    });
}

void ats_free(char* answer)
{
    std::free(answer);
}

const char* ats_status_text(ats_status_t status)
{
    switch (status) {
    case ATS_OK:
        return "found";
    case ATS_NOT_FOUND:
        return "not found";
    case ATS_NO_ANSWER:
        return "no answer in time";
    case ATS_REFUSED:
        return "refused";
    case ATS_NOT_CONNECTED:
        return "not connected";
    case ATS_INVALID:
        return "invalid";
    case ATS_NO_MEMORY:
        return "no memory";
    }
    return "unknown status";
}

const char* ats_last_error(void)
{
    return client::last_error().c_str();
}

size_t ats_default_socket(char* path, size_t size)
{
    std::string socket;
    guarded([&] {
        socket = client::default_socket_path();
        return ATS_OK;
    });
    if (path && size > 0) {
        const size_t length = std::min(socket.size(), size - 1);
        std::memcpy(path, socket.data(), length);
        path[length] = '\0';
    }
    return socket.size();
}

const char* ats_client_version(void)
{
    return ATS_VERSION;
}

} // extern "C"
