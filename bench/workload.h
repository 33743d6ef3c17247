// What is measured: how many objects of which size, and what is computed from each of them.
//
// Every workload is a kernel: `eval` makes an object's bytes a result or refuses them, `merge`
// folds one result into another. The user functions of an invocation and the loops that it is
// compared with run the same kernel, so that both do the same work, the same number of merges, and
// must come to the same outcome.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "pmicli.h"

namespace bench {

inline constexpr unsigned int kAppId = 1; // of the objects
inline constexpr int kRefused = 7;        // what the eval function returns for a refused object
inline constexpr std::size_t kNumWords = 1000; // in the map that one object gives

enum class Merge { kSum, kSumWithWork, kWords };
enum class Query { kAll, kTerm, kRange, kExpression, kScan };

// Chosen on the command line.
struct Workload {
    unsigned int workers = 0; // worker threads; as many threads in what is compared
    std::size_t num_objects = 100'000;
    std::size_t object_len = 64; // bytes, a multiple of 8
    double eval_work_us = 0;     // arithmetic in each eval
    double merge_work_us = 1;    // and in each merge of kSumWithWork
    Merge merge = Merge::kSum;
    Query query = Query::kAll;
    unsigned int num_hosts = 1;
    unsigned int refused_percent = 0;
    std::size_t params_len = 0;
    bool indexed = false;        // the objects have the indexes that queries use
    bool use_exceptions = false; // exceptions are handed out
};

// The numbers of the objects that a query selects: `begin` up to, not including, `end`.
struct Selection {
    std::size_t begin;
    std::size_t end;

    std::size_t size() const { return end - begin; }
};

// What any way of computing a workload comes to.
struct Outcome {
    std::uint64_t value = 0; // of the merged result: the sum, or all words' counts in one number
    std::uint64_t num_successful = 0;
    std::uint64_t num_refused = 0;
    std::uint64_t num_exceptions = 0; // handed out, with key and code

    bool operator==(const Outcome &) const = default;
};

std::string to_string(const Outcome &outcome);

// Arithmetic of about as many nanoseconds as were asked for. It is counted, not timed: a thread
// that is interrupted does not get its work for nothing.
class Work {
public:
    Work() = default;
    explicit Work(double microseconds);
    void operator()() const {
        if (steps_ != 0) {
            run_steps(steps_);
        }
    }

private:
    static void run_steps(std::uint64_t steps);
    static double measure_steps_per_us();

    std::uint64_t steps_ = 0;
};

using Bytes = std::span<const char>;

// Adds up the object's 8-byte words and the first and last byte of the parameters. It is inline, as
// it would be in a loop that somebody writes for himself.
class SumKernel {
public:
    using Result = std::uint64_t;

    explicit SumKernel(const Workload &workload);
    bool eval(Bytes data, Bytes params, Result &result) const;
    void merge(Result &into, const Result &from) const;
    static std::uint64_t value(const Result &result) { return result; }

private:
    std::uint64_t refused_percent_;
    Work eval_work_;
    Work merge_work_;
};

struct WordCount {
    std::uint64_t word;
    std::uint64_t count;
};

inline bool SumKernel::eval(Bytes data, Bytes params, Result &result) const {
    const auto word = [data](std::size_t index) {
        std::uint64_t value = 0;
        std::memcpy(&value, data.data() + index * sizeof value, sizeof value);
        return value;
    };
    eval_work_();
    if (word(0) % 100 < refused_percent_) {
        return false;
    }
    result = 0;
    if (!params.empty()) {
        result += static_cast<unsigned char>(params.front());
        result += static_cast<unsigned char>(params.back());
    }
    for (std::size_t i = 0; i < data.size() / sizeof(std::uint64_t); ++i) {
        result += word(i);
    }
    return true;
}

inline void SumKernel::merge(Result &into, const Result &from) const {
    merge_work_();
    into += from;
}

// Counts of kNumWords words, sorted by word; a merge joins two maps in a third one.
class WordsKernel {
public:
    struct Result {
        std::unique_ptr<WordCount[]> counts;
        std::size_t size = 0;
    };

    explicit WordsKernel(const Workload &workload) : sum_(workload) {}
    bool eval(Bytes data, Bytes params, Result &result) const;
    bool eval_into(Bytes data, Bytes params, WordCount *counts) const; // kNumWords of them
    void merge(Result &into, const Result &from) const;
    static std::uint64_t value(const Result &result);
    static std::uint64_t value(std::span<const WordCount> counts);

private:
    SumKernel sum_;
};

// Writes the union of two sorted maps to `out`, which has room for both; returns its size.
std::size_t join_words(std::span<const WordCount> a, std::span<const WordCount> b, WordCount *out);

// What an object is filled with: its number, then words that depend on the number.
void fill_object(std::size_t number, std::span<char> bytes);

} // namespace bench
