// Replaces http-microhttpd.cpp in a build without libmicrohttpd.
#include "cli/metrics/http.h"

namespace metrics
{

struct http::state {
};

http::http() = default;
http::~http() = default;

ats::result<> http::open(const std::string&, std::function<std::string()>)
{
    return ats::fail(ats::error_kind::invalid, "this build has no libmicrohttpd");
}

bool can_serve_http()
{
    return false;
}

} // namespace metrics
