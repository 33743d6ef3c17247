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
    EXPECT_THAT(pmi("functions $p").out,
                AllOf(HasSubstr("\neval "), HasSubstr("\nmerge "), HasSubstr("\ninvoke-once "),
                      HasSubstr("The length of an object and of the parameters")));
    const auto json = nlohmann::json::parse(pmi("functions --json $p").out);
    EXPECT_EQ(json.size(), 14u);
    EXPECT_EQ(json[2]["name"], "once");
    EXPECT_EQ(json[2]["id"], 2);
}

TEST_F(RunCommand, splitsAsAsked) {
    write("in.txt", "one\ntwo\n\n \nthree\r\n");
    EXPECT_EQ(pmi("run $p in.txt").out, "total 18\n");
    EXPECT_EQ(pmi("run $p --split lines in.txt").out, "total 12\n");
    const Ran ran = pmi("run $p --split paragraphs in.txt");
    EXPECT_EQ(ran.out, "total 15\n");
    EXPECT_THAT(ran.err, StartsWith("pmi: 2 objects matched, 2 successful, 0 failed"));
    EXPECT_EQ(shell("printf 'a\\n\\nbc' | pmi run $p --split lines -").out, "total 3\n");
}

TEST_F(RunCommand, selectsFilesByExtensionAndSizeWithoutFollowingLinks) {
    write("d/a.h", "1");
    write("d/b/b.h", "22");
    write("d/c.txt", "22");
    write("d/empty", "");
    std::filesystem::create_symlink("c.txt", "d/link");
    std::filesystem::create_directory_symlink("..", "d/loop");
    EXPECT_THAT(pmi("run $p d").err, StartsWith("pmi: 4 objects matched"));
    EXPECT_EQ(pmi("run $p d").out, "total 5\n");
    EXPECT_EQ(pmi("run $p d --index 0=h").out, "total 3\n");
    EXPECT_EQ(pmi("run $p d --index 1=2").out, "total 4\n");
    EXPECT_EQ(pmi("run $p d --index 0=h --index 1=2").out, "total 2\n");
    EXPECT_EQ(pmi("run $p d --index 0=h --index 1=2 --any").out, "total 5\n");
    const Ran none = pmi("run $p d --index 0=c");
    EXPECT_EQ(none.status, 0);
    EXPECT_EQ(none.out, "");
    EXPECT_THAT(none.err, HasSubstr("pmi: 0 objects matched, 0 successful, 0 failed"));
}

TEST_F(RunCommand, selectsParagraphsByFields) {
    const std::string value(40, 'v');
    write("in.txt", "Name: a\nKind:  x \n\nName: b\nKind: y\n\nName: c\n\nKind: " + value + "\n");
    const std::string run =
        "run $p in.txt --split paragraphs --index-from 7=Kind --index-from 0=Name ";
    EXPECT_EQ(pmi(run + "--index 7=x").out, "total 18\n");
    EXPECT_EQ(pmi(run + "--index 0=c --index 7=y --any").out, "total 24\n");
    EXPECT_EQ(pmi(run + "--index 7=" + value.substr(0, 32)).out, "total 47\n");
}

TEST_F(RunCommand, handsOverParameters) {
    write("in.txt", "12");
    write("params", std::string(1000, 'p')); // too long to travel with the request
    EXPECT_EQ(pmi("run $p in.txt --params abc").out, "total 5\n");
    EXPECT_EQ(pmi("run $p in.txt --params ''").out, "total 2\n");
    EXPECT_EQ(pmi("run $p in.txt --params-file params").out, "total 1002\n");
    EXPECT_EQ(pmi("run $p --eval once --params abc").out, "total 1003\n");
}

TEST_F(RunCommand, namesFailedObjects) {
    write("in.txt", "good\nfirst\nfine\nbetter\nfalse\n");
    const Ran ran = pmi("run $p --split lines in.txt --exceptions 2");
    EXPECT_EQ(ran.status, 1);
    EXPECT_EQ(ran.out, "total 10\n");
    EXPECT_THAT(ran.err, StartsWith("pmi: in.txt:2: the object starts with f (7)\n"
                                    "pmi: in.txt:3: the object starts with f (7)\n"
                                    "pmi: and 1 more exceptions\n"
                                    "pmi: 5 objects matched, 2 successful, 3 failed"));
    const Ran json_ran = pmi("run $p --split lines in.txt --json --threads 1");
    EXPECT_EQ(json_ran.status, 1);
    const auto json = nlohmann::json::parse(json_ran.out);
    EXPECT_EQ(json["failed"], 3);
    const nlohmann::json exception = {
        {"object", "in.txt:5"}, {"code", 7}, {"text", "the object starts with f"}};
    EXPECT_EQ(json["exceptions"][2], exception);
    EXPECT_THAT(json_ran.err, HasSubstr("cannot print")); // this plug-in prints tables only
    EXPECT_EQ(json["result"]["hex"], "0a00000000000000");
    const Ran bare = pmi("run $plugins/test_plugin_BARE.so --split lines in.txt --exceptions 0");
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
    EXPECT_EQ(pmi("run $p in.txt >/dev/full").status, 3);
}

TEST_F(RunCommand, stopsExceptionsAtTheBorder) {
    write("in.txt", "a\nb\nc\nd\ne\nf\ng\n");
    const Ran ran = pmi("run $plugins/test_plugin_BARE.so --eval throwing --split lines in.txt");
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
    const std::string run = "run $plugins/test_plugin_BARE.so --split lines in.txt --eval ";
    EXPECT_EQ(pmi(run + "copy --merge smaller").out, "a\n");
    EXPECT_EQ(pmi(run + "line --merge unite --raw").out, "a\naa\nab\nbb\nccc\n");
    EXPECT_THAT(pmi(run + "copy --merge empty").err,
                HasSubstr("returned an empty result (1000003)"));
    EXPECT_THAT(pmi(run + "nothing").err, StartsWith("pmi: there is no result\n"));
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

// While it reads a FIFO that never ends: it has read most of what another process writes.
TEST_F(RunCommand, endsOnAnInterrupt) {
    const Ran ran = shell("mkfifo fifo; exec 3<>fifo\n"
                          "(head -c 1000000 /dev/zero >&3; kill -INT $(cat pid)) &\n"
                          "sh -c 'echo $$ >pid; exec \"$@\"' - $pmi run $p fifo");
    EXPECT_EQ(ran.status, 130);
    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, "");
}

} // namespace
