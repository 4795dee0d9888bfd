/* SPDX-License-Identifier: Apache-2.0 */
// Gives a test program a private simulator directory before its first simulator call, so
// that programs running side by side (other builds, other developers) never see each
// other's devices or servers. Helper processes inherit it through the environment; it is
// removed when the program ends.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

namespace velmar::test {

class PrivateDir : public ::testing::Environment {
public:
    // `env_var` names the directory for the simulator, `in_use` tells which one it uses.
    PrivateDir(const char *env_var, const char *(*in_use)()) : env_var_(env_var), in_use_(in_use) {}
    void SetUp() override
    {
        char tmpl[] = "/tmp/velmar-test-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        setenv(env_var_, tmpl, 1);
        ASSERT_EQ(std::string(in_use_()), dir_) << "simulator used before the test set it";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    const std::string &dir() const { return dir_; }

private:
    const char *env_var_;
    const char *(*in_use_)();
    std::string dir_;
};

} // namespace velmar::test
