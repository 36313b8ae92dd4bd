// "Did you mean": the known word that is nearest to one with a typing error.
#pragma once

#include <string>
#include <vector>

namespace console
{

// The one of `known` that takes the fewest letters to change, leave out, insert or swap with the next one; "" when
// more than a third of its letters, or more than two, are wrong.
std::string nearest_word(const std::string& typed, const std::vector<std::string>& known);

// "; did you mean 'WORD'?", or "".
std::string suggestion_for(const std::string& typed, const std::vector<std::string>& known);

} // namespace console
