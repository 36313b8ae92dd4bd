// The questions of a client that have no answer yet, by their id and by their deadline. The client's mutex guards them.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "client/connection.h"

namespace client
{

// The call of the C interface that has asked the question.
enum class question_kind {
    blocking_call, // a call that waits for the answer, for example ats_resolve()
    submission,    // a call that does not wait, for example ats_submit_resolve()
    request,       // ats_request() or ats_request_begin()
};

struct question {
    question_kind kind;
    uint64_t tag = 0; // the program's tag; only for a submission
    clock::time_point deadline;
    std::string line;        // the line that was sent
    bool was_resent = false; // true if the line was sent again after the first connection had broken
};

class open_questions
{
  public:
    bool is_empty() const { return questions_.empty(); }

    // Returns the question, or null if there is none with this id.
    question* find(uint64_t id);
    void add(uint64_t id, question question);

    // Removes a question and returns it. Returns nothing if there is none with this id.
    std::optional<question> take(uint64_t id);

    // Returns the ids of the questions whose deadline has passed.
    std::vector<uint64_t> overdue(clock::time_point now) const;

    // Returns the ids of all questions, in the order in which they were asked.
    std::vector<uint64_t> all() const;

    // Returns the earliest deadline. Returns time_point::max() if there are no questions.
    clock::time_point first_deadline() const;

  private:
    std::unordered_map<uint64_t, question> questions_;
    std::set<std::pair<clock::time_point, uint64_t>> deadlines_;
};

} // namespace client
