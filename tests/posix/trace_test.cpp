// Trace lines, assertion reports and the environment. Tests of the environment run their statement
// in a fresh process, since it is read when the library is loaded.
#include <array>
#include <cerrno>
#include <cstdlib>
#include <string>

#include <sys/socket.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sys_util.h"
#include "sysapp.h"

namespace {

using testing::ElementsAre;
using testing::ExitedWithCode;
using testing::KilledBySignal;
using testing::MatchesRegex;

std::vector<std::string> lines;
void collect(const char *line) {
    lines.emplace_back(line);
}

// Standard error, caught so that every system call that writes gives one packet.
class StderrPackets {
public:
    StderrPackets() : kept_(dup(STDERR_FILENO)) {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends_.data()), 0);
        dup2(ends_[0], STDERR_FILENO);
    }
    ~StderrPackets() {
        dup2(kept_, STDERR_FILENO);
        for (const int fd : {kept_, ends_[0], ends_[1]})
            close(fd);
    }
    StderrPackets(const StderrPackets &) = delete;
    StderrPackets &operator=(const StderrPackets &) = delete;

    std::string next() const {
        std::string packet(65536, '\0');
        const ssize_t len = recv(ends_[1], packet.data(), packet.size(), MSG_DONTWAIT);
        packet.resize(len > 0 ? static_cast<size_t>(len) : 0);
        return packet;
    }

private:
    std::array<int, 2> ends_{-1, -1};
    int kept_;
};

const std::string kOrigin = "[0-9]+-[0-9][0-9]-[0-9][0-9]T[0-9][0-9]:[0-9][0-9]:[0-9][0-9]"
                            "\\.[0-9][0-9][0-9][0-9][0-9][0-9]Z \\[[0-9]+\\] ";

TEST(Trace, FunctionGetsTheLineAsItWasWritten) {
    Sys_set_trace_func(collect);
    Sys_trace_int("Tr [pmi-ic 0] %d %s\n", -5, "x");
    Sys_trace_int("no newline");
    const std::string text(5000, 'a');
    Sys_trace_int("%s\n", text.c_str());
    for (const int len : {1020, 1021, 1022, 1023, 1024, 1025})
        Sys_trace_int("%*d", len, 7);
    ASSERT_EQ(lines.size(), 9u);
    EXPECT_EQ(lines[0], "Tr [pmi-ic 0] -5 x\n");
    EXPECT_EQ(lines[1], "no newline\n");
    EXPECT_EQ(lines[2], text + "\n");
    for (size_t i = 3; i < lines.size(); ++i)
        EXPECT_EQ(lines[i], std::string(1019 + i - 3, ' ') + "7\n");
}

TEST(Trace, StandardErrorGetsEveryLineInOneWrite) {
    const StderrPackets packets;
    errno = ENOENT;
    Sys_trace_int("first %d\n", 1);
    EXPECT_EQ(errno, ENOENT);
    Sys_trace_int("%s", std::string(3000, 'b').c_str());
    Sys_set_trace_func(collect);
    Sys_trace_int("elsewhere\n");
    Sys_set_trace_func(nullptr);
    Sys_trace_int("last\n");
    EXPECT_THAT(packets.next(), MatchesRegex(kOrigin + "first 1\n"));
    EXPECT_THAT(packets.next(), MatchesRegex(kOrigin + "b+\n"));
    EXPECT_THAT(packets.next(), MatchesRegex(kOrigin + "last\n"));
    EXPECT_EQ(packets.next(), "");
    EXPECT_THAT(lines, ElementsAre("elsewhere\n"));
}

TEST(Trace, AssertionReportsGoToStandardErrorAndAreCounted) {
    const StderrPackets packets;
    Sys_set_trace_func(collect);
    sys_trace_level = -1;
    EXPECT_EQ(Sys_get_assert_count(), 0u);
    Sys_log_assert("server/pmicli", 123, "hdl != OMRALIB_NULL_HANDLE");
    Sys_log_assert("server/pmicli", 124, "FALSE");
    EXPECT_EQ(Sys_get_assert_count(), 2u);
    EXPECT_THAT(packets.next(), MatchesRegex(kOrigin + "Assertion failed: server/pmicli:123: "
                                                       "hdl != OMRALIB_NULL_HANDLE\n"));
    EXPECT_THAT(packets.next(), MatchesRegex(kOrigin + ".*server/pmicli:124: FALSE\n"));
    EXPECT_TRUE(lines.empty());
}

class Environment : public testing::Test {
protected:
    Environment() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

[[noreturn]] void exit_showing_level() {
    dprintf(STDERR_FILENO, "level %d", sys_trace_level);
    _exit(0);
}

TEST_F(Environment, GivesTheLevel) {
    unsetenv("SYS_TRACE_LEVEL");
    EXPECT_EXIT(exit_showing_level(), ExitedWithCode(0), "^level -1$");
    setenv("SYS_TRACE_LEVEL", "3", 1);
    EXPECT_EXIT(exit_showing_level(), ExitedWithCode(0), "^level 3$");
    for (const char *value : {"", "high", "3x", "99999999999"}) { // reported and ignored
        setenv("SYS_TRACE_LEVEL", value, 1);
        const std::string expected =
            kOrigin + "SYS_TRACE_LEVEL is \"" + value + "\" and is ignored: [^\n]*\nlevel -1$";
        EXPECT_EXIT(exit_showing_level(), ExitedWithCode(0), expected);
    }
}

TEST_F(Environment, AssertionReportStopsTheProcessWhenAskedTo) {
    setenv("SYS_ASSERT_ABORT", "1", 1);
    EXPECT_EXIT(Sys_log_assert("file", 1, "FALSE"), KilledBySignal(SIGABRT), "file:1: FALSE");
    setenv("SYS_ASSERT_ABORT", "yes", 1);
    EXPECT_EXIT(
        {
            Sys_log_assert("file", 1, "FALSE");
            _exit(0);
        },
        ExitedWithCode(0), "SYS_ASSERT_ABORT is \"yes\" and is ignored");
}

} // namespace
