// The module and the shipped store under load: threads that invoke all the time, on four hosts that
// die, refuse requests and run functions that fail, with every answer checked.
//
// Time is cut into lives. A life is a process of its own, since a host that has died does not come
// back: in main, live(); there, invoke_all() on every invoking thread, in rounds, between which
// nothing runs and nothing may be left (check_quiet). The first thread's invocations are also
// cancelled. Random choices come from the printed seed; which thread runs when does not.
//
// The functions and the check of an answer are those of support/set_functions.h. An invocation's
// label, in its parameters, says which evals fail and whether merges do. What may be lost: nothing,
// but where no host was left that took a request, and in a life of little memory. In another one no
// handle is left for the threads that handle requests: nobody may wait for them.
#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "pmicli.h"
#include "storapp.h"
#include "support/set_functions.h"
#include "sysapp.h"

namespace {

constexpr unsigned int app = 7;
constexpr unsigned int num_objects = set_functions::no_object; // numbered from 0 on
constexpr unsigned int num_threads = 8;

using Clock = std::chrono::steady_clock;
using Random = std::mt19937_64;

// Made by all lives, in memory that they share.
std::atomic<unsigned long long> *num_invocations = nullptr;

template <class... Values>
void check(bool condition, fmt::format_string<Values...> what, Values &&...values) {
    if (!condition) {
        fmt::print(stderr, "load: {}\n", fmt::format(what, std::forward<Values>(values)...));
        std::_Exit(1);
    }
}

bool happens(Random &random, unsigned int permille) {
    return random() % 1000 < permille;
}

// Random choices of threads that are not ours: what each draws comes from the seed, too.
std::atomic<Random::result_type> next_seed;
Random &own_random() {
    thread_local Random random(next_seed++);
    return random;
}

// What a label says: the objects that fail, and whether merges do.
bool eval_fails(unsigned int object, unsigned int label) {
    constexpr std::array permilles = {0u, 0u, 0u, 0u, 1u, 10u, 200u, 1000u};
    const unsigned long long mixed = (label * 0x100000000ULL + object + 1) * 0x9E3779B97F4A7C15;
    return (mixed >> 32) % 1000 < permilles[label % permilles.size()];
}
bool merges_fail(unsigned int label) {
    return label % 40 >= 32;
}

// Hosts ------------------------------------------------------------------------------------------

enum class Mood { ample, little_memory, no_handles };
Mood mood = Mood::ample; // of the life

// What may cost objects: that all hosts have died, and that hosts refuse a request for good. The
// invocations of a thread have a time-out of their own, by which their requests are known.
std::atomic<bool> all_dead{false};
constexpr unsigned int first_timeout_s = 600;
std::array<std::atomic<unsigned int>, num_threads> num_refused_for_good;

// In front of the module's callback: now and then a host refuses.
int refuse_some(const char *pguid, OMRALIB_INVOKE_PARAMS *pparams) {
    Random &random = own_random();
    if (happens(random, 30)) {
        return random() % 2 == 0 ? OMRALIB_INVOKE_NO_KEYS : OMRALIB_INVOKE_NO_MEMORY;
    }
    if (pparams->invoke_timeout >= first_timeout_s && happens(random, 20)) {
        ++num_refused_for_good[pparams->invoke_timeout - first_timeout_s];
        return -1;
    }
    return Omrapmi_invoke_ext_cb(pguid, pparams);
}

// At random moments cancels the handle's invocations, or lets a host die; up to four of them do.
void disturb(const std::stop_token &stop, Random random, OMRALIB_HANDLE hdl) {
    std::vector<unsigned int> hosts = {1, 2, 3, 4};
    std::shuffle(hosts.begin(), hosts.end(), random);
    const std::size_t num_survivors = random() % (hosts.size() + 1);
    while (!stop.stop_requested()) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 100'000));
        check(Omralib_cancel_invoke(hdl) == OMRALIB_RET_SUCCESS, "cancelling failed");
        if (hosts.size() > num_survivors && happens(random, 100)) {
            all_dead = hosts.size() == 1;
            Omralib_declare_host_gone(hosts.back());
            hosts.pop_back();
        }
    }
}

// Invocations ------------------------------------------------------------------------------------

// Invokes and checks the answer.
void invoke(Random &random, unsigned int thread, OMRALIB_HANDLE hdl) {
    const bool is_once = happens(random, 50);
    const bool has_worker = !happens(random, 20), has_function = !happens(random, 20);
    constexpr std::array<std::size_t, 6> lens = {0, 4, 20, 32, 33, 100};
    std::vector<char> params(happens(random, 10) ? 1 << 20 : lens[random() % lens.size()]);
    const auto label = params.empty() ? 0 : static_cast<unsigned int>(random());
    std::copy_n(reinterpret_cast<const char *>(&label), params.empty() ? 0 : sizeof label,
                params.begin());
    OMRAPMI_INVOKE_ARGS args{};
    args.app_id = is_once ? MGTI_APPID_INVOKE_ONCE : app;
    args.func_id_eval = !has_function ? 9
                        : is_once     ? set_functions::once_id
                                      : set_functions::eval_id;
    args.func_id_merge = set_functions::merge_id;
    args.pparams_obj = params.empty() ? nullptr : params.data();
    args.params_obj_len = static_cast<ULONG>(params.size());
    args.timeout_s = happens(random, 20) ? 1 : first_timeout_s + thread;
    args.use_exceptions = happens(random, 900) ? TRUE : FALSE;
    set_functions::Invocation expected{};
    expected.fails = [=](unsigned int object) { return eval_fails(object, label); };
    expected.merges_may_fail = merges_fail(label);
    // Of all objects, or of the first ones.
    std::string text;
    expected.asked = set_functions::first_objects(num_objects);
    if (is_once) {
        expected.asked = set_functions::set_of({set_functions::no_object});
    } else if (!happens(random, 100)) {
        const auto limit =
            static_cast<unsigned int>(random() % (happens(random, 300) ? 10 : num_objects));
        if (happens(random, 1)) { // every object is tested thousands of times
            text = "size = 4 and not (size = 5";
            while (text.size() < 60'000) {
                text += " or size = 5";
            }
            text += ") ";
        }
        text += fmt::format("limit {}", limit);
        args.use_query_spec = OMRAPMI_QUERY_PASS_THROUGH;
        args.pquery_spec = text.data();
        args.query_spec_len = static_cast<ULONG>(text.size());
        expected.asked = set_functions::first_objects(limit);
    }
    num_refused_for_good[thread] = 0;
    OMRAPMI_INVOKE_EXT_ARGS args_ext{has_worker ? app : app + 1, FALSE, FALSE};
    const int status = Omrapmi_invoke_ext(hdl, &args, &args_ext);
    ++*num_invocations;
    expected.objects_may_be_lost =
        !has_function || num_refused_for_good[thread] != 0 || all_dead || mood != Mood::ample;
    if (status != OMRALIB_RET_SUCCESS) {
        check((status == OMRALIB_ERR_NO_WORKER && (expected.objects_may_be_lost || !has_worker)) ||
                  (status == OMRALIB_ERR_INVOKE_TIMEOUT && args.timeout_s == 1) ||
                  (status == OMRALIB_ERR_NO_SPACE && mood == Mood::little_memory) ||
                  (status == OMRALIB_ERR_CANCELLED && thread == 0),
              "an invocation failed with {}", status);
        check(args.presults_obj_out == nullptr && args.num_failed_out == 0, "outputs of a failure");
        return;
    }
    const std::string wrong = set_functions::check_answer(args, expected);
    check(wrong.empty(), "an invocation of {} objects with label {:#x}: {}", expected.asked.count(),
          label, wrong);
    check(has_worker && (has_function || args.results_obj_len_out + args.num_successful_out == 0),
          "an answer of nobody");
    Omrapmi_free(args.presults_obj_out);
    Omrapmi_free(args.pexceptions_out);
}

// A life -----------------------------------------------------------------------------------------

void set_up(Random &random) {
    constexpr std::array moods = {Mood::ample, Mood::ample, Mood::little_memory, Mood::no_handles};
    mood = moods[random() % moods.size()];
    OMRALIB_CONFIG config{};
    if (mood == Mood::little_memory) { // an object counts with 128 bytes more than its own
        config.memory_limit = num_objects * 132ull + random() % 100'000;
    }
    config.num_hosts = 4;
    config.max_invocations = 3; // others wait their turn
    check(Omralib_configure(&config) == OMRALIB_RET_SUCCESS, "the store cannot be configured");
    const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
    for (unsigned int object = 0; object < num_objects; ++object) {
        const OMRA_OBJKEY key{app, 0, 0, 0, {}, {{object, 1}}};
        const unsigned int timeout_m = object % 2 == 0 ? 0 : ~0u; // practically never
        check(Omralib_store_obj(hdl, 0, &object, sizeof object, timeout_m, key) == 1,
              "an object cannot be stored");
    }
    Omralib_close(hdl);
    // A thread has the key of an object whose function was unknown without having evaluated it.
    set_functions::script().ask = false;
    set_functions::script().on_eval = [](unsigned int) {
        OMRAPMI_INVOKE_ARGS args{};
        args.app_id = app;
        OMRAPMI_INVOKE_EXT_ARGS args_ext{app, FALSE, FALSE};
        if (happens(own_random(), 1)) {
            const OMRALIB_HANDLE inner = Omralib_open_ext(nullptr);
            check(Omrapmi_invoke_ext(inner, &args, &args_ext) == OMRALIB_ERR_INVOKE_INSIDE,
                  "a function may invoke");
            Omralib_close(inner);
        }
    };
    set_functions::script().fails = eval_fails;
    set_functions::script().merge_fails = [](const auto &dst, const auto &) {
        return merges_fail(dst.label) && happens(own_random(), 5);
    };
    const auto start = [] {
        check(set_functions::register_all(app) && Omrapmi_worker_init_ext(4) == 1 &&
                  Omrapmi_worker_start(app) == 1,
              "the worker does not start");
    };
    { const std::jthread one(start), other(start); } // either may come first
    Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, {.invoke_ext_cb = refuse_some});
}

// What is to be seen between two rounds, when nothing runs: no block of an invocation, no object
// but those that were stored, nothing reported. Hosts that were given up finish what they have
// begun.
void check_quiet() {
    const auto patience = Clock::now() + std::chrono::seconds(60);
    const auto is_quiet = [] {
        OMRALIB_STATS stats{};
        Omralib_get_stats(&stats);
        check(stats.num_invocations_running == 0, "invocations that run");
        check(stats.num_invocation_bytes < 16 << 20, "{} bytes are kept",
              stats.num_invocation_bytes);
        return stats.num_objects == num_objects &&
               std::ranges::none_of(std::array{0xD1u, 0xD2u, 0xD3u, 0xD6u, 0xD8u},
                                    [](auto tag) { return Sys_get_mem_use(tag).blocks != 0; });
    };
    for (; !is_quiet(); std::this_thread::yield()) {
        check(Clock::now() < patience, "memory or objects are left");
    }
    check(Sys_get_assert_count() == 0, "an assertion failed");
    const std::string wrong = set_functions::take_complaints();
    check(wrong.empty(), "the functions complain: {}", wrong);
}

void live(Random::result_type seed, Clock::time_point end) {
    Random random(seed);
    next_seed = random();
    set_up(random);
    std::atomic<bool> is_over{false};
    std::barrier quiet(num_threads, [&]() noexcept {
        if (mood != Mood::no_handles) { // else what was accepted stays for ever
            check_quiet();
        }
        is_over = Clock::now() >= end || all_dead || mood == Mood::no_handles;
    });
    std::array<OMRALIB_HANDLE, num_threads> handles;
    std::ranges::generate(handles, [] { return Omralib_open_ext(nullptr); });
    while (mood == Mood::no_handles && Omralib_open_ext(nullptr) != OMRALIB_NULL_HANDLE) {
    }
    const std::jthread disturber(disturb, Random(random()), handles[0]);
    std::vector<std::jthread> threads;
    for (unsigned int thread = 0; thread < num_threads; ++thread) {
        threads.emplace_back([&, thread, own = Random(random())]() mutable {
            while (!is_over) {
                for (unsigned int i = 0; i < 10; ++i) {
                    invoke(own, thread, handles[thread]);
                }
                quiet.arrive_and_wait();
            }
        });
    }
}

} // namespace

int main(int argc, char **argv) { // NOLINT(bugprone-exception-escape): ends the test
    unsigned int seconds = 10;
    unsigned long long seed = std::random_device{}();
    CLI::App app_options("Invokes under load and checks every answer.", "load_test");
    app_options.add_option("--seconds", seconds, "How long")->capture_default_str();
    app_options.add_option("--seed", seed, "Of all random choices (default: a random one)");
    CLI11_PARSE(app_options, argc, argv);

    num_invocations = new (mmap(nullptr, sizeof *num_invocations, PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0)) std::atomic<unsigned long long>;
    fmt::print(stderr, "load: --seconds {} --seed {}\n", seconds, seed);
    Random random(seed);
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    int status = 0;
    while (status == 0 && Clock::now() < end) {
        const Clock::time_point its_end = std::min(end, Clock::now() + std::chrono::seconds(3));
        const Random::result_type its_seed = random();
        const pid_t child = fork();
        if (child == 0) {
            live(its_seed, its_end);
            std::_Exit(0);
        }
        check(child > 0 && waitpid(child, &status, 0) == child, "a life cannot begin");
    }
    fmt::print("load: {} invocations\n", num_invocations->load());
    return status == 0 ? 0 : 1;
}
