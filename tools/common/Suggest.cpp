// SPDX-License-Identifier: MIT
#include "Suggest.h"

#include <algorithm>

namespace vyrix::tools {

namespace {
constexpr size_t kLongestCompared = 64;

// Optimal string alignment distance.
size_t Distance(const std::string& a, const std::string& b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    }
    return d[a.size()][b.size()];
}
}  // namespace

std::string Closest(const std::string& word, const std::vector<std::string>& candidates) {
    if (word.empty() || word.size() > kLongestCompared) return "";
    // A third of the word may be wrong, at least one and at most three edits.
    const size_t allowed = std::clamp<size_t>(word.size() / 3, 1, 3);
    std::string best;
    size_t bestDistance = allowed + 1;
    for (const std::string& c : candidates) {
        const size_t d = Distance(word, c);
        if (d < bestDistance) {
            best = c;
            bestDistance = d;
        }
    }
    return best;
}

std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates) {
    const std::string best = Closest(word, candidates);
    return best.empty() ? "" : " (did you mean '" + best + "'?)";
}

}  // namespace vyrix::tools
