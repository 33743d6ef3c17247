// What the store does for users of the program: queries, several hosts, cancelling, figures.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "program.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class StoreOptions : public ProgramTest {
protected:
    static std::string run(const std::string &eval) {
        return "run " + plugin("steered") + " --eval " + eval + " ";
    }
};

TEST_F(StoreOptions, selectsByQueries) {
    write("in.txt", "Name: a\nKind: x\n\nName: bb\nKind: y\n\nName: c\n");
    const std::string input = " in.txt --split paragraphs --index-from 0=Name --index-from 3=Kind";
    const auto total = [&input](const std::string &query) {
        return pmi("run " + plugin("plain") + input + " --query '" + query + "'").out;
    };
    EXPECT_EQ(total(R"(index0 = "c")"), "total 8\n");
    EXPECT_EQ(total(R"(index3 in ("x", "y") and size > 16)"), "total 17\n");
    EXPECT_EQ(total("not index3 = \"x\"\n  or index0 starts with \"a\""), "total 41\n");
    EXPECT_EQ(total("limit 1"), "total 16\n");

    const Ran ran = pmi("explain" + input + R"( --query 'size > 3 and index3 = "x"')");
    EXPECT_EQ(ran.status, 0) << ran.err;
    EXPECT_THAT(ran.out, AllOf(StartsWith("3 objects"),
                               HasSubstr("\nindex3 = \"x\": 1 object, looked up in an index\n"),
                               HasSubstr("\nsize > 3: ")));
}

TEST_F(StoreOptions, pointsAtTheFaultOfAQuery) {
    const auto complaint = [](const std::string &command, const std::string &query) {
        const Ran ran = pmi(command + " none.txt --query '" + query + "'");
        EXPECT_EQ(ran.status, 2);
        EXPECT_EQ(ran.out, "");
        return ran.err;
    };
    // Nothing has been loaded by then: the input does not even exist.
    EXPECT_THAT(complaint(run("line"), "size > 3 or size <"),
                AllOf(StartsWith("pmi: query: at 19: expected a number after '<'"),
                      EndsWith("\n  size > 3 or size <\n"
                               "                    ^\n")));
    EXPECT_THAT(complaint("explain", "index0 = \"\xC3\xA4\xC3\xB6\"\n\tand index9 = 1\n limit 3"),
                AllOf(StartsWith("pmi: query: at 22: "), EndsWith("\n   and index9 = 1\n"
                                                                  "       ^\n")));
    const std::string tail(300, ')');
    EXPECT_THAT(complaint("explain", std::string(300, ' ') + "size ! 1" + tail),
                EndsWith("\n  " + std::string(55, ' ') + "size ! 1" + tail.substr(0, 57) + "\n" +
                         std::string(62, ' ') + "^\n"));
}

TEST_F(StoreOptions, sameBytesWithAnyHosts) {
    std::string lines;
    for (int i = 1000; i < 1400; ++i) {
        lines += std::to_string(i) + "\n";
    }
    write("in.txt", lines);
    const std::string input = " --split lines in.txt ";
    EXPECT_EQ(pmi(run("line") + input).out, lines);
    EXPECT_EQ(pmi(run("line") + input + "--hosts 4").out, lines);

    const Ran lost =
        pmi(run("line_after_loss") + input + "--hosts 4 --lose-host 2@1% --json --stats");
    EXPECT_EQ(lost.status, 0) << lost.err;
    EXPECT_THAT(lost.err, AllOf(StartsWith("pmi: host 2 was declared gone after "),
                                EndsWith(" of 400 objects\n")));
    const auto json = nlohmann::json::parse(lost.out);
    EXPECT_EQ(json["result"]["text"], lines);
    EXPECT_EQ(json["successful"], 400);
    EXPECT_EQ(json["failed"], 0);
    EXPECT_GE(json["stats"]["retries"], 1);
}

TEST_F(StoreOptions, cancelsOnAnInterrupt) {
    write("in.txt", "a\nb\nc\n");
    const Ran ran = pmi(run("interrupt") + "--split lines in.txt");
    EXPECT_EQ(ran.status, 130);
    EXPECT_EQ(ran.out, "");
    EXPECT_THAT(ran.err,
                AllOf(StartsWith("pmi: cancelled: "), EndsWith(" of 3 objects done, 0 failed\n")));
}

TEST_F(StoreOptions, printsFigures) {
    write("in.txt", "a\nbb\nccc\n");
    const std::string arguments = run("line") + "--split lines --stats in.txt ";
    const auto stats = nlohmann::json::parse(pmi(arguments + "--json").out)["stats"];
    EXPECT_EQ(stats["objects"], 3);
    EXPECT_EQ(stats["bytes"], 6);
    EXPECT_EQ(stats["evaluated"], 3);
    EXPECT_EQ(stats["invocations"], 1);
    EXPECT_EQ(stats["invocations_running"], 0);
    EXPECT_THAT(pmi(arguments).err, HasSubstr("\n            evaluated  3\n"));
}

TEST_F(StoreOptions, keepsToTheMemoryLimit) {
    write("in.txt", std::string(5000, 'x') + "\n");
    EXPECT_EQ(pmi(run("line") + "--memory-limit 1M in.txt").status, 0);
    const Ran ran = pmi(run("line") + "--memory-limit 4K in.txt");
    EXPECT_EQ(ran.status, 3);
    EXPECT_THAT(ran.err,
                AllOf(StartsWith("pmi: 'in.txt' cannot be stored: "), HasSubstr("memory limit")));
}

} // namespace
