// The result of a call that can fail, in every layer.
#pragma once

#include <string>
#include <utility>

#include <tl/expected.hpp>

namespace ats
{

// The kind of a failure, for callers that treat some kinds in their own way.
enum class error_kind {
    failed,      // carried out, and the answer is no
    invalid,     // an argument, a file or a folder is wrong
    exists,      // the name is taken
    busy,        // still in use
    not_found,   // no such thing
    no_memory,   // memory, or room for an image, is used up
    unreachable, // no service, or no SA, answers
};

struct error {
    error(error_kind kind, std::string text) : kind(kind), text(std::move(text)) {}
    explicit error(std::string text) : error(error_kind::failed, std::move(text)) {}

    error_kind kind;
    std::string text; // one line for people: what is wrong, and what would be right
};

// A value, or the error that kept it away. `result<>` is a call without a value.
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

// Hands the error of one result on as that of another.
template <class T>
tl::unexpected<error> pass_on(const result<T>& failed)
{
    return tl::make_unexpected(failed.error());
}

} // namespace ats
