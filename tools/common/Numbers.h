/* SPDX-License-Identifier: MIT */
// The one way the programs read numbers from the command line: decimal
// unless a value is documented as hexadecimal, whole text only, within the
// documented range.  Each returns why the text is refused, or "" with the
// value stored.
#ifndef VYRIX_TOOLS_NUMBERS_H
#define VYRIX_TOOLS_NUMBERS_H

#include <cstdint>
#include <string>

namespace vyrix::tools {

// A decimal integer: an optional '-', then digits without a leading zero
// ("010" and "0x10" are refused rather than read as octal or hex).
std::string ParseInteger(const std::string& what, const std::string& text, long long min, long long max,
                         long long& out);
// A hexadecimal number of at most `digits` digits, without a prefix.
std::string ParseHex(const std::string& what, const std::string& text, unsigned digits, uint64_t max, uint64_t& out);
// A finite decimal real ("2.5", "1", "1.", "2e0"); no NaN, no infinity.
std::string ParseReal(const std::string& what, const std::string& text, double min, double max, double& out);

// "0..100", "-65536..65535", "1.0..3.0".
std::string RangeText(long long min, long long max);
std::string RangeText(double min, double max);

// The text with every byte that is not printable ASCII as \xNN, so a
// message never carries raw control bytes or broken UTF-8.
std::string Printable(const std::string& text);

}  // namespace vyrix::tools

#endif
