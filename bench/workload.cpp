// The arithmetic of the kernels, and how many steps of work this machine does in a microsecond.
#include "workload.h"

#include <algorithm>
#include <chrono>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

namespace bench {

std::string to_string(const Outcome &outcome) {
    return fmt::format("value {}, {} successful, {} refused, {} exceptions", outcome.value,
                       outcome.num_successful, outcome.num_refused, outcome.num_exceptions);
}

// The fastest of several tries, so that an interrupted one does not count.
double Work::measure_steps_per_us() {
    constexpr std::uint64_t kSteps = 200'000;
    double fastest = 0;
    for (int i = 0; i < 20; ++i) {
        const auto start = std::chrono::steady_clock::now();
        run_steps(kSteps);
        const std::chrono::duration<double, std::micro> time =
            std::chrono::steady_clock::now() - start;
        fastest = std::max(fastest, static_cast<double>(kSteps) / time.count());
    }
    return fastest;
}

Work::Work(double microseconds) {
    if (microseconds > 0) {
        static const double steps_per_us = measure_steps_per_us();
        steps_ = static_cast<std::uint64_t>(microseconds * steps_per_us);
    }
}

// A chain of multiplications, each of which needs the one before.
void Work::run_steps(std::uint64_t steps) {
    std::uint64_t number = steps;
    for (std::uint64_t i = 0; i < steps; ++i) {
        number = number * 6364136223846793005u + 1442695040888963407u;
    }
    benchmark::DoNotOptimize(number);
}

SumKernel::SumKernel(const Workload &workload)
    : refused_percent_(workload.refused_percent), eval_work_(workload.eval_work_us),
      merge_work_(workload.merge == Merge::kSumWithWork ? workload.merge_work_us : 0) {}

bool WordsKernel::eval_into(Bytes data, Bytes params, WordCount *counts) const {
    std::uint64_t sum = 0;
    if (!sum_.eval(data, params, sum)) {
        return false;
    }
    for (std::size_t i = 0; i < kNumWords; ++i) {
        counts[i] = {i * 17, (sum + i) % 8 + 1};
    }
    return true;
}

bool WordsKernel::eval(Bytes data, Bytes params, Result &result) const {
    result.counts = std::make_unique_for_overwrite<WordCount[]>(kNumWords);
    result.size = kNumWords;
    return eval_into(data, params, result.counts.get());
}

void WordsKernel::merge(Result &into, const Result &from) const {
    auto joined = std::make_unique_for_overwrite<WordCount[]>(into.size + from.size);
    into.size =
        join_words({into.counts.get(), into.size}, {from.counts.get(), from.size}, joined.get());
    into.counts = std::move(joined);
}

std::uint64_t WordsKernel::value(std::span<const WordCount> counts) {
    std::uint64_t value = 0;
    for (const WordCount &each : counts) {
        value += (each.word + 1) * each.count;
    }
    return value;
}

std::uint64_t WordsKernel::value(const Result &result) {
    return value({result.counts.get(), result.size});
}

std::size_t join_words(std::span<const WordCount> a, std::span<const WordCount> b, WordCount *out) {
    WordCount *const begin = out;
    auto left = a.begin();
    auto right = b.begin();
    while (left != a.end() && right != b.end()) {
        if (left->word == right->word) {
            *out++ = {left->word, left++->count + right++->count};
        } else {
            *out++ = left->word < right->word ? *left++ : *right++;
        }
    }
    out = std::copy(left, a.end(), out);
    out = std::copy(right, b.end(), out);
    return static_cast<std::size_t>(out - begin);
}

void fill_object(std::size_t number, std::span<char> bytes) {
    std::uint64_t word = number;
    for (std::size_t i = 0; i + sizeof word <= bytes.size(); i += sizeof word) {
        std::memcpy(bytes.data() + i, &word, sizeof word);
        word = (word + 1) * 0x9E3779B97F4A7C15u;
    }
}

} // namespace bench
