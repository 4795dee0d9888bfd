// The core library's dynamic symbol table must hold exactly the names of the C ABI:
// nothing C++-mangled, no platform function (those belong to the platform layer).
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

namespace {

std::set<std::string> exported_names(const std::string &library)
{
    std::set<std::string> names;
    std::string command = "nm -D --defined-only --format=posix '" + library + "'";
    FILE *pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        ADD_FAILURE() << "cannot run: " << command;
        return names;
    }
    char line[1024];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::string text(line);
        std::string name = text.substr(0, text.find(' '));
        if (!name.empty()) {
            names.insert(name);
        }
    }
    EXPECT_EQ(pclose(pipe), 0) << command;
    return names;
}

std::set<std::string> expected_names()
{
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(VELMAR_EXPORTS_DIR)) {
        if (entry.path().extension() != ".txt") {
            continue;
        }
        std::ifstream file(entry.path());
        std::string line;
        while (std::getline(file, line)) {
            if (!line.empty() && line[0] != '#') {
                names.insert(line);
            }
        }
    }
    return names;
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

TEST(Exports, ExactlyTheListedNames)
{
    const auto actual = exported_names(VELMAR_CORE_LIB);
    const auto expected = expected_names();
    ASSERT_FALSE(expected.empty());

    std::set<std::string> missing;
    std::set<std::string> extra;
    for (const auto &name : expected) {
        if (actual.count(name) == 0) {
            missing.insert(name);
        }
    }
    for (const auto &name : actual) {
        if (expected.count(name) == 0) {
            extra.insert(name);
        }
    }
    EXPECT_TRUE(missing.empty()) << "listed but not exported:\n" << join(missing);
    EXPECT_TRUE(extra.empty()) << "exported but not listed:\n" << join(extra);
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
