#include "host/suggest.h"

#include <algorithm>
#include <cctype>

namespace mq {

size_t editDistance(std::string_view a, std::string_view b) {
    auto same = [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) ==
               std::tolower(static_cast<unsigned char>(y));
    };
    // Three rows suffice: the swap looks back two.
    std::vector<size_t> prev2(b.size() + 1), prev(b.size() + 1), row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) prev[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t cost = same(a[i - 1], b[j - 1]) ? 0 : 1;
            row[j] = std::min({prev[j] + 1, row[j - 1] + 1, prev[j - 1] + cost});
            if (i > 1 && j > 1 && same(a[i - 1], b[j - 2]) && same(a[i - 2], b[j - 1]))
                row[j] = std::min(row[j], prev2[j - 2] + 1);
        }
        std::swap(prev2, prev);
        std::swap(prev, row);
    }
    return prev[b.size()];
}

std::string closestName(std::string_view word, const std::vector<std::string>& candidates) {
    const size_t limit = std::max<size_t>(1, word.size() / 3);
    const std::string* best = nullptr;
    size_t bestDistance = limit + 1;
    for (const std::string& c : candidates) {
        const size_t d = editDistance(word, c);
        if (d < bestDistance) {
            bestDistance = d;
            best = &c;
        }
    }
    return best ? *best : std::string();
}

std::string didYouMean(std::string_view word, const std::vector<std::string>& candidates) {
    const std::string near = closestName(word, candidates);
    return near.empty() ? std::string() : " (did you mean \"" + near + "\"?)";
}

}  // namespace mq
