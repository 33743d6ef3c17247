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
    EXPECT_EQ(lines.back(), "Tr [pmi-ic 0] -5 x\n");
    for (const int len : {9, 1021, 1022, 1023, 1024, 5000}) { // about the buffer's size
        Sys_trace_int("%*d", len, 7);
        EXPECT_EQ(lines.back(), std::string(static_cast<size_t>(len) - 1, ' ') + "7\n");
    }
}

TEST(Trace, StandardErrorGetsEveryLineInOneWrite) {
    const StderrPackets packets;
    errno = ENOENT;
    Sys_trace_int("first %d\n", 1);
    EXPECT_EQ(errno, ENOENT);
    Sys_set_trace_func(collect);
    Sys_trace_int("elsewhere\n");
    Sys_log_assert("server/pmicli", 123, "hdl != OMRALIB_NULL_HANDLE"); // always here
    Sys_set_trace_func(nullptr);
    Sys_trace_int("%s", std::string(3000, 'b').c_str());
    EXPECT_THAT(packets.next(), MatchesRegex(kOrigin + "first 1\n"));
    EXPECT_THAT(packets.next(), MatchesRegex(kOrigin + "Assertion failed: server/pmicli:123: "
                                                       "hdl != OMRALIB_NULL_HANDLE\n"));
    EXPECT_THAT(packets.next(), MatchesRegex(kOrigin + "b+\n"));
    EXPECT_EQ(packets.next(), "");
    EXPECT_THAT(lines, ElementsAre("elsewhere\n"));
    EXPECT_EQ(Sys_get_assert_count(), 1u);
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
    setenv("SYS_TRACE_LEVEL", "3", 1);
    EXPECT_EXIT(exit_showing_level(), ExitedWithCode(0), "^level 3$");
    for (const char *value : {"", "3x", "99999999999"}) { // reported and ignored
        setenv("SYS_TRACE_LEVEL", value, 1);
        EXPECT_EXIT(exit_showing_level(), ExitedWithCode(0),
                    kOrigin + "SYS_TRACE_LEVEL is \"" + value + "\" and is ignored: .*\nlevel -1$");
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
