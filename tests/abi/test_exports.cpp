// SPDX-License-Identifier: Apache-2.0
// The dynamic symbol tables of both libraries. The core library exports exactly the
// specified names of the C ABI (exports/*.txt, one file per subsystem) and the extensions
// (exports/extensions.list, all velmar_*): nothing C++-mangled, no platform function
// (those belong to the platform layer). The platform library exports exactly its
// documented functions (exports/hostplat.list), none of the C++ runtime.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include "velmar_ext.h"

namespace {

// Defined dynamic symbols of `library` with their nm type letter.
std::map<std::string, char> exported_symbols(const std::string &library)
{
    std::map<std::string, char> symbols;
    std::string command = "nm -D --defined-only --format=posix '" + library + "'";
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        ADD_FAILURE() << "cannot run: " << command;
        return symbols;
    }
    char line[1024];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::string text(line);
        const size_t space = text.find(' ');
        if (space != std::string::npos && space > 0 && space + 1 < text.size()) {
            symbols[text.substr(0, space)] = text[space + 1];
        }
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    return symbols;
}

std::set<std::string> exported_names(const std::string &library)
{
    std::set<std::string> names;
    for (const auto &[name, type] : exported_symbols(library)) {
        names.insert(name);
    }
    return names;
}

void read_list(const std::filesystem::path &path, std::set<std::string> &names)
{
    std::ifstream file(path);
    EXPECT_TRUE(file.good()) << "cannot read " << path;
    std::string line;
    while (std::getline(file, line)) {
        if (!line.empty() && line[0] != '#') {
            names.insert(line);
        }
    }
}

// The specified names: every exports/*.txt.
std::set<std::string> specified_names()
{
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(VELMAR_EXPORTS_DIR)) {
        if (entry.path().extension() == ".txt") {
            read_list(entry.path(), names);
        }
    }
    return names;
}

std::set<std::string> listed(const char *file)
{
    std::set<std::string> names;
    read_list(std::filesystem::path(VELMAR_EXPORTS_DIR) / file, names);
    return names;
}

std::set<std::string> minus(const std::set<std::string> &a, const std::set<std::string> &b)
{
    std::set<std::string> out;
    for (const auto &name : a) {
        if (b.count(name) == 0) {
            out.insert(name);
        }
    }
    return out;
}

std::string join(const std::set<std::string> &names)
{
    std::string out;
    for (const auto &name : names) {
        out += "  " + name + "\n";
    }
    return out;
}

} // namespace

TEST(Exports, CoreExportsTheSpecifiedNamesAndTheListedExtensions)
{
    const auto actual = exported_names(VELMAR_CORE_LIB);
    const auto specified = specified_names();
    const auto extensions = listed("extensions.list");
    ASSERT_FALSE(specified.empty());

    for (const auto &name : extensions) {
        EXPECT_EQ(name.rfind("velmar_", 0), 0U) << "extension without the velmar_ prefix: " << name;
        EXPECT_EQ(specified.count(name), 0U) << "listed as specified and as extension: " << name;
    }
    for (const auto &name : specified) {
        EXPECT_NE(name.rfind("velmar_", 0), 0U) << "specified name in the reserved prefix: " << name;
    }
    auto known = specified;
    known.insert(extensions.begin(), extensions.end());
    EXPECT_TRUE(minus(specified, actual).empty())
        << "specified but not exported:\n" << join(minus(specified, actual));
    EXPECT_TRUE(minus(extensions, actual).empty())
        << "extensions listed but not exported:\n" << join(minus(extensions, actual));
    EXPECT_TRUE(minus(actual, known).empty())
        << "exported but listed neither as specified nor as extension:\n" << join(minus(actual, known));
}

TEST(Exports, PlatformLibraryExportsExactlyItsDocumentedFunctions)
{
    const auto actual = exported_names(VELMAR_PLATFORM_LIB);
    const auto documented = listed("hostplat.list");
    ASSERT_FALSE(documented.empty());
    EXPECT_TRUE(minus(documented, actual).empty())
        << "listed but not exported:\n" << join(minus(documented, actual));
    EXPECT_TRUE(minus(actual, documented).empty())
        << "exported but not listed:\n" << join(minus(actual, documented));
}

// velmar_strerror reads a code by the function that returned it: every exported function
// must be one it knows, or a new function's codes would read as "ambiguous".
TEST(Exports, StrerrorKnowsEveryExportedFunction)
{
    for (const auto &[name, type] : exported_symbols(VELMAR_CORE_LIB)) {
        if (type != 'T' || name.rfind("velmar_", 0) == 0) {
            continue; // data, or an extension (they return no codes)
        }
        const std::string text = velmar_strerror(name.c_str(), 0x7ffffff0);
        EXPECT_NE(text.rfind("ambiguous", 0), 0U) << name << " is unknown to velmar_strerror";
    }
}

// Names of the platform layer's functions: exact names and name prefixes.
static bool is_platform_function(const std::string &name)
{
    static const std::set<std::string> exact = {"memset_s",  "memcpy_s",  "memmove_s",
                                                "strncpy_s", "strcpy_s",  "sprintf_s",
                                                "CheckLogLevel"};
    auto starts = [&](const char *prefix) { return name.rfind(prefix, 0) == 0; };
    bool dlog = starts("Dlog") && name.size() > 9 && name.compare(name.size() - 5, 5, "Inner") == 0;
    bool adapter = starts("mm") && name.size() > 2 && name[2] >= 'A' && name[2] <= 'Z';
    return exact.count(name) != 0 || dlog || adapter || starts("drvHdc") || starts("halHdc") ||
           starts("devdrv_");
}

TEST(Exports, NoMangledNamesAndNoPlatformFunctions)
{
    ASSERT_TRUE(is_platform_function("mmSleep"));
    ASSERT_TRUE(is_platform_function("DlogWarnInner"));
    ASSERT_FALSE(is_platform_function("dm_init"));
    for (const auto &name : exported_names(VELMAR_CORE_LIB)) {
        EXPECT_NE(name.rfind("_Z", 0), 0U) << "C++ symbol exported: " << name;
        EXPECT_FALSE(is_platform_function(name)) << "platform function defined: " << name;
    }
}
