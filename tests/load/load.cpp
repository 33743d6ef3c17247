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
// but where no host was left that took a request.
#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
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
constexpr unsigned int num_hosts = 4;
constexpr unsigned int num_classes = 10; // by index 0: the last digit of the object

using Clock = std::chrono::steady_clock;
using Random = std::mt19937_64;

// What has been seen, in memory that all lives share.
struct Totals {
    std::atomic<unsigned long long> invocations, objects, failed, errors, cancelled, refusals,
        deaths;
};
Totals *totals = nullptr;

[[noreturn]] void fail(const std::string &what) {
    fmt::print(stderr, "load: {}\n", what);
    std::fflush(stderr);
    std::_Exit(1);
}

template <class... Values>
void check(bool condition, fmt::format_string<Values...> what, Values &&...values) {
    if (!condition) {
        fail(fmt::format(what, std::forward<Values>(values)...));
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

// What may cost objects: that all hosts have died, and that hosts refuse a request for good. The
// invocations of a thread have a time-out of their own, by which their requests are known.
std::atomic<bool> all_dead{false};
constexpr unsigned int first_timeout_s = 600;
constexpr unsigned int max_threads = 1000;
std::array<std::atomic<unsigned int>, max_threads> num_refused_for_good;

// In front of the module's callback: now and then a host refuses.
int refuse_some(const char *pguid, OMRALIB_INVOKE_PARAMS *pparams) {
    Random &random = own_random();
    constexpr std::array for_the_moment = {OMRALIB_INVOKE_NO_KEYS, OMRALIB_INVOKE_NO_MEMORY};
    if (happens(random, 30)) {
        ++totals->refusals;
        return for_the_moment[random() % 2];
    }
    if (pparams->invoke_timeout >= first_timeout_s && happens(random, 20)) {
        ++totals->refusals;
        ++num_refused_for_good[pparams->invoke_timeout - first_timeout_s];
        return -1;
    }
    return Omrapmi_invoke_ext_cb(pguid, pparams);
}

// Kills hosts at random moments.
void kill_hosts(const std::stop_token &stop, Random random, Clock::duration life,
                unsigned int num_deaths) {
    std::array<unsigned int, num_hosts> hosts = {1, 2, 3, 4};
    std::shuffle(hosts.begin(), hosts.end(), random);
    std::vector<Clock::time_point> moments(num_deaths);
    for (Clock::time_point &moment : moments) {
        moment = Clock::now() + life * static_cast<long>(random() % 1000) / 1000;
    }
    std::sort(moments.begin(), moments.end());
    std::mutex mutex;
    std::unique_lock lock(mutex);
    std::condition_variable_any never;
    for (unsigned int i = 0; i < num_deaths; ++i) {
        never.wait_until(lock, stop, moments[i], [] { return false; });
        if (stop.stop_requested()) {
            return;
        }
        all_dead = i + 1 == num_hosts;
        Omralib_declare_host_gone(hosts[i]);
        ++totals->deaths;
    }
}

// Cancels the handle's invocations at random moments.
void cancel(const std::stop_token &stop, Random random, OMRALIB_HANDLE hdl) {
    while (!stop.stop_requested()) {
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 100'000));
        check(Omralib_cancel_invoke(hdl) == OMRALIB_RET_SUCCESS, "cancelling failed");
    }
}

// Invocations ------------------------------------------------------------------------------------

struct Freer {
    void operator()(void *pblock) const { Omrapmi_free(pblock); }
};

// One invocation and what it must come to.
class Invocation {
public:
    Invocation(Random &random, unsigned int thread)
        : thread_(thread), is_once_(happens(random, 50)), has_worker_(!happens(random, 20)),
          has_function_(!happens(random, 20)), label_(static_cast<unsigned int>(random())),
          params_(happens(random, 100) ? 0 : draw_params_len(random)) {
        label_ = params_.empty() ? 0 : label_;
        std::copy_n(reinterpret_cast<const char *>(&label_), params_.empty() ? 0 : sizeof label_,
                    params_.begin());
        args_.app_id = is_once_ ? MGTI_APPID_INVOKE_ONCE : app;
        args_.func_id_eval = !has_function_ ? 9
                             : is_once_     ? set_functions::once_id
                                            : set_functions::eval_id;
        args_.func_id_merge = set_functions::merge_id;
        args_.pparams_obj = params_.empty() ? nullptr : params_.data();
        args_.params_obj_len = static_cast<ULONG>(params_.size());
        args_.timeout_s = happens(random, 20) ? 1 : first_timeout_s + thread;
        args_.use_exceptions = happens(random, 900) ? TRUE : FALSE;
        expected_.fails = [this](unsigned int object) { return eval_fails(object, label_); };
        expected_.merges_may_fail = merges_fail(label_);
        ask(random);
    }
    Invocation(const Invocation &) = delete;
    Invocation &operator=(const Invocation &) = delete;

    // Returns how many objects it leaves in the store: its parameters, when it fails.
    unsigned int run(OMRALIB_HANDLE hdl) {
        num_refused_for_good[thread_] = 0;
        OMRAPMI_INVOKE_EXT_ARGS args_ext{has_worker_ ? app : app + 1, FALSE, FALSE};
        const int status = Omrapmi_invoke_ext(hdl, &args_, &args_ext);
        ++totals->invocations;
        expected_.objects_may_be_lost =
            !has_function_ || num_refused_for_good[thread_] != 0 || all_dead;
        if (status != OMRALIB_RET_SUCCESS) {
            ++totals->errors;
            check_error(status);
            return params_.size() > OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN ? 1 : 0;
        }
        check(has_worker_, "an invocation without a worker");
        const std::unique_ptr<char, Freer> presult(args_.presults_obj_out);
        const std::unique_ptr<OMRAPMI_EXCEPTION, Freer> pexceptions(args_.pexceptions_out);
        const std::string wrong = set_functions::check_answer(args_, expected_);
        check(wrong.empty(), "an invocation of {} objects with label {:#x}: {}",
              expected_.asked.count(), label_, wrong);
        check(has_function_ || (presult == nullptr && args_.num_successful_out == 0),
              "an answer of no function");
        totals->objects += expected_.asked.count();
        totals->failed += args_.num_failed_out;
        return 0;
    }

private:
    static std::size_t draw_params_len(Random &random) {
        constexpr std::array<std::size_t, 6> lens = {4, 20, 32, 33, 100, 1 << 20};
        return lens[happens(random, 10) ? 5 : random() % 5];
    }

    // For all objects, those of a class, or the first ones.
    void ask(Random &random) {
        const auto number = static_cast<unsigned int>(random() % num_objects);
        expected_.asked = set_functions::first_objects(num_objects);
        if (is_once_) {
            expected_.asked = set_functions::set_of({set_functions::no_object});
        } else if (happens(random, 100)) {
            return;
        } else if (happens(random, 200)) {
            spec_.match_all = 1;
            spec_.num_index_specs = 1;
            spec_.index_spec[0].value.u64_comp[0] = number % num_classes;
            args_.use_query_spec = OMRAPMI_QUERY_INDEX;
            args_.pquery_spec = &spec_;
            args_.query_spec_len = sizeof spec_;
            for (unsigned int object = 0; object < num_objects; ++object) {
                expected_.asked[object] = object % num_classes == number % num_classes;
            }
        } else {
            const unsigned int limit = happens(random, 300) ? number % 10 : number;
            query_ = fmt::format("limit {}", limit);
            args_.use_query_spec = OMRAPMI_QUERY_PASS_THROUGH;
            args_.pquery_spec = query_.data();
            args_.query_spec_len = static_cast<ULONG>(query_.size());
            expected_.asked = set_functions::first_objects(limit);
        }
    }

    void check_error(int status) const {
        const bool expected =
            (status == OMRALIB_ERR_NO_WORKER && (expected_.objects_may_be_lost || !has_worker_)) ||
            (status == OMRALIB_ERR_INVOKE_TIMEOUT && args_.timeout_s == 1) ||
            (status == OMRALIB_ERR_CANCELLED && thread_ == 0);
        check(expected, "an invocation failed with {}", status);
        totals->cancelled += status == OMRALIB_ERR_CANCELLED ? 1 : 0;
        check(args_.presults_obj_out == nullptr && args_.num_failed_out == 0,
              "outputs of a failure");
    }

    const unsigned int thread_;
    const bool is_once_, has_worker_, has_function_;
    unsigned int label_;
    std::vector<char> params_;
    std::string query_;
    OMRAPMI_QUERY_SPEC spec_{};
    OMRAPMI_INVOKE_ARGS args_{};
    set_functions::Invocation expected_{};
};

// A life -----------------------------------------------------------------------------------------

void set_up() {
    OMRALIB_CONFIG config{};
    config.num_hosts = num_hosts;
    config.max_invocations = 3; // others wait their turn
    check(Omralib_configure(&config) == OMRALIB_RET_SUCCESS, "the store cannot be configured");
    const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
    for (unsigned int object = 0; object < num_objects; ++object) {
        OMRA_OBJKEY key{};
        key.app_id = app;
        key.obj_id.u64_comp[0] = object;
        key.obj_id.u64_comp[1] = 1;
        OMRA_OBJ_INDEX index{};
        index.value.u64_comp[0] = object % num_classes;
        check(Omralib_store_indexed_obj(hdl, &object, sizeof object, 0, &index, 1, key) ==
                  OMRALIB_RET_SUCCESS,
              "an object cannot be stored");
    }
    Omralib_close(hdl);
    // A thread has the key of an object whose function was unknown without having evaluated it.
    set_functions::script().ask = false;
    set_functions::script().fails = eval_fails;
    set_functions::script().merge_fails = [](const set_functions::Result &dst,
                                             const set_functions::Result &) {
        return merges_fail(dst.label) && happens(own_random(), 5);
    };
    set_functions::register_all(app);
    Omrapmi_worker_init_ext(4);
    check(Omrapmi_worker_start(app) == OMRALIB_RET_SUCCESS, "the worker does not start");
    OMRALIB_CB cb;
    cb.invoke_ext_cb = refuse_some;
    Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb);
}

// What is to be seen between two rounds, when nothing runs: no block of an invocation, no object
// but those that were stored and `num_left` parameters of invocations that failed, nothing
// reported. Hosts that were given up finish what they have begun.
void check_quiet(unsigned int num_left) {
    const auto patience = Clock::now() + std::chrono::seconds(60);
    for (const unsigned int tag : {0xD1u, 0xD2u, 0xD3u, 0xD6u, 0xD8u}) {
        while (Sys_get_mem_use(tag).blocks != 0) {
            check(Clock::now() < patience, "memory of tag {:#x} is left", tag);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    OMRALIB_STATS stats{};
    do {
        Omralib_get_stats(&stats);
        check(Clock::now() < patience, "{} objects are left, not {}", stats.num_objects,
              num_objects + num_left);
    } while (stats.num_objects != num_objects + num_left);
    check(stats.num_invocations_running == 0, "invocations that run");
    check(Sys_get_assert_count() == 0, "an assertion failed");
    const std::string wrong = set_functions::take_complaints();
    check(wrong.empty(), "the functions complain: {}", wrong);
}

// Invokes in rounds until the life is over; `quiet` is where the threads meet between rounds.
template <class Quiet>
void invoke_all(Random random, unsigned int thread, const std::atomic<bool> &is_over, Quiet &quiet,
                std::atomic<unsigned int> &num_left) {
    const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
    std::optional<std::jthread> canceller;
    if (thread == 0) {
        canceller.emplace(cancel, Random(random()), hdl);
    }
    while (!is_over) {
        for (unsigned int i = 0; i < 10; ++i) {
            num_left += Invocation(random, thread).run(hdl);
        }
        quiet.arrive_and_wait();
    }
    canceller.reset();
    Omralib_close(hdl);
}

void live(Random::result_type seed, Clock::duration duration, unsigned int num_threads) {
    Random random(seed);
    next_seed = random();
    set_up();
    const auto end = Clock::now() + duration;
    std::atomic<bool> is_over{false};
    std::atomic<unsigned int> num_left{0};
    const auto meet = [&]() noexcept {
        check_quiet(num_left);
        is_over = Clock::now() >= end || all_dead;
    };
    std::barrier quiet(num_threads, meet);
    const std::jthread killer(kill_hosts, Random(random()), duration,
                              static_cast<unsigned int>(random() % 5));
    std::vector<std::jthread> threads;
    for (unsigned int i = 0; i < num_threads; ++i) {
        threads.emplace_back(
            [&, i, own = Random(random())] { invoke_all(own, i, is_over, quiet, num_left); });
    }
}

bool live_in_a_process(Random::result_type seed, Clock::duration duration,
                       unsigned int num_threads) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        live(seed, duration, num_threads);
        std::_Exit(0);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

} // namespace

int main(int argc, char **argv) {
    unsigned int seconds = 10;
    unsigned int num_threads = 8;
    unsigned long long seed = std::random_device{}();
    CLI::App app_options("Invokes under load and checks every answer.", "load_test");
    app_options.add_option("--seconds", seconds, "How long")->capture_default_str();
    app_options.add_option("--threads", num_threads, "Invoking threads")
        ->capture_default_str()
        ->check(CLI::Range(1u, max_threads));
    app_options.add_option("--seed", seed, "Of all random choices (default: a random one)");
    CLI11_PARSE(app_options, argc, argv);

    totals = new (mmap(nullptr, sizeof(Totals), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) Totals{};
    fmt::print("load: --seconds {} --threads {} --seed {}\n", seconds, num_threads, seed);
    Random random(seed);
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    constexpr Clock::duration longest_life = std::chrono::seconds(3);
    bool good = true;
    unsigned int num_lives = 0;
    while (good && Clock::now() < end) {
        good = live_in_a_process(random(), std::min(longest_life, end - Clock::now()), num_threads);
        ++num_lives;
    }
    fmt::print(
        "load: {} lives, {} invocations of {} objects, of which {} failed; {} errors, of which {} "
        "were asked for; {} refusals, {} hosts died\n",
        num_lives, totals->invocations.load(), totals->objects.load(), totals->failed.load(),
        totals->errors.load(), totals->cancelled.load(), totals->refusals.load(),
        totals->deaths.load());
    return good ? 0 : 1;
}
