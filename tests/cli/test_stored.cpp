// The commands about objects that stay in a store, and runs on them, in a namespace of their own of
// the cluster whose URL OMRA_TEST_STORE has; skipped without one.
#include <random>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "program.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class Stored : public ProgramTest {
protected:
    void SetUp() override {
        const char *url = std::getenv("OMRA_TEST_STORE");
        if (url == nullptr) {
            GTEST_SKIP() << "OMRA_TEST_STORE names no cluster";
        }
        std::string mine = url;
        mine.insert(mine.find_first_of("/?"), "/pmi-" + std::to_string(std::random_device()()));
        setenv("OMRA_STORE", mine.c_str(), 1);
    }
    ~Stored() override { unsetenv("OMRA_STORE"); }

    // Runs a line of shell to a good end, or to that of `status`; returns what it prints.
    static std::string out(const std::string &line, int status = 0) {
        const Ran ran = shell(line);
        EXPECT_EQ(ran.status, status) << line << "\n" << ran.err;
        return ran.out;
    }
};

TEST_F(Stored, loadedObjectsStayWithTheirNames) {
    out("mkdir in; echo one >in/a.c; printf '' >in/b.h; echo three >in/c.h; seq 1100 >lines");
    EXPECT_EQ(out("pmi count; pmi ls; pmi ls --json"), "0\n[\n]\n");
    out("pmi load in; pmi load --split lines --app-id 2 lines");
    EXPECT_EQ(out("pmi ls --app-id 1"), "1:1:0\tin/a.c\n1:1:1\tin/b.h\n1:1:2\tin/c.h\n");
    EXPECT_EQ(out("pmi ls --app-id 2 | sed -n '1p;1025p;$p'"),
              "2:1:0\tlines:1\n2:1:1024\tlines:1025\n2:1:1099\tlines:1100\n");
    EXPECT_EQ(out("pmi ls --json --query 'index0 = \"h\" limit 1'"),
              "[\n  {\"key\": \"1:1:1\", \"name\": \"in/b.h\"}\n]\n");
    EXPECT_EQ(out("pmi ls --limit 4 | tail -n 1; pmi count; pmi count --query 'index1 = 6'"),
              "2:1:0\tlines:1\n1103\n1\n");
    EXPECT_EQ(out("pmi explain --query 'index0 = \"h\"'"),
              "3 objects of app id 1\nindex0 = \"h\": 2 objects, looked up in an index\n");
    EXPECT_EQ(out("pmi run $p --index 0=h"), "total 6\n");
    EXPECT_EQ(out("pmi run $examples/grep.so --app-id 2 --params '^10?.$' | sed -n '1p;$p'"),
              "lines:10:1\nlines:109:1\n");
    EXPECT_THAT(shell("pmi run $examples/grep.so --app-id 2 --params '('").err,
                StartsWith("pmi: lines:1: the parameters are not a valid"));

    // A further load; and one that fails leaves nothing.
    out("pmi load in/a.c; pmi load in/c.h none", 2);
    EXPECT_EQ(out("pmi ls --app-id 1 --query 'index0 = \"c\"'"), "1:1:0\tin/a.c\n1:2:0\tin/a.c\n");
    EXPECT_EQ(out("pmi rm --app-id 2 --query 'size < 4'; pmi ls | tail -n 1"),
              "removed 999 objects\n2:1:1099\tlines:1100\n");
    EXPECT_EQ(out("pmi rm --app-id 1 --query 'size >= 0'; pmi load in/c.h; pmi ls --limit 1"),
              "removed 4 objects\n1:1:0\tin/c.h\n"); // numbers begin anew
}

TEST_F(Stored, singleObjectsArePutAndRemoved) {
    write("in.txt", std::string("a\0b", 3));
    const std::string key = "1/16.2.3:4.5:6.7 ";
    out("pmi put " + key + "in.txt --index 2=abc --index-number 3=1000 --timeout-m 60");
    EXPECT_EQ(out("pmi get " + key), std::string("a\0b", 3));
    EXPECT_EQ(out("pmi ls --query 'index2 = \"abc\" and index3 > 999'"), "1/16.2.3:4.5:6.7\n");
    EXPECT_THAT(shell("pmi put " + key).err, EndsWith("exists already; --replace replaces it\n"));
    out("pmi put " + key, 1);
    out("pmi put 0:0x2A --replace </dev/null; echo new | pmi put --replace " + key + "-");
    EXPECT_EQ(out("pmi get 0:42; pmi get " + key + "; pmi count --query 'index2 = \"abc\"'"),
              "new\n0\n");
    EXPECT_EQ(out("pmi run $p --params name --eval length 2>&1; pmi run $p --app-id 0 --json", 0)
                  .substr(0, 12),
              "1:1:0\npmi: 1"); // what has no name is called by its key
    EXPECT_EQ(shell("pmi rm 0:42 0:43").err, "pmi: 0:43: there is no object with this key\n");
    out("pmi get 0:42", 1);
    out("pmi rm " + key);
    EXPECT_EQ(out("pmi count"), "0\n");
}

// A run's input is there for as long as the run, and for it alone.
TEST_F(Stored, inputOfARunIsTemporary) {
    write("in.txt", "good\nfirst\n");
    write("stored.txt", "another");
    out("pmi load stored.txt");
    for (int i = 0; i < 2; ++i) {
        const Ran ran = shell("pmi run $p --split lines in.txt");
        EXPECT_EQ(ran.out, "total 4\n");
        EXPECT_THAT(ran.err, StartsWith("pmi: in.txt:2: the object starts with f (7)\n"));
    }
    EXPECT_THAT(out("pmi explain --split lines in.txt --query 'size > 4'"),
                StartsWith("2 objects of app id 2684352"));
    EXPECT_EQ(shell("pmi run $p --eval park --params interrupt in.txt").status, 130);
    EXPECT_EQ(out("pmi run $p --eval park --timeout 1 in.txt", 3), "");
    EXPECT_EQ(out("pmi ls; pmi run $p"), "1:1:0\tstored.txt\ntotal 7\n");
}

// While it reads a FIFO that never ends; when it has read most of this, a batch is stored.
TEST_F(Stored, interruptedLoadLeavesNothing) {
    const Ran ran = shell("mkfifo fifo; exec 3<>fifo\n"
                          "(seq -f %0600g 2000 >&3; kill -INT $(cat pid); echo on >&3) &\n"
                          "sh -c 'echo $$ >pid; exec \"$@\"' - $pmi load --split lines fifo");
    EXPECT_EQ(ran.status, 130);
    EXPECT_EQ(ran.err, "pmi: cancelled: nothing is loaded\n");
    EXPECT_EQ(out("pmi count"), "0\n");
}

TEST_F(Stored, openingFailsWithOneReason) {
    const Ran ran = pmi("ls --store 'rados:none?conf=/none'");
    EXPECT_EQ(ran.status, 3);
    EXPECT_THAT(ran.err, StartsWith("pmi: the store \"rados:none?conf=/none\" cannot be opened: "));
    EXPECT_EQ(ran.err.find("opened"), ran.err.rfind("opened"));
}

} // namespace
