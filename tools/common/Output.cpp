#include "Output.h"

#include <cstdio>
#include <cstdlib>

#include "ResultNames.h"

namespace vyrix::tools {

std::string JsonString(const std::string& text) {
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

bool LooksNumeric(const std::string& text) {
    if (text.empty()) return false;
    char* end = nullptr;
    strtod(text.c_str(), &end);
    return end != nullptr && *end == '\0' && text.find_first_of("xX") == std::string::npos;
}

void Report::Add(const std::string& key, const std::string& value) {
    fields_.push_back({key, value, LooksNumeric(value)});
}

void Report::AddText(const std::string& key, const std::string& value) { fields_.push_back({key, value, false}); }

void Report::Add(const std::string& key, long long value) { fields_.push_back({key, std::to_string(value), true}); }

void Report::AddRows(const std::string& key,
                     const std::vector<std::vector<std::pair<std::string, std::string>>>& rows) {
    tableKey_ = key;
    rows_ = rows;
}

int Report::Finish(uint32_t result, const std::string& failure) {
    const std::string name = ResultName(result);
    if (json_) {
        std::string out = "{\"command\":" + JsonString(command_);
        for (const Field& f : fields_)
            out += "," + JsonString(f.key) + ":" + (f.number ? f.value : JsonString(f.value));
        if (!tableKey_.empty()) {
            out += "," + JsonString(tableKey_) + ":[";
            for (size_t i = 0; i < rows_.size(); ++i) {
                out += i ? ",{" : "{";
                for (size_t j = 0; j < rows_[i].size(); ++j) {
                    const auto& [k, v] = rows_[i][j];
                    out += (j ? "," : "") + JsonString(k) + ":" + (LooksNumeric(v) ? v : JsonString(v));
                }
                out += "}";
            }
            out += "]";
        }
        char code[16];
        snprintf(code, sizeof code, "0x%08X", result);
        out += ",\"result\":" + JsonString(name) + ",\"code\":" + JsonString(code);
        if (!failure.empty()) out += ",\"error\":" + JsonString(failure);
        printf("%s}\n", out.c_str());
    } else {
        for (const Field& f : fields_) printf("%-18s %s\n", (f.key + ":").c_str(), f.value.c_str());
        if (!rows_.empty()) {
            for (const auto& [k, v] : rows_[0]) printf("%12s", k.c_str());
            printf("\n");
            for (const auto& row : rows_) {
                for (const auto& cell : row) printf("%12s", cell.second.c_str());
                printf("\n");
            }
        }
        if (result != 0 || !failure.empty())
            fprintf(stderr, "%s: %s%s%s\n", command_.c_str(), failure.c_str(), failure.empty() ? "" : ": ",
                    name.c_str());
        else
            printf("%-18s %s\n", "result:", name.c_str());
    }
    fflush(stdout);
    return result == 0 && failure.empty() ? 0 : 1;
}

}  // namespace vyrix::tools
