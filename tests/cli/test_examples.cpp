// The answers of the example plug-ins.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "program.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

using Examples = ProgramTest;

TEST_F(Examples, wordFrequencies) {
    write("in.txt", "The cat\n\nthe dog_1, THE end; dog_1 \n\ncat's");
    const std::string run = "run $examples/word_frequencies.so --split paragraphs in.txt --params ";
    const auto json = nlohmann::json::parse(pmi(run + "3 --json").out)["result"];
    EXPECT_EQ(json["distinct_words"], 5);
    EXPECT_EQ(json["top"], nlohmann::json::parse(R"([{"word": "the", "count": 3},
                                                     {"word": "cat", "count": 2},
                                                     {"word": "dog_1", "count": 2}])"));
    EXPECT_THAT(pmi(run + "many").err, HasSubstr("not a number of words to print (1)"));
}

TEST_F(Examples, recordStatistics) {
    write("in.txt", "Size: 1.5\nKind: a\n\nSize: -2\nKind: a\n\nSize: 999999999999999999.999999\n\n"
                    "Kind: a\n\nSize: 0.1\nKind: b\n\nSize: 0.2\nKind: b\n\n"
                    "Size: 1e3\n\nSize: 1.\n\nSize:\n\nSize: 1234567890123456789\n");
    const std::string run = "run $examples/record_statistics.so --split paragraphs in.txt ";
    const auto json = nlohmann::json::parse(pmi(run + "--json --params 'value=Size by=Kind'").out);
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
    std::filesystem::create_directory("d");
    write("d/a.c", "int a;\nlong b;\nint c;");
    write("d/b.c", "nothing\n");
    write("d/c.c", "int(x);\n");
    const std::string run = "run $examples/grep.so d ";
    EXPECT_EQ(pmi(run + "--params '^int\\b[[:space:]]\\w'").out, "d/a.c:2\n");
    EXPECT_EQ(pmi(run + "--params int").out, "d/a.c:2\nd/c.c:1\n");
    EXPECT_EQ(pmi(run + "--eval find --params 'int('").out, "d/c.c:1\n");
    EXPECT_THAT(pmi(run + "--params 'int('").err,
                StartsWith("pmi: d/a.c: the parameters are not a valid regular expression (1)\n"));
    EXPECT_THAT(pmi(run).err, HasSubstr("there is no pattern"));
    write("d/a.c", std::string(100'000, 'x'));
    EXPECT_THAT(pmi(run + "--params 'x*y'").err, HasSubstr("too long"));
}

} // namespace
