// What the store does for users of the program: several hosts, cancelling, figures, a limit.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "program.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

using StoreOptions = ProgramTest;

TEST_F(StoreOptions, sameBytesWithAnyHosts) {
    std::string lines;
    for (int i = 1000; i < 1400; ++i) {
        lines += std::to_string(i) + "\n";
    }
    write("in.txt", lines);
    const std::string input =
        "run $plugins/test_plugin_BARE.so --merge unite --split lines in.txt ";
    const Ran calm = pmi(input + "--eval line --hosts 4 --stats");
    EXPECT_EQ(calm.out, lines);
    EXPECT_THAT(calm.err, HasSubstr("\n            evaluated  400\n"));

    const Ran lost =
        pmi(input + "--eval line_after_loss --hosts 4 --lose-host 2@1% --json --stats");
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
    const Ran ran = pmi("run $p --eval interrupt --split lines in.txt");
    EXPECT_EQ(ran.status, 130);
    EXPECT_EQ(ran.out, "");
    EXPECT_THAT(ran.err,
                AllOf(StartsWith("pmi: cancelled: "), EndsWith(" of 3 objects done, 0 failed\n")));
}

TEST_F(StoreOptions, keepsToTheMemoryLimit) {
    write("in.txt", std::string(5000, 'x') + "\n");
    EXPECT_EQ(pmi("run $p --memory-limit 1M in.txt").status, 0);
    const Ran ran = pmi("run $p --memory-limit 4K in.txt");
    EXPECT_EQ(ran.status, 3);
    EXPECT_THAT(ran.err,
                AllOf(StartsWith("pmi: 'in.txt' cannot be stored: "), HasSubstr("memory limit")));
}

} // namespace
