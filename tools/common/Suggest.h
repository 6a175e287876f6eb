/* SPDX-License-Identifier: MIT */
// "Did you mean": the closest of the known words to a mistyped one.
#ifndef VYRIX_TOOLS_SUGGEST_H
#define VYRIX_TOOLS_SUGGEST_H

#include <string>
#include <vector>

namespace vyrix::tools {

// The candidate nearest to `word` (edits of one character each: insert,
// delete, replace, swap neighbours), when it is near enough to be what was
// meant; otherwise "".
std::string Closest(const std::string& word, const std::vector<std::string>& candidates);

// " (did you mean 'status'?)" or "".
std::string DidYouMean(const std::string& word, const std::vector<std::string>& candidates);

}  // namespace vyrix::tools

#endif
