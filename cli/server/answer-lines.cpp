#include "cli/server/answer-lines.h"

#include "console/errors.h"

namespace cli
{

using json = nlohmann::json;

std::string line_of(json answer, const std::optional<uint64_t>& id)
{
    if (id) answer["id"] = *id;
    return answer.dump(-1, ' ', false, json::error_handler_t::replace);
}

json refusal(const ats::error& error)
{
    return {{"error", error.text}, {"exit_code", int{console::exit_code_of(error.kind)}}};
}

ats::error malformed(const std::string& text)
{
    return {ats::error_kind::invalid, text};
}

ats::error caught_error()
{
    try {
        throw;
    } catch (const json::exception& wrong) {
        // The library's text begins with "[json.exception.type_error.302] ", which means nothing to users.
        const std::string text = wrong.what();
        const size_t bracket = text.find("] ");
        return malformed("the request is malformed: " + text.substr(bracket == text.npos ? 0 : bracket + 2));
    } catch (const std::exception& wrong) {
        return ats::error(wrong.what());
    }
}

} // namespace cli
