// Trace lines, assertion reports and the environment.
#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sys_util.h"
#include "sysapp.h"

namespace {

using testing::ExitedWithCode;
using testing::KilledBySignal;
using testing::MatchesRegex;

std::vector<std::string> lines;
void collect(const char *line) {
    lines.emplace_back(line);
}

const std::string kOrigin = "[0-9]+-[0-9][0-9]-[0-9][0-9]T[0-9][0-9]:[0-9][0-9]:[0-9][0-9]"
                            "\\.[0-9][0-9][0-9][0-9][0-9][0-9]Z \\[[0-9]+\\] ";

TEST(Trace, FunctionGetsTheLineAsItWasWritten) {
    Sys_set_trace_func(collect);
    Sys_trace_int("Tr [pmi-ic 0] %d %s\n", -5, "x");
    EXPECT_EQ(lines.back(), "Tr [pmi-ic 0] -5 x\n");
    for (const int len : {9, 1021, 1022, 1023, 1024, 5000}) { // about the buffer's size
        Sys_trace_int("%*d", len, 7);
        EXPECT_EQ(lines.back(), std::string(static_cast<size_t>(len) - 1, ' ') + "7\n");
    }
}

TEST(Trace, StandardErrorGetsLinesWithTheirOrigin) {
    testing::internal::CaptureStderr();
    errno = ENOENT;
    Sys_trace_int("first %d\n", 1);
    EXPECT_EQ(errno, ENOENT);
    Sys_set_trace_func(collect);
    Sys_trace_int("elsewhere\n");
    Sys_log_assert("server/pmicli", 123, "hdl != OMRALIB_NULL_HANDLE"); // always here
    Sys_set_trace_func(nullptr);
    Sys_trace_int("%s", std::string(3000, 'b').c_str());
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                MatchesRegex(kOrigin + "first 1\n" + kOrigin +
                             "Assertion failed: server/pmicli:123: hdl != OMRALIB_NULL_HANDLE\n" +
                             kOrigin + "b+\n"));
    EXPECT_THAT(lines, testing::ElementsAre("elsewhere\n"));
    EXPECT_EQ(Sys_get_assert_count(), 1u);
}

// The environment is read when the library is loaded, so each statement runs in a fresh process.
TEST(Trace, EnvironmentGivesTheLevelAndWhatAReportDoes) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto exit_showing_level = [] {
        Sys_log_assert("file", 1, "FALSE");
        dprintf(STDERR_FILENO, "level %d", sys_trace_level);
        _exit(0);
    };
    setenv("SYS_TRACE_LEVEL", "3", 1);
    EXPECT_EXIT(exit_showing_level(), ExitedWithCode(0), "file:1: FALSE\nlevel 3$");
    for (const std::string value : {"", "3x", "99999999999"}) { // reported and ignored
        setenv("SYS_TRACE_LEVEL", value.c_str(), 1);
        EXPECT_EXIT(exit_showing_level(), ExitedWithCode(0),
                    "SYS_TRACE_LEVEL is \"" + value + "\" and is ignored: (.|\n)*level -1$");
    }
    setenv("SYS_ASSERT_ABORT", "yes", 1);
    EXPECT_EXIT(exit_showing_level(), ExitedWithCode(0),
                "SYS_ASSERT_ABORT is \"yes\" and is ignored");
    setenv("SYS_ASSERT_ABORT", "1", 1);
    EXPECT_EXIT(exit_showing_level(), KilledBySignal(SIGABRT), "file:1: FALSE");
}

} // namespace
