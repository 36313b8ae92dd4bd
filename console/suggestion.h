// Finds the known word that is nearest to a mistyped word, for the question "did you mean 'WORD'?".
#pragma once

#include <string>
#include <vector>

namespace console
{

// Returns the word of `candidates` with the smallest edit distance to `word`. Ignores a candidate if the distance is
// more than two, or more than a third of the candidate's length. Returns "" if no candidate remains, or if `word` has
// more than 40 bytes.
std::string nearest_word(const std::string& word, const std::vector<std::string>& candidates);

// Returns "; did you mean 'WORD'?" with the result of nearest_word(), or "" if that is "".
std::string suggestion_for(const std::string& word, const std::vector<std::string>& candidates);

} // namespace console
