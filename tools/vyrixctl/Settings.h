/* SPDX-License-Identifier: MIT */
// Every setting of the interface by name, with its fields, their ranges,
// the scope options it takes, and how to read and write it.
#ifndef VYRIX_TOOLS_SETTINGS_H
#define VYRIX_TOOLS_SETTINGS_H

#include <functional>
#include <string>
#include <vector>

#include "Vyrix_Api.h"

namespace vyrix::tools {

// The options that say which copy or which instance of a setting is meant.
enum ScopeOption : unsigned { kScopeChannel = 1, kScopeSelectors = 2, kScopeIndex = 4 };

struct SettingContext {
    void* handle = nullptr;
    uint32_t storage = eVYRIX_STORAGE_CURRENT;
    uint32_t channel = 0;
    uint32_t selector1 = 0;
    int32_t selector2 = 0;
    int32_t index = 0;
};

// One number of a setting's value, with its documented range.
struct Field {
    const char* name;
    double min, max;
    bool real = false;  // a real number, else a whole one
};

// A value as parsed: one number per field.
struct Values {
    std::vector<double> numbers;
    long long Whole(size_t i) const { return static_cast<long long>(numbers[i]); }
};

struct Setting {
    const char* name;
    const char* help;           // the value's form and range, as `settings` shows it
    std::vector<Field> fields;  // empty for a read-only value
    size_t optionalFrom = 0;    // fields from here on may be left out together (0: none may)
    unsigned scope = 0;         // ScopeOption bits
    // Reads the setting into `value` (text; a number where it is one).
    std::function<Vyrix_ReturnStatus(const SettingContext&, std::string& value)> get;
    // Writes it; empty for read-only values.
    std::function<Vyrix_ReturnStatus(const SettingContext&, const Values&)> set;
};

const std::vector<Setting>& Settings();
const Setting* FindSetting(const std::string& name);
std::vector<std::string> SettingNames();

// Parses a value for the setting ("42", "1,60,0"): why it does not fit
// ("value out of range 0..100: '150'"), or "" with `values` filled.
std::string ParseValue(const Setting& setting, const std::string& text, Values& values);

// The scope options as typed (empty when not given).
struct ScopeText {
    std::string storage, channel, sel1, sel2, index;
};
// Checks and converts the scope options for the setting: why they do not
// fit (out of range, or an option the setting does not take), or "".
std::string ParseScope(const Setting& setting, const ScopeText& text, bool writing, SettingContext& context);

// "current", "saved" or "factory" for a storage number.
const char* StorageName(uint32_t storage);

}  // namespace vyrix::tools

#endif
