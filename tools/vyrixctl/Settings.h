// Every setting of the interface by name, with how to read and write it.
#ifndef VYRIX_TOOLS_SETTINGS_H
#define VYRIX_TOOLS_SETTINGS_H

#include <functional>
#include <string>
#include <vector>

#include "Vyrix_Api.h"

namespace vyrix::tools {

struct SettingContext {
    void* handle = nullptr;
    uint32_t storage = 0;
    uint32_t channel = 0;
    uint32_t selector1 = 0;
    int32_t selector2 = 0;
    int32_t index = 0;
};

struct Setting {
    const char* name;
    const char* help;
    // Reads the setting into `value` (text; a number where it is one).
    std::function<Vyrix_ReturnStatus(const SettingContext&, std::string& value)> get;
    // Writes it from text; empty for read-only values.  Throws
    // std::invalid_argument for a value that is not a number of the kind.
    std::function<Vyrix_ReturnStatus(const SettingContext&, const std::string& value)> set;
    // The range of a value that is one number (min == max: no such range).
    double min = 0, max = 0;
    bool real = false;  // a real number, else an integer
};

const std::vector<Setting>& Settings();
const Setting* FindSetting(const std::string& name);

// Why a value or the scope options do not fit the setting ("value out of
// range 0..100", "--storage out of range 0..1"), or "" when they do.
std::string CheckValue(const Setting& setting, const std::string& value);
std::string CheckScope(const Setting& setting, const SettingContext& context, bool writing);

}  // namespace vyrix::tools

#endif
