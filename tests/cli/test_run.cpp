// Runs that go well, runs in which objects fail, and what is printed of them.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "program.h"

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using RunCommand = ProgramTest;

TEST_F(RunCommand, listsFunctions) {
    const Ran ran = pmi("functions " + plugin("plain"));
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_THAT(ran.out, AllOf(HasSubstr("eval"), HasSubstr("merge"), HasSubstr("invoke-once"),
                               HasSubstr("The length of an object and of the parameters")));

    const auto json = nlohmann::json::parse(pmi("functions --json " + plugin("plain")).out);
    EXPECT_EQ(json.size(), 5u);
    EXPECT_EQ(json[2]["name"], "once");
    EXPECT_EQ(json[2]["id"], 2);
}

TEST_F(RunCommand, splitsAsAsked) {
    write("in.txt", "one\ntwo\n\n \nthree\r\n");
    EXPECT_EQ(pmi("run " + plugin("plain") + " in.txt").out, "total 18\n");
    EXPECT_EQ(pmi("run " + plugin("plain") + " --split lines in.txt").out, "total 12\n");
    const Ran ran = pmi("run " + plugin("plain") + " --split paragraphs in.txt");
    EXPECT_EQ(ran.out, "total 15\n");
    EXPECT_THAT(ran.err, StartsWith("pmi: 2 objects matched, 2 successful, 0 failed"));
    EXPECT_EQ(shell("printf 'a\\n\\nbc' | pmi run " + plugin("plain") + " --split lines -").out,
              "total 3\n");
}

TEST_F(RunCommand, walksDirectoriesInOrderWithoutFollowingLinks) {
    write("d/b.txt", "2");
    write("d/a/z.h", "1");
    write("d/c", "3");
    write("d/empty", "");
    std::filesystem::create_symlink("b.txt", "d/link");
    std::filesystem::create_directory_symlink("..", "d/loop");
    const Ran ran = pmi("run " + plugin("border") + " --merge append --json d");
    EXPECT_EQ(ran.status, 0) << ran.err;
    const auto json = nlohmann::json::parse(ran.out);
    EXPECT_EQ(json["loaded"], 4);
    EXPECT_EQ(json["matched"], 4);
    EXPECT_EQ(json["result"]["text"].get<std::string>().size(), 3u);
}

TEST_F(RunCommand, selectsFilesByExtensionAndSize) {
    write("d/a.h", "1");
    write("d/b.h", "22");
    write("d/c.txt", "22");
    const std::string run = "run " + plugin("plain") + " d --index ";
    EXPECT_EQ(pmi(run + "0=h").out, "total 3\n");
    EXPECT_EQ(pmi(run + "1=2").out, "total 4\n");
    EXPECT_EQ(pmi(run + "0=h --index 1=2").out, "total 2\n");
    EXPECT_EQ(pmi(run + "0=h --index 1=2 --any").out, "total 5\n");

    const Ran none = pmi(run + "0=c");
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.out, "");
    EXPECT_THAT(none.err, HasSubstr("pmi: 0 objects matched, 0 successful, 0 failed"));
}

TEST_F(RunCommand, selectsParagraphsByFields) {
    const std::string value(40, 'v');
    write("in.txt", "Name: a\nKind:  x \n\nName: b\nKind: y\n\nName: c\n\nKind: " + value + "\n");
    const std::string run = "run " + plugin("plain") +
                            " in.txt --split paragraphs --index-from 7=Kind --index-from 0=Name ";
    EXPECT_EQ(pmi(run + "--index 7=x").out, "total 18\n");
    EXPECT_EQ(pmi(run + "--index 0=c --index 7=y --any").out, "total 24\n");
    EXPECT_EQ(pmi(run + "--index 7=" + value.substr(0, 32)).out, "total 47\n");
}

TEST_F(RunCommand, handsOverParameters) {
    write("in.txt", "12");
    write("params", std::string(1000, 'p')); // too long to travel with the request
    const std::string run = "run " + plugin("plain") + " in.txt ";
    EXPECT_EQ(pmi(run + "--params abc").out, "total 5\n");
    EXPECT_EQ(pmi(run + "--params ''").out, "total 2\n");
    EXPECT_EQ(pmi(run + "--params-file params").out, "total 1002\n");
    EXPECT_EQ(pmi("run " + plugin("plain") + " --eval once --params abc").out, "total 1003\n");
}

TEST_F(RunCommand, namesFailedObjects) {
    write("in.txt", "good\nfirst\nfine\nbetter\nfalse\n");
    const std::string run = "run " + plugin("plain") + " --split lines in.txt";
    const Ran ran = pmi(run + " --exceptions 2");
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.out, "total 10\n");
    EXPECT_THAT(ran.err, StartsWith("pmi: in.txt:2: the object starts with f (7)\n"
                                    "pmi: in.txt:3: the object starts with f (7)\n"
                                    "pmi: and 1 more exceptions\n"
                                    "pmi: 5 objects matched, 2 successful, 3 failed"));
    EXPECT_THAT(pmi(run + " --exceptions 0").err, StartsWith("pmi: and 3 more exceptions\n"));

    const Ran json_ran = pmi(run + " --json --threads 1");
    EXPECT_EQ(json_ran.status, 1);
    const auto json = nlohmann::json::parse(json_ran.out);
    EXPECT_EQ(json["failed"], 3);
    EXPECT_EQ(json["exceptions"][2],
              nlohmann::json(
                  {{"object", "in.txt:5"}, {"code", 7}, {"text", "the object starts with f"}}));
    EXPECT_THAT(json_ran.err, HasSubstr("cannot print")); // this plug-in prints tables only
    EXPECT_EQ(json["result"]["hex"], "0a00000000000000");
}

TEST_F(RunCommand, reportsFailedMerges) {
    write("in.txt", "a\nb\nc\n");
    const Ran ran = pmi("run " + plugin("plain") + " --merge refuse --split lines in.txt");
    EXPECT_EQ(ran.status, 1);
    EXPECT_THAT(ran.err, HasSubstr("pmi: (a merge): a code of the plug-in (9)\n"));
    EXPECT_EQ(pmi("run " + plugin("plain") + " --merge refuse in.txt").status,
              0); // nothing to merge
}

TEST_F(RunCommand, endsAFailedInvocationWithItsCode) {
    write("in.txt", "a");
    const Ran ran = pmi("run " + plugin("plain") + " --eval park --timeout 1 in.txt");
    EXPECT_EQ(ran.status, 3);
    EXPECT_EQ(ran.out, "");
    EXPECT_THAT(ran.err, StartsWith("pmi: the invocation failed: "));

    EXPECT_EQ(pmi("run " + plugin("plain") + " in.txt >/dev/full").status, 3);
}

TEST_F(RunCommand, stopsExceptionsAtTheBorder) {
    write("in.txt", "a\nb\nc\nd\ne\nf\ng\n");
    const Ran ran = pmi("run " + plugin("border") + " --eval throwing --split lines in.txt");
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.out, "g\n");
    EXPECT_THAT(ran.err, StartsWith("pmi: in.txt:1: a code of the plug-in (5)\n"
                                    "pmi: in.txt:2: the function threw an exception (1000000)\n"
                                    "pmi: in.txt:3: the function threw an exception (1000000)\n"
                                    "pmi: in.txt:4: no memory for the function's result (1000001)\n"
                                    "pmi: in.txt:5: the function threw an exception (1000000)\n"
                                    "pmi: 7 objects matched, 2 successful, 5 failed"));
}

TEST_F(RunCommand, mergesInPlaceAndAnew) {
    write("in.txt", "bb\naa\na\nccc\nab\n");
    const std::string run = "run " + plugin("border") + " --split lines in.txt ";
    EXPECT_EQ(pmi(run + "--merge smaller").out, "a\n");
    EXPECT_EQ(pmi(run + "--merge append --raw").out.size(), 10u);
    EXPECT_THAT(pmi(run + "--merge empty").err, HasSubstr("returned an empty result (1000003)"));
    EXPECT_THAT(pmi(run + "--eval nothing").err, StartsWith("pmi: there is no result\n"));
    write("two.txt", "\x01\x02\n\x02\x01\n");
    EXPECT_EQ(
        pmi("run " + plugin("border") + " --split lines two.txt --merge xor").out.substr(0, 14),
        "00000000  03 0");
}

TEST_F(RunCommand, showsProgressOnATerminalOnly) {
    write("in.txt", "a\nb\n");
    const std::string run = "run " + plugin("plain") + " --split lines in.txt";
    EXPECT_THAT(pmi(run).err, Not(HasSubstr("\r")));
    const Ran ran = shell("script -qec \"" PMI_PROGRAM " " + run + "\" /dev/null");
    EXPECT_THAT(ran.out,
                AllOf(HasSubstr("\rpmi: loaded 2 objects, "),
                      HasSubstr("\rpmi: evaluated 2 of 2 objects, 0 failed, 1 of 1 hosts, "),
                      HasSubstr("total 2\r\n")));
}

TEST_F(RunCommand, endsOnAnInterrupt) {
    // The FIFO never ends. The signal finds the program reading it, or still starting: it ends
    // alike.
    const Ran ran = shell("mkfifo fifo; exec 3<>fifo\n"
                          "timeout --preserve-status --signal INT 0.5 " PMI_PROGRAM " run " +
                          plugin("plain") + " fifo");
    EXPECT_EQ(ran.status, 130);
    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, "");
}

} // namespace
