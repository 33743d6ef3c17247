// Runs the pmi program in a folder of the test's own and catches what it prints.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <sys/wait.h>

struct Ran {
    int status; // exit code, 128 and the number for a signal
    std::string out;
    std::string err;
};

class ProgramTest : public testing::Test {
protected:
    ProgramTest() {
        std::string name = testing::TempDir() + "pmi_XXXXXX";
        folder_ = mkdtemp(name.data());
        std::filesystem::current_path(folder_);
    }
    ~ProgramTest() override {
        std::filesystem::current_path("/");
        std::filesystem::remove_all(folder_);
    }

    static void write(const std::string &path, std::string_view content) {
        std::ofstream(path, std::ios::binary) << content;
    }
    static std::string read(const std::string &path) {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    // Runs a line of shell in which "pmi" is the program, which is $pmi, $p is the tests' plug-in,
    // and $examples the folder of the examples.
    static Ran shell(const std::string &line) {
        write("script.sh", "pmi=" PMI_PROGRAM " p=" PMI_TEST_PLUGIN " examples=" PMI_EXAMPLES "\n"
                           "pmi() { $pmi \"$@\"; }\n" +
                               line);
        const int status = std::system("sh ./script.sh >out.txt 2>err.txt </dev/null");
        Ran ran{WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), read("out.txt"),
                read("err.txt")};
        for (const char *path : {"script.sh", "out.txt", "err.txt"}) {
            std::filesystem::remove(path);
        }
        return ran;
    }
    static Ran pmi(const std::string &arguments) { return shell("pmi " + arguments); }

private:
    std::string folder_;
};
