// SPDX-License-Identifier: MIT
// The shipped library exports exactly what the linker version script lists:
// each plain name, and for each decorated pattern (_Z<length><name>*) at
// least one symbol and no plain name; nothing else leaves the library.
#include <fnmatch.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <regex>
#include <set>
#include <string>

#include "TestSupport.h"

namespace {

std::set<std::string> Exported() {
    std::set<std::string> names;
    const std::string command = std::string("nm -D --defined-only ") + VYRIX_LIBRARY_FILE;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "re"), pclose);
    char line[1024];
    while (pipe && fgets(line, sizeof line, pipe.get()) != nullptr) {
        std::string text(line);
        text.erase(text.find_last_not_of("\r\n") + 1);
        names.insert(text.substr(text.find_last_of(' ') + 1));
    }
    return names;
}

TEST(Symbols, ExactlyTheNamesOfTheVersionScriptAreExported) {
    // The entries of the "global:" part, comments removed.
    std::string map =
        std::regex_replace(vt::ReadFile(VYRIX_EXPORT_MAP), std::regex(R"(/\*[^*]*\*+([^/*][^*]*\*+)*/)"), "");
    map = map.substr(map.find("global:") + 7, map.find("local:") - map.find("global:") - 7);
    std::set<std::string> plain, patterns;
    const std::regex entry(R"(([A-Za-z_0-9]+)(\*?)\s*;)"), decorated(R"(_Z([0-9]+)([A-Za-z_0-9]+))");
    for (std::sregex_iterator it(map.begin(), map.end(), entry), end; it != end; ++it) {
        std::smatch parts;
        const std::string name = (*it)[1];
        if ((*it)[2].length() == 0) {
            plain.insert(name);
        } else {
            ASSERT_TRUE(std::regex_match(name, parts, decorated)) << name;
            EXPECT_EQ(std::stoul(parts[1]), parts[2].length()) << name;
            patterns.insert(name + "*");
        }
    }
    ASSERT_GT(plain.size(), 40u);
    ASSERT_GT(patterns.size(), 40u);

    const std::set<std::string> exported = Exported();
    ASSERT_FALSE(exported.empty()) << "could not read " << VYRIX_LIBRARY_FILE;
    std::set<std::string> matched;
    for (const std::string& symbol : exported) {
        bool listed = plain.count(symbol) != 0;
        for (const std::string& pattern : patterns) {
            if (fnmatch(pattern.c_str(), symbol.c_str(), 0) != 0) continue;
            listed = true;
            matched.insert(pattern);
        }
        EXPECT_TRUE(listed) << symbol << " is exported but not public";
    }
    for (const std::string& name : plain) EXPECT_EQ(exported.count(name), 1u) << name << " is not exported";
    for (const std::string& pattern : patterns) {
        EXPECT_EQ(matched.count(pattern), 1u) << pattern << " matches no exported symbol";
        const std::string name = std::regex_replace(pattern, std::regex(R"(^_Z[0-9]+|\*$)"), "");
        EXPECT_EQ(exported.count(name), 0u) << name << " must keep its C++ decoration";
    }
}

}  // namespace
