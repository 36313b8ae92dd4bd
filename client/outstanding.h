// The questions that wait for an answer, and their deadlines.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "client/connection.h"

namespace client
{

enum class asker { blocking_call, submission, request };

struct question {
    asker kind;
    uint64_t tag = 0; // of a submission
    clock::time_point deadline;
    std::string line;        // the line that was sent
    bool was_resent = false; // on a second connection after the first one broke
};

class outstanding
{
  public:
    bool is_empty() const { return questions_.empty(); }
    question* find(uint64_t id);
    void add(uint64_t id, question question);

    // Removes and returns a question after its answer or its end.
    std::optional<question> take(uint64_t id);

    // The ids of the questions whose deadline has passed.
    std::vector<uint64_t> overdue(clock::time_point now) const;

    // The ids of all questions, in the order of asking.
    std::vector<uint64_t> all() const;

    // The first deadline, or the far future if nothing is outstanding.
    clock::time_point first_deadline() const;

  private:
    std::unordered_map<uint64_t, question> questions_;
    std::set<std::pair<clock::time_point, uint64_t>> deadlines_;
};

} // namespace client
