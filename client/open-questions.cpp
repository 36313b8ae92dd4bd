#include "client/open-questions.h"

#include <algorithm>

namespace client
{

question* open_questions::find(uint64_t id)
{
    const auto entry = questions_.find(id);
    return entry == questions_.end() ? nullptr : &entry->second;
}

void open_questions::add(uint64_t id, question question)
{
    deadlines_.emplace(question.deadline, id);
    questions_.emplace(id, std::move(question));
}

std::optional<question> open_questions::take(uint64_t id)
{
    const auto entry = questions_.find(id);
    if (entry == questions_.end()) return std::nullopt;
    deadlines_.erase({entry->second.deadline, id});
    question result = std::move(entry->second);
    questions_.erase(entry);
    return result;
}

std::vector<uint64_t> open_questions::overdue(clock::time_point now) const
{
    std::vector<uint64_t> ids;
    for (const auto& [deadline, id] : deadlines_) {
        if (deadline > now) break;
        ids.push_back(id);
    }
    return ids;
}

std::vector<uint64_t> open_questions::all() const
{
    std::vector<uint64_t> ids;
    for (const auto& [id, question] : questions_) ids.push_back(id);
    std::ranges::sort(ids);
    return ids;
}

clock::time_point open_questions::first_deadline() const
{
    return deadlines_.empty() ? clock::time_point::max() : deadlines_.begin()->first;
}

} // namespace client
