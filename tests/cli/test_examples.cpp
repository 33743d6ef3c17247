// The example plug-ins: their answers, and that those do not depend on the number of threads.
#include <random>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "program.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

using Examples = ProgramTest;

TEST_F(Examples, wordFrequencies) {
    write("in.txt", "The cat\n\nthe dog_1, THE end; dog_1 \n\ncat's");
    const std::string run = "run " + example("word_frequencies") + " --split paragraphs in.txt ";
    const auto json = nlohmann::json::parse(pmi(run + "--params 3 --json").out)["result"];
    EXPECT_EQ(json["distinct_words"], 5);
    EXPECT_EQ(json["top"], nlohmann::json::parse(R"([{"word": "the", "count": 3},
                                                     {"word": "cat", "count": 2},
                                                     {"word": "dog_1", "count": 2}])"));
    const Ran bad = pmi(run + "--params many");
    EXPECT_EQ(bad.status, 1);
    EXPECT_THAT(bad.err, HasSubstr("not a number of words to print (1)"));
}

TEST_F(Examples, recordStatistics) {
    write("in.txt", "Size: 1.5\nKind: a\n\nSize: -2\nKind: a\n\nSize: 999999999999999999.999999\n\n"
                    "Kind: a\n\nSize: 0.1\nKind: b\n\nSize: 0.2\nKind: b\n\n"
                    "Size: 1e3\n\nSize: 1.\n\nSize:\n\nSize: 1234567890123456789\n");
    const std::string run = "run " + example("record_statistics") + " --split paragraphs in.txt ";
    const Ran ran = pmi(run + "--json --params 'value=Size by=Kind'");
    EXPECT_EQ(ran.status, 1);
    const auto json = nlohmann::json::parse(ran.out);
    EXPECT_EQ(json["successful"], 6);
    EXPECT_EQ(json["failed"], 4);
    EXPECT_EQ(json["exceptions"][0]["text"], "the field's value is not a decimal number");
    EXPECT_EQ(json["exceptions"][3]["code"], 3);
    const auto group = [&json](const char *name) { return json["result"][name].dump(); };
    EXPECT_EQ(json["result"].size(), 3u);
    EXPECT_EQ(group("a"), R"({"count":2,"max":"1.5","mean":"-0.25","min":"-2","sum":"-0.5"})");
    EXPECT_EQ(group("b"), R"({"count":2,"max":"0.2","mean":"0.15","min":"0.1","sum":"0.3"})");
    EXPECT_EQ(json["result"]["(none)"]["sum"], "999999999999999999.999999");
    EXPECT_THAT(pmi(run + "--params by=Kind").err, HasSubstr("'value=Field by=Field' (1)"));
}

TEST_F(Examples, grep) {
    write("d/a.c", "int a;\nlong b;\nint c;");
    write("d/b.c", "nothing\n");
    write("d/c.c", "int(x);\n");
    const std::string run = "run " + example("grep") + " d ";
    EXPECT_EQ(pmi(run + "--params '^int\\b[[:space:]]\\w'").out, "d/a.c:2\n");
    EXPECT_EQ(pmi(run + "--params int").out, "d/a.c:2\nd/c.c:1\n");
    EXPECT_EQ(pmi(run + "--eval find --params 'int('").out, "d/c.c:1\n");
    EXPECT_THAT(pmi(run + "--params 'int('").err,
                StartsWith("pmi: d/a.c: the parameters are not a valid regular expression (1)\n"));
    EXPECT_THAT(pmi(run).err, HasSubstr("there is no pattern"));
    write("long", std::string(100'000, 'x'));
    EXPECT_THAT(pmi("run " + example("grep") + " long --params 'x*y'").err, HasSubstr("too long"));
}

// Some thousand paragraphs with numbers and words of a fixed sequence.
std::string make_catalogue() {
    std::mt19937 random(20);
    std::string catalogue;
    for (int i = 0; i < 4000; ++i) {
        catalogue +=
            "Package: p" + std::to_string(i) + "\nSection: s" + std::to_string(random() % 50);
        catalogue += "\nSize: " + std::to_string(random()) + "." + std::to_string(random() % 1000);
        catalogue += "\nText:";
        for (auto words = random() % 40; words > 0; --words) {
            catalogue += " w" + std::to_string(random() % 3000);
        }
        catalogue += "\n\n";
    }
    return catalogue;
}

TEST_F(Examples, sameBytesWithAnyNumberOfThreads) {
    write("in.txt", make_catalogue());
    const std::vector<std::string> invocations = {
        example("word_frequencies"),
        example("record_statistics") + " --params 'value=Size by=Section'",
        example("grep") + " --params 'w1[0-9]* '",
    };
    const std::string options = " --split paragraphs in.txt --raw --threads ";
    for (const std::string &invocation : invocations) {
        const auto merged_with = [&](const std::string &threads) {
            std::string arguments = "run ";
            return pmi(arguments.append(invocation).append(options).append(threads));
        };
        const Ran one = merged_with("1");
        EXPECT_EQ(one.status, 0) << one.err;
        EXPECT_GT(one.out.size(), 1000u);
        EXPECT_TRUE(merged_with("2").out == one.out) << invocation;
        EXPECT_TRUE(merged_with("8").out == one.out) << invocation;
    }
}

} // namespace
