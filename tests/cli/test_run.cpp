// Runs that go well, runs in which objects, merges, hosts or the user end them, and what is
// printed.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "program.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using RunCommand = ProgramTest;

TEST_F(RunCommand, handsOverParametersOfAnyLength) {
    write("in.txt", "12");
    write("params", std::string(1000, 'p')); // too long to travel with the request
    EXPECT_EQ(pmi("run $p in.txt --params abc").out, "total 5\n");
    EXPECT_EQ(pmi("run $p in.txt --params ''").out, "total 2\n");
    EXPECT_EQ(pmi("run $p in.txt --params-file params").out, "total 1002\n");
    EXPECT_EQ(pmi("run $p --eval once --params abc").out, "total 1003\n");
}

TEST_F(RunCommand, namesFailedObjects) {
    write("in.txt", "good\nfirst\nfine\nbetter\nfalse\n");
    EXPECT_EQ(pmi("run $p --split lines in.txt").out, "total 10\n");
    EXPECT_EQ(pmi("run $p --split lines in.txt --params name").out, "in.txt:1\n");
    const Ran json_ran = pmi("run $p --split lines in.txt --json --threads 1");
    EXPECT_EQ(json_ran.status, 1);
    const auto json = nlohmann::json::parse(json_ran.out);
    EXPECT_EQ(json["failed"], 3);
    EXPECT_EQ(json["exceptions"][2].dump(),
              R"({"code":7,"object":"in.txt:5","text":"the object starts with f"})");
    EXPECT_THAT(json_ran.err, HasSubstr("cannot print")); // this plug-in prints tables only
    EXPECT_EQ(json["result"]["hex"], "0a00000000000000");
    const Ran bare = shell("FAULT=bare pmi run $p --split lines in.txt --exceptions 0");
    EXPECT_THAT(bare.err, StartsWith("pmi: and 3 more exceptions\n"));
    EXPECT_THAT(bare.out, StartsWith("00000000  0a 00"));
}

TEST_F(RunCommand, reportsFailedMergesAndInvocations) {
    write("in.txt", "a\nb\nc\n");
    const Ran ran = pmi("run $p --merge refuse --split lines in.txt");
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.err, HasSubstr("pmi: (a merge): a code of the plug-in (9)\n"));
    EXPECT_EQ(pmi("run $p --merge refuse in.txt").status, 0); // nothing to merge
    const Ran late = pmi("run $p --eval park --timeout 1 in.txt");
    EXPECT_EQ(late.status, 3);
    EXPECT_EQ(late.out, "");
    EXPECT_THAT(late.err, StartsWith("pmi: the invocation failed: "));
    for (const char *command :
         {"--help", "--version", "run --help", "functions $p", "run $p in.txt",
          "run $p in.txt --json", "explain in.txt --query 'size > 1'"}) {
        const Ran full = pmi(command + std::string(" >/dev/full"));
        EXPECT_EQ(full.status, 3) << command;
        EXPECT_THAT(full.err, EndsWith("to standard output: No space left on device\n"));
    }

    write("long.txt", std::string(5000, 'x') + "\n");
    EXPECT_EQ(pmi("run $p --memory-limit 1M long.txt").status, 0);
    const Ran no_room = pmi("run $p --memory-limit 4K long.txt");
    EXPECT_EQ(no_room.status, 3);
    EXPECT_THAT(no_room.err,
                AllOf(StartsWith("pmi: 'long.txt' cannot be stored: "), HasSubstr("memory limit")));
}

TEST_F(RunCommand, stopsExceptionsAtTheBorder) {
    write("in.txt", "a\nb\nc\nd\ne\nf\n");
    const Ran ran = shell("FAULT=bare pmi run $p --eval throwing --split lines in.txt");
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.out, "f\n");
    EXPECT_THAT(ran.err, StartsWith("pmi: in.txt:1: a code of the plug-in (5)\n"
                                    "pmi: in.txt:2: the function threw an exception (1000000)\n"
                                    "pmi: in.txt:3: no memory for the function's result (1000001)\n"
                                    "pmi: in.txt:4: the function threw an exception (1000000)\n"
                                    "pmi: 6 objects matched, 2 successful, 4 failed"));
}

TEST_F(RunCommand, mergesInPlaceButNotToNothing) {
    write("in.txt", "a\na\nb\n");
    const std::string run = "FAULT=bare pmi run $p --split lines in.txt --eval ";
    EXPECT_EQ(shell(run + "line --merge same --query 'limit 2'").out, "a\n");
    EXPECT_THAT(shell(run + "line --merge same").err,
                HasSubstr("returned an empty result (1000003)"));
    EXPECT_THAT(shell(run + "nothing").err, StartsWith("pmi: there is no result\n"));
}

TEST_F(RunCommand, printsTheSameBytesWhenAHostIsLost) {
    std::string lines;
    for (int i = 1000; i < 1400; ++i) {
        lines += std::to_string(i) + "\n";
    }
    write("in.txt", lines);
    const Ran lost =
        shell("FAULT=bare pmi run $p --eval line_after_loss --merge unite --split lines "
              "in.txt --hosts 4 --stats --lose-host 2@1% --json");
    EXPECT_EQ(lost.status, 0) << lost.err;
    EXPECT_THAT(lost.err, AllOf(StartsWith("pmi: host 2 was declared gone after "),
                                EndsWith(" of 400 objects\n")));
    const auto json = nlohmann::json::parse(lost.out);
    EXPECT_EQ(json["result"]["text"], lines);
    EXPECT_EQ(json["successful"], 400);
    EXPECT_EQ(json["failed"], 0);
    EXPECT_GE(json["stats"]["retries"], 1);
}

TEST_F(RunCommand, showsProgressOnATerminalOnly) {
    write("in.txt", "a\nb\n");
    EXPECT_THAT(pmi("run $p --split lines in.txt").err, Not(HasSubstr("\r")));
    const Ran ran = shell("script -qec \"$pmi run $p --split lines in.txt\" /dev/null");
    EXPECT_THAT(ran.out,
                AllOf(HasSubstr("\rpmi: loaded 2 objects, "),
                      HasSubstr("\rpmi: evaluated 2 of 2 objects, 0 failed, 1 of 1 hosts, "),
                      HasSubstr("total 2\r\n")));
}

// While it evaluates; and while it reads a FIFO that never ends, of which it has read most of what
// another process writes.
TEST_F(RunCommand, endsOnAnInterrupt) {
    write("in.txt", "a\nb\nc\n");
    const Ran ran = pmi("run $p --eval park --params interrupt --split lines in.txt");
    EXPECT_EQ(ran.status, 130);
    EXPECT_EQ(ran.out, "");
    EXPECT_THAT(ran.err,
                AllOf(StartsWith("pmi: cancelled: "), EndsWith(" of 3 objects done, 0 failed\n")));
    const Ran reading = shell("mkfifo fifo; exec 3<>fifo\n"
                              "(head -c 1000000 /dev/zero >&3; kill -INT $(cat pid)) &\n"
                              "sh -c 'echo $$ >pid; exec \"$@\"' - $pmi run $p fifo");
    EXPECT_EQ(reading.status, 130);
    EXPECT_EQ(reading.out + reading.err, "");
}

} // namespace
