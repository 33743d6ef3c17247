// Everything a user can get wrong: the message names the value and what is allowed, nothing goes to
// standard output, and the exit code is 2.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include "program.h"

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class BadInput : public ProgramTest {
protected:
    BadInput() { write("in.txt", "a\n"); }

    template <class... Parts>
    static void expect_refused(const std::string &arguments, const Parts &...parts) {
        const Ran ran = pmi(arguments);
        EXPECT_EQ(ran.status, 2) << arguments;
        EXPECT_EQ(ran.out, "") << arguments;
        EXPECT_THAT(ran.err, AllOf(StartsWith("pmi: "), EndsWith("\n"), HasSubstr(parts)...));
    }
    template <class... Parts>
    static void expect_run_refused(const std::string &arguments, const Parts &...parts) {
        expect_refused("run " + plugin("plain") + " " + arguments, parts...);
    }
};

TEST_F(BadInput, usage) {
    expect_refused("", "subcommand");
    expect_refused("walk", "'walk'", "run, explain and functions");
    expect_refused("run", "PLUGIN");
    expect_run_refused("", "INPUT is missing");
    expect_run_refused("in.txt --colour", "--colour");
    expect_run_refused("in.txt --split words", "--split", "paragraphs,lines");
    expect_run_refused("in.txt --any", "--index");
    expect_run_refused("in.txt --json --raw", "--json", "--raw");
    expect_run_refused("in.txt --params a --params-file in.txt", "--params-file");
    EXPECT_EQ(pmi("--help").status, 0);
    EXPECT_EQ(pmi("run --help").status, 0);
    EXPECT_THAT(pmi("--version").out, StartsWith("pmi "));
}

TEST_F(BadInput, numbers) {
    for (const std::string option : {"--threads", "--timeout"}) {
        for (const std::string value : {"0", "-1", "x", "''", "1.5", "4294967296"}) {
            std::string arguments = "in.txt ";
            arguments.append(option).append(" ").append(value);
            expect_run_refused(arguments, option, "is not a number from 1 to");
        }
    }
    expect_run_refused("in.txt --exceptions many", "'many' is not a number from 0 to");
}

TEST_F(BadInput, storeOptions) {
    expect_run_refused("in.txt --query ''", "--query", "empty");
    expect_run_refused("in.txt --query 'size > 1' --index 0=a", "--query", "--index");
    expect_run_refused("--eval once --query 'size > 1'", "--query", "'once'");
    expect_refused("explain in.txt", "--query is required");
    expect_run_refused("in.txt --hosts 65", "'65' is not a number from 1 to 64");
    expect_run_refused("in.txt --hosts 0", "'0' is not a number from 1 to 64");
    for (const std::string bytes :
         {"0", "-1", "K", "1KM", "1T", "17179869184G", "99999999999999999999"}) {
        expect_run_refused("in.txt --memory-limit " + bytes, bytes, "K, M or G");
    }
    for (const std::string lost : {"1", "1@", "1@5", "@5%", "1@101%", "1@-1%", "1@5%%"}) {
        expect_run_refused("in.txt --lose-host " + lost, lost, "expected N@P%", "0 to 100");
    }
    expect_run_refused("in.txt --hosts 4 --lose-host 5@1%", "no host 5", "1 to 4");
    const Ran ran = shell("OMRA_STORE=none: pmi run " + plugin("plain") + " in.txt");
    EXPECT_EQ(ran.status, 2);
    EXPECT_THAT(ran.err, AllOf(HasSubstr("OMRA_STORE"), HasSubstr("\"none:\"")));
}

TEST_F(BadInput, indexes) {
    for (const std::string option : {"--index", "--index-from"}) {
        expect_run_refused("in.txt " + option + " 8=a", option + " 8=a", "allowed are 0 to 7");
        expect_run_refused("in.txt " + option + " -1=a", option + " -1=a", "allowed are 0 to 7");
        expect_run_refused("in.txt " + option + " x=a", option + " x=a", "allowed are 0 to 7");
        expect_run_refused("in.txt " + option + " 1", option + " 1", "expected N=");
    }
    const std::string paragraphs = "in.txt --split paragraphs --index-from 0=A ";
    expect_run_refused(paragraphs + "--index-from 0=B", "0=B", "filled from a field already");
    expect_run_refused(paragraphs + "--index-from 1=", "name is missing");
    expect_run_refused(paragraphs + "--index 1=a", "nothing fills index 1");
    expect_run_refused(paragraphs + "--index 0=" + std::string(33, 'a'), "33 bytes", "up to 32");
    expect_run_refused("in.txt --index-from 0=A", "--split paragraphs");
    expect_run_refused("in.txt --index 2=a", "0 (extension) and 1 (size)");
    expect_run_refused("in.txt --index 1=a", "'a' is not a number of bytes");
    std::string nine = "in.txt";
    for (int i = 0; i < 9; ++i) {
        nine += " --index 0=a";
    }
    expect_run_refused(nine, "9 times", "8 times are allowed");
    expect_run_refused("--eval once --index 0=a", "'once'");
}

TEST_F(BadInput, parametersThatAreTooLongOrMissing) {
    write("huge", "");
    std::filesystem::resize_file("huge", 5'000'000'000u); // takes no space
    expect_run_refused("in.txt --params-file huge", "'huge'", "5000000000 bytes", "allowed are");
    expect_run_refused("in.txt --params-file none", "'none'", "No such file");
    expect_run_refused("huge", "'huge'", "5000000000 bytes");
}

TEST_F(BadInput, unreadableOrEmptyInput) {
    write("empty", "");
    write("blank", "\n \n");
    std::filesystem::create_directory("folder");
    expect_run_refused("none", "'none'", "No such file");
    expect_run_refused("in.txt /proc/self/mem", "'/proc/self/mem'", "Input/output error");
    expect_run_refused("empty", "'empty' is empty");
    expect_run_refused("folder", "'folder' is empty");
    expect_run_refused("blank --split paragraphs", "'blank' is empty");
    expect_run_refused("-", "'-' is empty");
}

TEST_F(BadInput, unknownPlugins) {
    expect_refused("run ./none.so in.txt", "'./none.so'", "No such file");
    expect_refused("functions ./", "not a regular file");
    expect_refused("functions ./in.txt", "'./in.txt'", "cannot be loaded");
    expect_refused("run libm.so.6 in.txt", "'libm.so.6'", "given by its path"); // no search
    std::filesystem::copy_file(plugin("plain"), "here.so");
    expect_refused("functions here.so", "'here.so'", "'./here.so'");
    EXPECT_EQ(pmi("functions ./here.so").status, 0);
}

// A plug-in that others may write, or exchange for another.
TEST_F(BadInput, pluginsOfOthers) {
    std::filesystem::create_directories("folder/inner");
    std::filesystem::copy_file(plugin("plain"), "folder/inner/here.so");
    std::filesystem::create_symlink("folder/inner/here.so", "link.so");
    const char *const file = "folder/inner/here.so";
    const auto expect_both_refused = [](const auto &...parts) {
        expect_refused("functions folder/inner/here.so", "'folder/inner/here.so'", parts...);
        expect_refused("functions ./link.so", "'./link.so'", parts...);
    };
    const auto expect_fine = [] {
        EXPECT_EQ(pmi("functions folder/inner/here.so").status, 0);
        EXPECT_EQ(pmi("functions ./link.so").status, 0);
    };
    expect_fine();
    chmod(file, 0757);
    expect_both_refused("everybody may write", "/inner/here.so'", "mode 0757", "chmod o-w");
    chmod(file, 0755);
    chmod("folder", 0777);
    expect_both_refused("everybody may write", "/folder'", "mode 0777", "you and root");
    chmod("folder", 01777); // as /tmp
    expect_fine();
    if (geteuid() == 0) { // only root may give files away
        constexpr uid_t other = 1;
        const auto give = [](const char *path, uid_t user, gid_t group) {
            EXPECT_EQ(chown(path, user, group), 0);
        };
        for (const char *path : {file, "folder/inner"}) {
            give(path, other, 0);
            expect_both_refused("belongs to user 1;", "(user 0) or to root");
            give(path, 0, other);
            chmod(path, 0775);
            expect_both_refused("group 1 may write", "mode 0775", "chmod g-w");
            give(path, 0, 0); // a group of root alone
            expect_fine();
        }
    }
}

TEST_F(BadInput, unknownFunctions) {
    expect_run_refused("in.txt --eval none", "no eval function 'none'", "length, once, park");
    expect_run_refused("in.txt --eval sum", "no eval function 'sum'");
    expect_run_refused("in.txt --merge none", "no merge function 'none'", "sum, refuse");
    expect_refused("run " + plugin("NO_MERGE") + " in.txt", "it has no merge function");
}

TEST_F(BadInput, faultyPlugins) {
    const auto expect = [](const std::string &fault, const auto &...parts) {
        expect_refused("functions " + plugin(fault), parts...);
    };
    expect("SAME_ID", "'first' and 'second'", "same id 5");
    expect("SAME_NAME", "5 and 6", "same name 'first'");
    expect("ID_64", "'second' has id 64", "0 to 63");
    expect("NOTHING", "registers no function");
    expect("OTHER_VERSION", "version 99");
    expect("NULL_FUNCTION", "'second' is NULL");
}

} // namespace
