#include "console/suggestion.h"

#include <algorithm>

namespace console
{

namespace
{

// Returns the edit distance of two words: the smallest number of edits that turn one word into the other. One edit
// changes, deletes or inserts a letter, or exchanges two adjacent letters.
size_t distance_between(const std::string& a, const std::string& b)
{
    std::vector<std::vector<size_t>> distances(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) {
        for (size_t j = 0; j <= b.size(); ++j) {
            size_t& distance = distances[i][j];
            distance = std::max(i, j);
            if (i == 0 || j == 0) continue;
            distance = std::min({distances[i - 1][j] + 1, distances[i][j - 1] + 1,
                                 distances[i - 1][j - 1] + (a[i - 1] != b[j - 1] ? 1 : 0)});
            const bool is_swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (is_swapped) distance = std::min(distance, distances[i - 2][j - 2] + 1);
        }
    }
    return distances[a.size()][b.size()];
}

} // namespace

std::string nearest_word(const std::string& word, const std::vector<std::string>& candidates)
{
    constexpr size_t longest_distance = 2;
    constexpr size_t longest_word = 40; // a longer word is not a typing error
    if (word.size() > longest_word) return "";
    std::string nearest;
    size_t shortest_distance = longest_distance + 1;
    for (const std::string& candidate : candidates) {
        const size_t distance = distance_between(word, candidate);
        if (distance >= shortest_distance || distance * 3 > candidate.size()) continue;
        shortest_distance = distance;
        nearest = candidate;
    }
    return nearest;
}

std::string suggestion_for(const std::string& word, const std::vector<std::string>& candidates)
{
    const std::string nearest = nearest_word(word, candidates);
    return nearest.empty() ? "" : "; did you mean '" + nearest + "'?";
}

} // namespace console
