// SPDX-License-Identifier: MIT
#include "Numbers.h"

#include <charconv>
#include <cmath>
#include <cstdio>

namespace vyrix::tools {

namespace {
constexpr size_t kLongestShown = 40;

std::string Shown(const std::string& text) {
    std::string shown = Printable(text.size() > kLongestShown ? text.substr(0, kLongestShown) + "..." : text);
    return "'" + shown + "'";
}

std::string OutOfRange(const std::string& what, const std::string& text, const std::string& range) {
    return what + " out of range " + range + ": " + Shown(text);
}
}  // namespace

std::string Printable(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c >= 0x20 && c < 0x7F) {
            out += static_cast<char>(c);
        } else {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\x%02X", c);
            out += escaped;
        }
    }
    return out;
}

std::string RangeText(long long min, long long max) { return std::to_string(min) + ".." + std::to_string(max); }

std::string RangeText(double min, double max) {
    // Whole bounds keep one decimal ("1.0..3.0") to say that fractions are
    // welcome; others as short as they go ("0.001..86400.0").
    const auto one = [](double v) {
        char text[32];
        snprintf(text, sizeof text, v == std::floor(v) ? "%.1f" : "%g", v);
        return std::string(text);
    };
    return one(min) + ".." + one(max);
}

std::string ParseInteger(const std::string& what, const std::string& text, long long min, long long max,
                         long long& out) {
    const char* begin = text.data();
    const char* end = begin + text.size();
    const char* digits = begin + (text.size() > 0 && text[0] == '-' ? 1 : 0);
    if (digits == end || *digits < '0' || *digits > '9') return what + " is not a whole decimal number: " + Shown(text);
    if (*digits == '0' && digits + 1 != end)
        return what + " has a leading zero (decimal only, no octal or hexadecimal): " + Shown(text);
    long long value = 0;
    const auto [at, error] = std::from_chars(begin, end, value);
    if (error == std::errc::result_out_of_range) return OutOfRange(what, text, RangeText(min, max));
    if (error != std::errc() || at != end) return what + " is not a whole decimal number: " + Shown(text);
    if (value < min || value > max) return OutOfRange(what, text, RangeText(min, max));
    out = value;
    return "";
}

std::string ParseHex(const std::string& what, const std::string& text, unsigned digits, uint64_t max, uint64_t& out) {
    const char* begin = text.data();
    const char* end = begin + text.size();
    uint64_t value = 0;
    const auto [at, error] = std::from_chars(begin, end, value, 16);
    if (text.empty() || text.size() > digits || error != std::errc() || at != end || value > max)
        return what + " must be hexadecimal " + std::string(digits, '0') + ".." +
               std::string(digits, 'F').substr(0, digits) + ": " + Shown(text);
    out = value;
    return "";
}

std::string ParseReal(const std::string& what, const std::string& text, double min, double max, double& out) {
    const char* begin = text.data();
    const char* end = begin + text.size();
    double value = 0;
    const auto [at, error] = std::from_chars(begin, end, value, std::chars_format::general);
    if (error == std::errc::result_out_of_range) return OutOfRange(what, text, RangeText(min, max));
    // from_chars also reads "nan" and "inf": numbers, but no setting's.
    if (error != std::errc() || at != end || !std::isfinite(value))
        return what + " is not a decimal number: " + Shown(text);
    if (value < min || value > max) return OutOfRange(what, text, RangeText(min, max));
    out = value;
    return "";
}

}  // namespace vyrix::tools
