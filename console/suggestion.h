// "Did you mean": finds the known word that is nearest to a mistyped one.
#pragma once

#include <string>
#include <vector>

namespace console
{

// Returns the word of `candidates` with the smallest edit distance to `word`. Returns "" if more than two letters, or
// more than a third of its letters, are wrong.
std::string nearest_word(const std::string& word, const std::vector<std::string>& candidates);

// Returns "; did you mean 'WORD'?", or "" if no candidate is near.
std::string suggestion_for(const std::string& word, const std::vector<std::string>& candidates);

} // namespace console
