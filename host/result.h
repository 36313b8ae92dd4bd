// The result of a call that can fail, in every layer.
#pragma once

#include <string>
#include <utility>

#include <tl/expected.hpp>

namespace ats
{

// The kind of a failure. A caller may handle one kind in another way than the others.
enum class error_kind {
    failed,      // executed, but without success
    invalid,     // an argument, a file or a folder is wrong
    exists,      // the name is already in use
    busy,        // still in use
    not_found,   // does not exist
    no_memory,   // no memory left, or a limit of the process is reached
    unreachable, // the service or the SA cannot be asked or has not answered
};

struct error {
    error(error_kind kind, std::string text) : kind(kind), text(std::move(text)) {}
    explicit error(std::string text) : error(error_kind::failed, std::move(text)) {}

    error_kind kind;
    std::string text; // one line for people: the fault and its remedy
};

// A value, or an error if the call has failed. `result<>` is for a call that returns no value.
template <class T = void>
using result = tl::expected<T, error>;

// The return value of a function that fails. The second form has the kind `failed`.
inline tl::unexpected<error> fail(error_kind kind, std::string text)
{
    return tl::make_unexpected(error(kind, std::move(text)));
}

inline tl::unexpected<error> fail(std::string text)
{
    return fail(error_kind::failed, std::move(text));
}

// The error of `failed`, as the return value of a function with another type of result. `failed` must have an error.
template <class T>
tl::unexpected<error> pass_on(const result<T>& failed)
{
    return tl::make_unexpected(failed.error());
}

} // namespace ats
