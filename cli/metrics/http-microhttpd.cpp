#include <cerrno>
#include <cstring>
#include <netinet/in.h>

#include <microhttpd.h>

#include "cli/metrics/http.h"
#include "cli/service/metrics-address.h"

namespace metrics
{

namespace
{

// The maximum number of connections. Each has a buffer of 32 KiB. A connection that is idle for idle_limit_seconds is
// closed. A client that sends a byte now and then keeps its connection, so there is room for many such clients.
constexpr unsigned most_connections = 256;
constexpr unsigned idle_limit_seconds = 10;

MHD_Result answer(MHD_Connection* connection, unsigned status, const char* content_type, std::string text)
{
    MHD_Response* response = MHD_create_response_from_buffer(text.size(), text.data(), MHD_RESPMEM_MUST_COPY);
    if (!response) return MHD_NO;
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, content_type);
    // Each connection ends after one answer, so clients hold no connection between two requests.
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONNECTION, "close");
    const MHD_Result queued = MHD_queue_response(connection, status, response);
    MHD_destroy_response(response);
    return queued;
}

MHD_Result answer_request(void* context, MHD_Connection* connection, const char* url, const char* method, const char*,
                          const char*, size_t*, void**)
{
    const auto& text = *static_cast<const std::function<std::string()>*>(context);
    constexpr const char* plain = "text/plain; charset=utf-8";
    if (std::strcmp(url, "/metrics") != 0) return answer(connection, MHD_HTTP_NOT_FOUND, plain, "look at /metrics\n");
    if (std::strcmp(method, MHD_HTTP_METHOD_GET) != 0 && std::strcmp(method, MHD_HTTP_METHOD_HEAD) != 0)
        return answer(connection, MHD_HTTP_METHOD_NOT_ALLOWED, plain, "only GET\n");
    try { // exceptions must not pass through the library
        return answer(connection, MHD_HTTP_OK, "text/plain; version=0.0.4; charset=utf-8", text());
    } catch (const std::exception& shortage) {
        return answer(connection, MHD_HTTP_INTERNAL_SERVER_ERROR, plain, std::string(shortage.what()) + '\n');
    }
}

} // namespace

struct http::state {
    std::function<std::string()> text;
    MHD_Daemon* daemon = nullptr;

    ~state()
    {
        if (daemon) MHD_stop_daemon(daemon);
    }
};

http::http() = default;
http::~http() = default;

ats::result<> http::open(const std::string& address, std::function<std::string()> text)
{
    const std::optional<sockaddr_in> place = cli::metrics_address_of(address);
    if (!place) return ats::fail(ats::error_kind::invalid, address + " is no address and port");
    auto server = std::make_unique<state>();
    server->text = std::move(text);
    errno = 0;
    // The library's default is select(), which cannot watch descriptors from number 1024 on.
    server->daemon =
        MHD_start_daemon(MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_AUTO, ntohs(place->sin_port), nullptr, nullptr,
                         answer_request, &server->text, MHD_OPTION_SOCK_ADDR, &*place, MHD_OPTION_CONNECTION_LIMIT,
                         most_connections, MHD_OPTION_CONNECTION_TIMEOUT, idle_limit_seconds, MHD_OPTION_END);
    if (!server->daemon)
        return ats::fail(address + " cannot be listened to, is it another program's? " +
                         (errno != 0 ? std::strerror(errno) : ""));
    state_ = std::move(server);
    return {};
}

bool can_serve_http()
{
    return true;
}

} // namespace metrics
