// Everything a user can get wrong: the message names the value and what is allowed, nothing goes to
// standard output, and the exit code is 2.
#include <cerrno>

#include <fmt/format.h>
#include <fnmatch.h>
#include <gmock/gmock.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "program.h"

namespace {

using testing::HasSubstr;

// A line of shell, and a pattern of the shell's for what its message has in it.
struct Row {
    std::string line;
    std::string message;
};

class BadInput : public ProgramTest {
protected:
    BadInput() {
        shell("echo a >in.txt; : >empty; printf '\\n \\n' >blank; mkdir folder\n"
              "truncate -s 5000000000 huge"); // takes no space
    }

    static void expect_refused(const std::vector<Row> &rows, const std::string &command = "") {
        for (const auto &[rest, message] : rows) {
            const std::string line = command + rest;
            const Ran ran = shell(line);
            EXPECT_EQ(ran.status, 2) << line;
            EXPECT_EQ(ran.out, "") << line;
            const std::string pattern = "pmi: *" + message + "*\n";
            EXPECT_EQ(fnmatch(pattern.c_str(), ran.err.c_str(), 0), 0) << line << "\n" << ran.err;
        }
    }
    static void expect_run_refused(const std::vector<Row> &rows) {
        expect_refused(rows, "pmi run $p in.txt ");
    }
};

TEST_F(BadInput, usage) {
    expect_refused({{"pmi walk", "'walk'*allowed are run, explain, functions, load"},
                    {"pmi run $p", "INPUT is missing"},
                    {"pmi explain --query 'size > 1'", "INPUT is missing"},
                    {"pmi run $p --eval once --query 'size > 1'", "--query*'once'"},
                    {"OMRA_STORE=none: pmi run $p in.txt", "OMRA_STORE*\"none:\""}});
    expect_run_refused({{"--query ''", "--query*empty"},
                        {"--query 'size > 1' --index 0=a", "--index excludes --query"}});
}

TEST_F(BadInput, numbers) {
    for (const std::string value : {"0", "-1", "x", "''", "1.5", "4294967296"}) {
        expect_run_refused({{"--threads " + value, "--threads*is not a number from 1 to"},
                            {"--timeout " + value, "--timeout*is not a number from 1 to"}});
    }
    for (const std::string bytes : {"0", "-1", "K", "1KM", "1T", "17179869184G", "9999999999G9"}) {
        expect_run_refused({{"--memory-limit " + bytes, bytes + "*K, M or G"}});
    }
    for (const std::string lost : {"1", "1@", "1@5", "@5%", "1@101%", "1@-1%", "1@5%%"}) {
        expect_run_refused({{"--lose-host " + lost, lost + "*expected N@P%*0 to 100"}});
    }
    for (const std::string option : {"--index ", "--index-from "}) {
        for (const std::string index : {"8=a", "-1=a", "x=a"}) {
            expect_run_refused({{option + index, option + index + "*allowed are 0 to 7"}});
        }
        expect_run_refused({{option + "1", option + "1*expected N="}});
    }
    expect_run_refused({{"--exceptions many", "'many' is not a number from 0 to"},
                        {"--hosts 65", "'65' is not a number from 1 to 64"},
                        {"--hosts 4 --lose-host 5@1%", "no host 5*1 to 4"}});
}

TEST_F(BadInput, inputsAndTheirIndexes) {
    const std::string paragraphs = "--split paragraphs --index-from 0=A ";
    expect_run_refused({{paragraphs + "--index-from 0=B", "0=B*filled from a field already"},
                        {paragraphs + "--index-from 1=", "name is missing"},
                        {paragraphs + "--index 1=a", "nothing fills index 1"},
                        {paragraphs + "--index 0=$(printf %033d 0)", "33 bytes*up to 32"},
                        {"--index-from 0=A", "--split paragraphs"},
                        {"--index 2=a", "0 (extension) and 1 (size)"},
                        {"--index 1=a", "'a' is not a number of bytes"},
                        {"$(printf ' --index 0=%d' 1 2 3 4 5 6 7 8 9)", "9 times*8 times are"},
                        {"--params-file huge", "'huge'*5000000000 bytes*allowed are"},
                        {"--params-file none", "'none'*No such file"},
                        {"huge", "'huge'*5000000000 bytes"},
                        {"/proc/self/mem", "'/proc/self/mem'*Input/output error"},
                        {"empty", "'empty' is empty"},
                        {"folder", "'folder' is empty"},
                        {"blank --split paragraphs", "'blank' is empty"},
                        {"-", "'-' is empty"}});
}

// No store is asked before everything that was given has been looked at.
TEST_F(BadInput, keptObjects) {
    for (const std::string command :
         {"load in.txt", "ls", "count", "get 1:2", "put 1:2 in.txt", "rm 1:2"}) {
        expect_refused(
            {{"pmi " + command + " --store embedded:", "needs a store that keeps"},
             {"pmi " + command + " --store none:", "--store is \"none:\"*no such engine"},
             {"pmi " + command + " --store rados:", "a pool has to be named"}});
    }
    for (const std::string key :
         {"''", "1", "1:", "x:1", "1:0x", "-1:2", "1:2:3:4", "1:2.3.4", "1/2:3", "1:2:"}) {
        expect_refused({{"pmi get --store rados:p " + key, key + "*is no key*APP_ID:ID"}});
    }
    for (const std::string key : {"268435456:1", "1/256.0.0:1", "1:0x10000000000000000"}) {
        expect_refused({{"pmi rm --store rados:p 1:1 " + key, key + "*too large; up to"}});
    }
    expect_refused({{"pmi get 0:0 --store rados:p", "no object can have it"},
                    {"pmi rm --store rados:p", "KEY is missing"},
                    {"pmi rm --store rados:p --query 'size > 1'", "requires --app-id"},
                    {"pmi rm --store rados:p --query 'size > 1' --app-id 1 1:1", "excludes"},
                    {"pmi ls --store rados:p --app-id 268435200", "0 to 268435199"},
                    {"pmi ls --store rados:p --limit x", "'x' is not a number"},
                    {"pmi put --store rados:p 1:1 none", "'none'*No such file"},
                    {"pmi put --store rados:p 1:1 --index 0=$(printf %033d 0)", "up to 32"},
                    {"pmi put --store rados:p 1:1 --index-number 0=a", "'a' is not a number"},
                    {"pmi put --store rados:p 1:1 --index-number 0=1 --index 0=a", "given twice"}});
    expect_run_refused({{"--store rados:p --app-id 2", "--app-id*INPUT gets one of its own"},
                        {"--store rados:p --memory-limit 1M", "set a quota"}});
    expect_refused({{"pmi run $p --store rados:p --split lines", "--split needs INPUT"}});
}

TEST_F(BadInput, plugins) {
    expect_refused({{"pmi run ./none.so in.txt", "'./none.so'*No such file"},
                    {"pmi functions ./", "not a regular file"},
                    {"pmi functions ./in.txt", "'./in.txt'*cannot be loaded"},
                    {"pmi run libm.so.6 in.txt", "'libm.so.6'*given by its path"}, // no search
                    {"cp $p here.so; pmi functions here.so", "'here.so'*'./here.so'"},
                    {"FAULT='same id' pmi functions $p", "'first' and 'second'*same id 5"},
                    {"FAULT='same name' pmi functions $p", "5 and 6*same name 'first'"},
                    {"FAULT='id 64' pmi functions $p", "'first' has id 64*0 to 63"},
                    {"FAULT='nothing' pmi functions $p", "registers no function"},
                    {"FAULT='other version' pmi functions $p", "version 99"},
                    {"FAULT='null function' pmi functions $p", "'first' is NULL"},
                    {"FAULT='no merge' pmi run $p in.txt", "it has no merge function"}});
    expect_run_refused({{"--eval none", "no eval function 'none'*length, once, line"},
                        {"--eval sum", "no eval function 'sum'"},
                        {"--merge none", "no merge function 'none'*sum, refuse"}});
    EXPECT_EQ(pmi("functions ./here.so").status, 0);
}

// Gives a file an ACL that lets one user and one group write, but not the group that the file is
// of: a version, and entries of a tag, with 0x20000 where they let write, and an id. Returns 0 or
// the error.
int set_acl(const std::string &path, unsigned int user, unsigned int group) {
    const unsigned int acl[] = {2,       0x20001, 0,       0x20002, user, 4, 0,
                                0x20008, group,   0x20010, 0,       0x20, 0};
    return setxattr(path.c_str(), "system.posix_acl_access", acl, sizeof acl, 0) == 0 ? 0 : errno;
}

// A plug-in that others may write, or exchange for another: the file, or a link to it.
TEST_F(BadInput, pluginsOfOthers) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root may give files away";
    }
    shell("mkdir folder/inner; cp $p folder/inner/here.so; ln -s folder/inner/here.so");
    const std::string file = "folder/inner/here.so";
    const auto expect = [&](const std::string &change, const std::string &message) {
        shell(change);
        for (const std::string &path : {file, std::string("./here.so")}) {
            if (message.empty()) {
                EXPECT_EQ(pmi("functions " + path).status, 0) << change;
            } else {
                expect_refused({{"pmi functions " + path, fmt::format("'{}'*{}", path, message)}});
            }
        }
    };
    expect("", "");
    expect("chmod 757 " + file, "everybody may write*/inner/here.so'*mode 0757*chmod o-w");
    expect("chmod 755 " + file + "; chmod 777 folder",
           "everybody may write*/folder'*mode 0777*you and root");
    expect("chmod 1777 folder", ""); // as /tmp
    for (const std::string &path : {file, std::string("folder/inner")}) {
        expect("chown 1:0 " + path, "belongs to user 1;*(user 0) or to root");
        expect(fmt::format("chown 0:1 {0}; chmod 775 {0}", path),
               "group 1 may write*mode 0775*chmod g-w");
        expect("chown 0:0 " + path, ""); // a group of root alone
        const auto expect_acl = [&](unsigned int user, unsigned int group,
                                    const std::string &message) {
            ASSERT_EQ(set_acl(path, user, group), 0);
            expect("", message);
        };
        if (set_acl(path, 0, 0) == ENOTSUP) {
            GTEST_SKIP() << "no ACLs in " << testing::TempDir();
        }
        expect_acl(0, 1, "group 1 may write*setfacl -b");
        expect_acl(1, 0, "user 1 may write*mode 0220*setfacl -b");
        expect("chmod g-w " + path, ""); // the mask
        expect("chown 0:1 " + path, "");
        expect_acl(0, 0, "");
    }
}

// Nothing has been loaded by then: the input does not even exist.
TEST_F(BadInput, queriesArePointedAt) {
    const auto expect = [](const std::string &query, const std::string &complaint) {
        for (const std::string command : {"run $p", "explain"}) {
            const Ran ran = pmi(fmt::format("{} none.txt --query '{}'", command, query));
            EXPECT_EQ(ran.status, 2);
            EXPECT_EQ(ran.out, "");
            EXPECT_THAT(ran.err, HasSubstr(complaint));
        }
    };
    expect("size > 3 or size <", "pmi: query: at 19: expecte");
    expect("index0 = \"\xC3\xA4\xC3\xB6\"\n\tand index9 = 1\n limit 3",
           "\n   and index9 = 1\n       ^\n");
    const std::string tail(300, ')');
    expect(std::string(300, ' ') + "size ! 1" + tail, "\n  " + std::string(55, ' ') + "size ! 1" +
                                                          tail.substr(0, 57) + "\n" +
                                                          std::string(62, ' ') + "^\n");
}

} // namespace
