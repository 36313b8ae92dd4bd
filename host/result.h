// The result of a call that can fail, in every layer.
#pragma once

#include <string>
#include <utility>

#include <tl/expected.hpp>

namespace ats
{

// The kind of a failure. Some callers handle some kinds differently.
enum class error_kind {
    failed,      // executed, but without success
    invalid,     // an argument, a file or a folder is wrong
    exists,      // the name is already in use
    busy,        // still in use
    not_found,   // does not exist
    no_memory,   // no memory left, or no space for an image
    unreachable, // no service, or no SA, has answered
};

struct error {
    error(error_kind kind, std::string text) : kind(kind), text(std::move(text)) {}
    explicit error(std::string text) : error(error_kind::failed, std::move(text)) {}

    error_kind kind;
    std::string text; // one line for people: the fault and its remedy
};

// A value, or the error instead of it. `result<>` is for a call without a value.
template <class T = void>
using result = tl::expected<T, error>;

// The return value of a function that fails.
inline tl::unexpected<error> fail(error_kind kind, std::string text)
{
    return tl::make_unexpected(error(kind, std::move(text)));
}

inline tl::unexpected<error> fail(std::string text)
{
    return fail(error_kind::failed, std::move(text));
}

// Passes the error of one result on as an error of another type of result.
template <class T>
tl::unexpected<error> pass_on(const result<T>& failed)
{
    return tl::make_unexpected(failed.error());
}

} // namespace ats
