// The module and the shipped store under load: threads that invoke all the time, on four hosts that
// die, refuse requests and run functions that fail, with every answer checked against a model.
//
// Time is cut into lives. A life is a process of its own, since a host that has died does not come
// back: in main, live(); there, invoke_all() on every invoking thread, in rounds, between which
// nothing runs and nothing may be left (QuietMoment). Random choices come from the printed seed;
// which thread runs when does not.
//
// The model. Objects are numbers. A result is the set of the objects in it, so that one that is
// merged twice meets itself. An invocation asks for the first N objects, and its parameters say
// which of them fail. Then:
//   successful + failed = N, and the result holds just the successful objects;
//   an eval exception names each object that the parameters let fail, once, with its code;
//   all others are successful, unless a merge failed or no host was left that took their request.
#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <bitset>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <malloc.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "pmicli.h"
#include "storapp.h"
#include "sysapp.h"

namespace {

constexpr unsigned int app = 7;
constexpr unsigned int eval_id = 1;
constexpr unsigned int merge_id = 2;
constexpr unsigned int once_id = 3;
constexpr unsigned int max_objects = 5000;
constexpr unsigned int num_hosts = 4;
constexpr int eval_code = 1000; // plus the object
constexpr int merge_code = 77;

using Clock = std::chrono::steady_clock;
using Random = std::mt19937_64;

// What has been seen, in memory that all lives share.
struct Totals {
    std::atomic<unsigned long long> invocations, objects, failed, lost, errors, refusals, deaths,
        merges;
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

// User functions ---------------------------------------------------------------------------------

struct Params {
    unsigned long long salt;
    unsigned int eval_permille;  // of the objects fail
    unsigned int merge_permille; // of the merges fail
};

bool is_failing(const Params &params, unsigned int object) {
    const unsigned long long mixed = (params.salt + object) * 0x9E3779B97F4A7C15;
    return (mixed >> 32) % 1000 < params.eval_permille;
}

struct Result {
    unsigned int merge_permille;
    std::bitset<max_objects> objects;
};

Result &read_result(char *pbytes, std::size_t len) {
    check(len == sizeof(Result), "a result has {} bytes", len);
    return *reinterpret_cast<Result *>(pbytes);
}

int give(const Result &result, char **ppresult_out, unsigned int *presult_len_out) {
    void *pblock = Omrapmi_malloc(sizeof result);
    *ppresult_out = reinterpret_cast<char *>(new (pblock) Result(result));
    *presult_len_out = sizeof result;
    return 0;
}

Params read_params(const char *pparams, unsigned int params_len) {
    Params params;
    check(params_len >= sizeof params, "parameters have {} bytes", params_len);
    std::memcpy(&params, pparams, sizeof params);
    return params;
}

int eval(const char *pdata, unsigned int data_len, const char *pparams, unsigned int params_len,
         char **ppresult_out, unsigned int *presult_len_out) {
    const Params params = read_params(pparams, params_len);
    unsigned int object;
    check(data_len == sizeof object, "an object has {} bytes", data_len);
    std::memcpy(&object, pdata, sizeof object);
    if (is_failing(params, object)) {
        return eval_code + static_cast<int>(object);
    }
    Result result{params.merge_permille, {}};
    result.objects.set(object);
    return give(result, ppresult_out, presult_len_out);
}

int once(const char *, unsigned int, const char *pparams, unsigned int params_len,
         char **ppresult_out, unsigned int *presult_len_out) {
    Result result{read_params(pparams, params_len).merge_permille, {}};
    result.objects.set(0);
    return give(result, ppresult_out, presult_len_out);
}

int merge(char *pdst, unsigned int dst_len, const char *psrc, unsigned int src_len,
          char **ppmerged_out, unsigned int *pmerged_len_out) {
    thread_local Random random(std::random_device{}()); // a merge does not know its invocation
    Result &dst = read_result(pdst, dst_len);
    const Result &src = read_result(const_cast<char *>(psrc), src_len);
    check((dst.objects & src.objects).none(), "an object is merged twice");
    if (happens(random, dst.merge_permille)) {
        return merge_code;
    }
    if (happens(random, 500)) {
        return give({dst.merge_permille, dst.objects | src.objects}, ppmerged_out, pmerged_len_out);
    }
    dst.objects |= src.objects;
    *ppmerged_out = pdst;
    *pmerged_len_out = dst_len;
    return 0;
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
    thread_local Random random(std::random_device{}());
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

// Kills hosts at random moments until the life is over.
class Reaper {
public:
    Reaper(Random::result_type seed, Clock::duration life, unsigned int num_deaths)
        : random_(seed), life_(life), num_deaths_(num_deaths) {}
    Reaper(const Reaper &) = delete;
    Reaper &operator=(const Reaper &) = delete;
    ~Reaper() {
        {
            const std::lock_guard guard(lock_);
            is_over_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }

private:
    void run() {
        std::array<unsigned int, num_hosts> hosts = {1, 2, 3, 4};
        std::shuffle(hosts.begin(), hosts.end(), random_);
        std::vector<Clock::time_point> moments;
        for (unsigned int i = 0; i < num_deaths_; ++i) {
            moments.push_back(Clock::now() + life_ * static_cast<long>(random_() % 1000) / 1000);
        }
        std::sort(moments.begin(), moments.end());
        std::unique_lock lock(lock_);
        for (unsigned int i = 0; i < num_deaths_; ++i) {
            if (changed_.wait_until(lock, moments[i], [this] { return is_over_; })) {
                return;
            }
            all_dead = i + 1 == num_hosts;
            Omralib_declare_host_gone(hosts[i]);
            ++totals->deaths;
        }
    }

    Random random_;
    const Clock::duration life_;
    const unsigned int num_deaths_;
    std::mutex lock_;
    std::condition_variable changed_;
    bool is_over_ = false;
    std::thread thread_{[this] { run(); }};
};

// Invocations ------------------------------------------------------------------------------------

struct Freer {
    void operator()(void *pblock) const { Omrapmi_free(pblock); }
};

// One invocation and what it must come to.
class Invocation {
public:
    Invocation(Random &random, unsigned int thread)
        : num_refused_for_good_(num_refused_for_good[thread]), is_once_(happens(random, 50)),
          num_objects_(is_once_ ? 1 : static_cast<unsigned int>(draw_size(random))),
          params_{random(), draw_eval_permille(random), happens(random, 200) ? 5u : 0u},
          bytes_(sizeof params_ + (happens(random, 300) ? 100 : 0)) {
        std::memcpy(bytes_.data(), &params_, sizeof params_);
        args_.app_id = is_once_ ? MGTI_APPID_INVOKE_ONCE : app;
        args_.func_id_eval = is_once_ ? once_id : eval_id;
        args_.func_id_merge = merge_id;
        args_.pparams_obj = bytes_.data();
        args_.params_obj_len = static_cast<ULONG>(bytes_.size());
        args_.timeout_s = happens(random, 20) ? 1 : first_timeout_s + thread;
        args_.use_exceptions = happens(random, 900) ? TRUE : FALSE;
        if (!is_once_) {
            query_ = fmt::format("limit {}", num_objects_);
            args_.use_query_spec = OMRAPMI_QUERY_PASS_THROUGH;
            args_.pquery_spec = query_.data();
            args_.query_spec_len = static_cast<ULONG>(query_.size());
        }
    }

    // Returns how many objects it leaves in the store: its parameters, when it fails.
    unsigned int run(OMRALIB_HANDLE hdl) {
        num_refused_for_good_ = 0;
        OMRAPMI_INVOKE_EXT_ARGS args_ext{app, FALSE, FALSE};
        const int status = Omrapmi_invoke_ext(hdl, &args_, &args_ext);
        ++totals->invocations;
        may_be_lost_ = num_refused_for_good_ != 0 || all_dead;
        if (status != OMRALIB_RET_SUCCESS) {
            ++totals->errors;
            check_error(status);
            return bytes_.size() > OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN ? 1 : 0;
        }
        check_answer();
        return 0;
    }

private:
    static unsigned int draw_size(Random &random) {
        return static_cast<unsigned int>(happens(random, 300) ? random() % 10
                                                              : random() % (max_objects + 1));
    }
    static unsigned int draw_eval_permille(Random &random) {
        constexpr std::array permilles = {0u, 0u, 1u, 10u, 200u, 1000u};
        return permilles[random() % permilles.size()];
    }

    void check_error(int status) const {
        const bool expected = (status == OMRALIB_ERR_NO_WORKER && may_be_lost_) ||
                              (status == OMRALIB_ERR_INVOKE_TIMEOUT && args_.timeout_s == 1);
        check(expected, "an invocation failed with {}", status);
        check(args_.presults_obj_out == nullptr && args_.num_failed_out == 0,
              "outputs of a failure");
    }

    void check_answer() {
        const std::unique_ptr<char, Freer> presult(args_.presults_obj_out);
        const std::unique_ptr<OMRAPMI_EXCEPTION, Freer> pexceptions(args_.pexceptions_out);
        const unsigned int num_successful = args_.num_successful_out;
        check(num_successful + args_.num_failed_out == num_objects_,
              "{} objects, but {} successful and {} failed", num_objects_, num_successful,
              args_.num_failed_out);
        std::bitset<max_objects> objects;
        if (presult != nullptr) {
            objects = read_result(presult.get(), args_.results_obj_len_out).objects;
        }
        check(objects.count() == num_successful, "{} objects in the result, {} successful",
              objects.count(), num_successful);
        std::bitset<max_objects> named;
        bool merge_failed = args_.use_exceptions == FALSE && params_.merge_permille != 0;
        if (args_.use_exceptions) {
            named = check_exceptions(objects, merge_failed);
        }
        check_each(objects, named, merge_failed);
        totals->objects += num_objects_;
        totals->failed += args_.num_failed_out;
        totals->merges += merge_failed ? 1 : 0;
    }

    // The objects that exceptions name.
    std::bitset<max_objects> check_exceptions(const std::bitset<max_objects> &objects,
                                              bool &merge_failed) const {
        std::bitset<max_objects> named;
        for (ULONG i = 0; i < args_.num_exceptions_out; ++i) {
            const OMRAPMI_EXCEPTION &exception = args_.pexceptions_out[i];
            if (!exception.is_eval) {
                check(exception.code == merge_code && params_.merge_permille != 0,
                      "a merge exception with code {}", exception.code);
                merge_failed = true;
                continue;
            }
            const auto object = static_cast<unsigned int>(exception.key.obj_id.u64_comp[0]);
            check(object < num_objects_ && is_failing(params_, object) &&
                      exception.code == eval_code + static_cast<int>(object),
                  "an exception of object {} with code {}", object, exception.code);
            check(!named[object] && !objects[object], "object {} is counted twice", object);
            named.set(object);
        }
        return named;
    }

    void check_each(const std::bitset<max_objects> &objects, const std::bitset<max_objects> &named,
                    bool merge_failed) const {
        unsigned int num_lost = 0;
        for (unsigned int object = 0; object < max_objects; ++object) {
            const bool is_asked = object < num_objects_;
            const bool fails = is_asked && !is_once_ && is_failing(params_, object);
            check(!objects[object] || (is_asked && !fails), "object {} must not be in the result",
                  object);
            const bool is_there = objects[object] || !is_asked || (fails && merge_failed) ||
                                  (fails && (named[object] || !args_.use_exceptions));
            num_lost += is_there ? 0 : 1;
        }
        check(num_lost == 0 || merge_failed || may_be_lost_, "{} of {} objects are lost", num_lost,
              num_objects_);
        totals->lost += merge_failed ? 0 : num_lost;
    }

    std::atomic<unsigned int> &num_refused_for_good_;
    const bool is_once_;
    const unsigned int num_objects_;
    const Params params_;
    std::vector<char> bytes_; // of the parameters
    std::string query_;
    OMRAPMI_INVOKE_ARGS args_{};
    bool may_be_lost_ = false;
};

// A life -----------------------------------------------------------------------------------------

void set_up() {
    OMRALIB_CONFIG config{};
    config.num_hosts = num_hosts;
    check(Omralib_configure(&config) == OMRALIB_RET_SUCCESS, "the store cannot be configured");
    const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
    for (unsigned int object = 0; object < max_objects; ++object) {
        OMRA_OBJKEY key{};
        key.app_id = app;
        key.obj_id.u64_comp[0] = object;
        key.obj_id.u64_comp[1] = 1;
        check(Omralib_store_obj(hdl, 0, &object, sizeof object, 0, key) == OMRALIB_RET_SUCCESS,
              "an object cannot be stored");
    }
    Omralib_close(hdl);
    Omrapmi_worker_register_eval_func(eval, eval_id, app);
    Omrapmi_worker_register_merge_func(merge, merge_id, app);
    Omrapmi_worker_register_invoke_once_eval_func(once, once_id, app);
    Omrapmi_worker_init_ext(4);
    check(Omrapmi_worker_start(app) == OMRALIB_RET_SUCCESS, "the worker does not start");
    OMRALIB_CB cb;
    cb.invoke_ext_cb = refuse_some;
    Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb);
}

// What the C library has handed out beside the module's blocks; 0 in builds with a sanitizer.
std::size_t heap_use() {
    const struct mallinfo2 info = mallinfo2();
    std::size_t blocks_of_module = 0;
    for (unsigned int tag = 0; tag < 256; ++tag) {
        blocks_of_module += Sys_get_mem_use(tag).bytes;
    }
    const std::size_t use = info.uordblks + info.hblkhd;
    return use - std::min(use, blocks_of_module);
}

// What is to be seen between two rounds, when nothing runs.
class QuietMoment {
public:
    QuietMoment(unsigned int num_threads, Clock::time_point warm)
        : num_threads_(num_threads), warm_(warm) {}

    // `num_left`: the parameters objects of invocations that failed.
    void check_all(unsigned int num_left) {
        check_memory();
        check_store(num_left);
        check(Sys_get_assert_count() == 0, "an assertion failed");
        const std::size_t use = heap_use();
        if (Clock::now() >= warm_ && warm_use_ == 0) {
            warm_use_ = use;
        }
        // Caches of threads, tables that have grown; and what was left for its time-out.
        const std::size_t allowed = (2 << 20) + std::size_t{num_left} * 1024;
        check(warm_use_ == 0 || use <= warm_use_ + allowed, "memory grows: {} bytes after {}", use,
              warm_use_);
    }

private:
    // No block of an invocation, and no more descriptors than the most work that there can be.
    void check_memory() const {
        for (const unsigned int tag : {0xD1u, 0xD2u, 0xD3u, 0xD6u, 0xD8u}) {
            // Hosts that were given up finish what they have begun.
            const auto patience = Clock::now() + std::chrono::seconds(60);
            while (Sys_get_mem_use(tag).blocks != 0) {
                check(Clock::now() < patience, "memory of tag {:#x} is left", tag);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        // Work may be there twice: for a host that has died, and for the one in its place.
        constexpr unsigned int work_tag = 0xD5;
        constexpr std::size_t descriptor_len = 128;
        const std::size_t most = 2 * std::size_t{num_threads_} * max_objects * descriptor_len;
        const std::size_t used = Sys_get_mem_use(work_tag).bytes;
        check(used <= most + (1 << 20), "{} bytes of work descriptors", used);
    }

    static void check_store(unsigned int num_left) {
        const auto patience = Clock::now() + std::chrono::seconds(60);
        OMRALIB_STATS stats{};
        do {
            Omralib_get_stats(&stats);
            check(Clock::now() < patience, "{} objects are left, not {}", stats.num_objects,
                  max_objects + num_left);
        } while (stats.num_objects != max_objects + num_left);
        check(stats.num_invocations_running == 0, "invocations that run");
    }

    const unsigned int num_threads_;
    const Clock::time_point warm_;
    std::size_t warm_use_ = 0; // at the first quiet moment when everything was warm
};

// Invokes in rounds until the life is over; `quiet` is where the threads meet between rounds.
template <class Quiet>
void invoke_all(Random::result_type seed, unsigned int thread, const std::atomic<bool> &is_over,
                Quiet &quiet, std::atomic<unsigned int> &num_left) {
    Random random(seed);
    const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
    while (!is_over) {
        for (unsigned int i = 0; i < 10; ++i) {
            num_left += Invocation(random, thread).run(hdl);
        }
        quiet.arrive_and_wait();
    }
    Omralib_close(hdl);
}

void live(Random::result_type seed, Clock::duration duration, unsigned int num_threads) {
    Random random(seed);
    set_up();
    const auto end = Clock::now() + duration;
    std::atomic<bool> is_over{false};
    std::atomic<unsigned int> num_left{0};
    QuietMoment quiet_moment(num_threads, end - duration * 2 / 3);
    const auto meet = [&]() noexcept {
        quiet_moment.check_all(num_left);
        is_over = Clock::now() >= end || all_dead;
    };
    std::barrier quiet(num_threads, meet);
    {
        const Reaper reaper(random(), duration, static_cast<unsigned int>(random() % 5));
        std::vector<std::thread> threads;
        for (unsigned int i = 0; i < num_threads; ++i) {
            threads.emplace_back([&, i, thread_seed = random()] {
                invoke_all(thread_seed, i, is_over, quiet, num_left);
            });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
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
    fmt::print("load: {} lives, {} invocations of {} objects, of which {} failed, {} for want of a "
               "host; {} invocations with failed merges, {} errors; {} refusals, {} hosts died\n",
               num_lives, totals->invocations.load(), totals->objects.load(), totals->failed.load(),
               totals->lost.load(), totals->merges.load(), totals->errors.load(),
               totals->refusals.load(), totals->deaths.load());
    return good ? 0 : 1;
}
