// Nearest-name suggestions for misspelt keys, commands and node names.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace mq {

// Optimal string alignment distance (Levenshtein plus adjacent swaps),
// ignoring ASCII case: "Heigth" is one edit from "Height".
size_t editDistance(std::string_view a, std::string_view b);

// The candidate closest to word, or "" when none is close enough to be a
// plausible typing slip (at most a third of the word's length, at least 1).
std::string closestName(std::string_view word, const std::vector<std::string>& candidates);

// " (did you mean \"X\"?)" or "" when there is no close candidate; ready to
// append to a message.
std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates);

}  // namespace mq
