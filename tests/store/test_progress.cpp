/* What an application hears of an invocation while it runs, how it ends one, and how invocations
 * wait for each other. */
#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <thread>

#include "played_hosts.h"

namespace {

constexpr unsigned long long num_objects = 60;

struct Report {
    store::Millis time;
    OMRALIB_PROGRESS progress;
};

/* Invocations whose reports are kept. */
struct WatchedHosts : PlayedHosts {
    explicit WatchedHosts(const EngineParam &engine) : PlayedHosts(engine, 4) {
        store_objects(num_objects);
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_set_progress_func(hdl, note, this));
    }

    static void note(const OMRALIB_PROGRESS *pprogress, void *parg) {
        auto *self = static_cast<WatchedHosts *>(parg);
        self->reports.push_back({self->clock.now(), *pprogress});
        if (self->on_report) {
            self->on_report(*pprogress);
        }
    }

    std::vector<Report> reports;
    std::function<void(const OMRALIB_PROGRESS &)> on_report;
};

class Progress : public testing::TestWithParam<EngineParam> {};
FOR_ALL_ENGINES(Progress);

TEST_P(Progress, IsReportedAtMostTenTimesASecondAndAtTheEnd) {
    WatchedHosts hosts(GetParam());
    const OMRALIB_HANDLE other = Omralib_open_ext("another process ");
    hosts.turn = [&](store::Millis) {
        for (unsigned long long i = 0; i < num_objects; ++i) { /* no reads of the hosts' */
            EXPECT_EQ("x", get(other, make_key(PlayedHosts::data_app, i)));
        }
        hosts.clock.advance(30);
        const auto late = std::find_if(hosts.jobs.begin(), hosts.jobs.end(),
                                       [](const Job &job) { return job.num_steps == 0; });
        hosts.step(late != hosts.jobs.end() ? late : hosts.jobs.begin());
    };
    ASSERT_EQ(OMRALIB_RET_SUCCESS, hosts.invoke().status);

    const std::vector<Report> &reports = hosts.reports;
    ASSERT_GE(reports.size(), 5u);
    EXPECT_EQ(0u, reports.front().progress.num_done);
    bool knows_of_running = false;
    for (std::size_t i = 1; i < reports.size(); ++i) {
        const OMRALIB_PROGRESS &now = reports[i].progress;
        EXPECT_TRUE(i + 1 == reports.size() || reports[i].time - reports[i - 1].time >= 100);
        EXPECT_EQ(num_objects, now.num_matched);
        EXPECT_EQ(4u, now.num_hosts);
        EXPECT_GE(now.num_done, reports[i - 1].progress.num_done);
        knows_of_running |= now.num_hosts_done == 0 && now.num_done > 0;
    }
    EXPECT_TRUE(knows_of_running);
    const OMRALIB_PROGRESS &last = reports.back().progress;
    EXPECT_EQ(num_objects, last.num_done);
    EXPECT_EQ(num_objects / 5, last.num_failed);
    EXPECT_EQ(4u, last.num_hosts_done);

    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_set_progress_func(hosts.hdl, nullptr, nullptr));
    const std::size_t before = reports.size();
    ASSERT_EQ(OMRALIB_RET_SUCCESS, hosts.invoke().status);
    EXPECT_EQ(before, reports.size());
    EXPECT_FALSE(hosts.store.serving.requests.is_noticing());
}

TEST_P(Progress, CancellingDropsWhatHasNotBegun) {
    WatchedHosts hosts(GetParam());
    hosts.on_report = [&](const OMRALIB_PROGRESS &progress) {
        if (progress.num_hosts_done == 1) {
            EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_cancel_invoke(hosts.hdl));
        }
    };
    hosts.turn = [&](store::Millis) {
        hosts.clock.advance(100);
        hosts.step(hosts.jobs.begin());
    };
    EXPECT_EQ(OMRALIB_ERR_CANCELLED, hosts.invoke().status);
    EXPECT_EQ(1u, hosts.reports.back().progress.num_hosts_done);
    EXPECT_EQ(OMRALIB_ERR_NOT_READING, Omralib_flush_read_data(hosts.hdl));

    /* The others read their objects only now. Nobody else misses one. */
    ASSERT_EQ(3u, hosts.jobs.size());
    EXPECT_TRUE(hosts.store.serving.requests.is_noticing());
    hosts.before_step = [&](Job &job) {
        const auto num_keys = static_cast<std::uint32_t>(job.params.num_keys);
        EXPECT_EQ(job.num_steps == 0 ? 0 : num_keys, job.num_dropped);
    };
    for (unsigned long long i = 0; i < num_objects; ++i) {
        EXPECT_EQ("x", get(hosts.hdl, make_key(PlayedHosts::data_app, i)));
    }
    hosts.finish_zombies();
    EXPECT_EQ(0u, hosts.num_temp_objects());
    EXPECT_FALSE(hosts.store.serving.requests.is_noticing());

    hosts.before_step = [](Job &) {};
    hosts.on_report = nullptr;
    EXPECT_EQ(num_objects * 4 / 5, hosts.invoke().result.num_successful);
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_cancel_invoke(hosts.hdl));
    EXPECT_EQ(OMRALIB_ERR_BAD_HANDLE, Omralib_cancel_invoke(OMRALIB_NULL_HANDLE));
}

TEST_P(Progress, CancellingLeavesAnotherInvocationOfTheSameObjectsAlone) {
    PlayedHosts hosts(GetParam(), 4);
    hosts.store_objects(num_objects);
    const OMRALIB_HANDLE other = Omralib_open_ext(nullptr);
    const auto step_at_random = hosts.turn;
    hosts.turn = [&](store::Millis deadline) {
        if (hosts.num_jobs == 4) {
            EXPECT_EQ(OMRALIB_ERR_CANCELLED, hosts.invoke(0, other).status);
        } else if (hosts.num_jobs == 8 && !hosts.store.serving.requests.is_noticing()) {
            EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_cancel_invoke(other)); /* the inner one waits */
            std::for_each(std::next(hosts.jobs.begin(), 4), hosts.jobs.end(),
                          [](Job &job) { job.is_stuck = true; });
        } else {
            step_at_random(deadline);
        }
    };
    EXPECT_EQ(num_objects * 4 / 5, hosts.invoke().evaluated.size());
    EXPECT_TRUE(hosts.store.serving.requests.is_noticing());
}

TEST_P(Progress, InvocationsWaitTheirTurnAgainstTheirDeadline) {
    store::Configuration configuration;
    configuration.max_invocations = 1;
    PlayedHosts hosts(GetParam(), 2, 0, configuration);
    hosts.store_objects(num_objects);
    const OMRALIB_HANDLE other = Omralib_open_ext(nullptr);
    std::vector<Outcome> inner;
    bool is_inner = false;
    bool cancels = false;
    const auto outer_turn = hosts.turn;
    hosts.turn = [&](store::Millis deadline) {
        if (is_inner) {
            EXPECT_EQ(2u, hosts.stats().num_invocations_running);
            EXPECT_EQ(2, hosts.num_jobs); /* of the outer one */
            if (cancels) {
                Omralib_cancel_invoke(other);
            } else {
                hosts.clock.advance(deadline - hosts.clock.now());
            }
        } else if (inner.size() < 2) {
            cancels = inner.size() == 1;
            is_inner = true;
            inner.push_back(hosts.invoke(10, other));
            is_inner = false;
        } else {
            outer_turn(deadline);
        }
    };
    EXPECT_EQ(num_objects * 4 / 5, hosts.invoke().result.num_successful);
    ASSERT_EQ(2u, inner.size());
    EXPECT_EQ(OMRALIB_ERR_INVOKE_TIMEOUT, inner[0].status);
    EXPECT_EQ(OMRALIB_ERR_CANCELLED, inner[1].status);
    EXPECT_EQ(num_objects * 4 / 5, hosts.invoke(0, other).result.num_successful);
    EXPECT_EQ(0u, hosts.num_temp_objects());
}

TEST(Admission, IsFirstComeFirstServed) {
    TestClock clock;
    store::Mailroom mailroom(clock);
    store::Admission admission(mailroom, 2);
    store::Mailbox box(mailroom);
    const auto enter = [&] { return std::make_unique<store::Admission::Place>(admission, box); };
    auto first = enter();
    auto second = enter();
    auto third = enter();
    auto fourth = enter();
    auto fifth = enter();
    EXPECT_TRUE(first->is_admitted() && second->is_admitted());
    EXPECT_FALSE(third->is_admitted());
    third.reset(); /* gives up */
    second.reset();
    EXPECT_TRUE(fourth->is_admitted());
    EXPECT_FALSE(fifth->is_admitted());
    first.reset();
    EXPECT_TRUE(fifth->is_admitted());
}

/* Real threads: invocations of all kinds at once, hosts that go, others that are cancelled. */
class ManyInvocations : public StoreTest {
protected:
    ManyInvocations() : StoreTest(configuration()) {}

    static store::Configuration configuration() {
        store::Configuration configuration;
        configuration.num_hosts = 4;
        configuration.max_invocations = 3;
        return configuration;
    }

    static int on_invoke(const char *, OMRALIB_INVOKE_PARAMS *pparams) {
        const std::lock_guard guard(lock);
        queue.push_back(*pparams);
        wake.notify_one();
        return OMRALIB_INVOKE_ACCEPTED;
    }

    /* A host's worker thread: an object comes to one byte, a merge puts bytes together. */
    static void work() {
        const OMRALIB_HANDLE worker = Omralib_open_ext("the worker guid ");
        for (;;) {
            std::unique_lock guard(lock);
            wake.wait(guard, [] { return stopping || !queue.empty(); });
            if (queue.empty()) {
                return;
            }
            const OMRALIB_INVOKE_PARAMS params = queue.front();
            queue.pop_front();
            guard.unlock();
            const unsigned int num =
                params.merge_request != 0 ? merge(worker, params) : evaluate(worker, params);
            if (Omralib_complete_invoke(worker, params.context, num, 0) != OMRALIB_RET_SUCCESS) {
                Omralib_flush_invoke(params.context);
            }
        }
    }

    static unsigned int evaluate(OMRALIB_HANDLE worker, const OMRALIB_INVOKE_PARAMS &params) {
        std::vector<OMRA_OBJKEY> keys(static_cast<std::size_t>(params.num_keys));
        const auto num = static_cast<unsigned int>(keys.size());
        Omralib_get_invoke_keys(params.context, keys.data(), num);
        std::string results;
        for (const OMRA_OBJKEY &key : keys) {
            const std::string data = get(worker, key);
            results += data == "x" ? data : "";
        }
        put(worker, params.results_key, results, 1);
        return num;
    }

    static unsigned int merge(OMRALIB_HANDLE worker, const OMRALIB_INVOKE_PARAMS &params) {
        const std::string source = get(worker, params.params_key);
        unsigned int len = 0;
        const int ticket = Omralib_read_and_lock_obj(worker, 0, 0, &len, params.results_key);
        if (ticket > 0) { /* else it has been withdrawn */
            update(worker, params.results_key, ticket, fetch(worker, len) + source, true);
        }
        return 1;
    }

    /* Invokes again and again; every answer that comes is exact. */
    void invoke_often(OMRALIB_HANDLE hdl, std::atomic<int> &num_done) {
        OMRA_INDEX_HDR header{};
        header.reserved = OMRALIB_INDEX_OP_INVOKE;
        header.app_id = 5;
        header.reserved2 = 77;
        for (int i = 0; i < 40; ++i) {
            unsigned int len = 0;
            const int status = Omralib_invoke(hdl, 0, &header, sizeof header, &len);
            ++num_done;
            if (status == OMRALIB_ERR_CANCELLED) {
                continue;
            }
            ASSERT_EQ(OMRALIB_RET_SUCCESS, status);
            OMRA_INVOKE_RESULT result;
            ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_read_data(hdl, &result, len));
            EXPECT_EQ(num_objects, result.num_successful);
            EXPECT_EQ(std::string(num_objects, 'x'), get(hdl, result.results_key));
            EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_remove_obj(hdl, 0, result.results_key));
        }
    }

    static inline std::mutex lock;
    static inline std::condition_variable wake;
    static inline std::deque<OMRALIB_INVOKE_PARAMS> queue; /* guarded by lock */
    static inline bool stopping = false;                   /* guarded by lock */
};
FOR_ALL_ENGINES(ManyInvocations);

TEST_P(ManyInvocations, StayExactWhileHostsGoAndSomeAreCancelled) {
    for (unsigned long long i = 0; i < num_objects; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(5, i), "x"));
    }
    OMRALIB_CB cb;
    cb.invoke_ext_cb = on_invoke;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb));
    const OMRALIB_HANDLE serving = Omralib_open_ext("the worker guid ");
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_start_app_event_handling(serving, 77));
    std::atomic<int> num_done{0};
    std::vector<std::thread> workers(3);
    for (std::thread &worker : workers) {
        worker = std::thread(work);
    }
    const OMRALIB_HANDLE cancelled = Omralib_open_ext(nullptr);
    Omralib_set_progress_func(
        cancelled, [](const OMRALIB_PROGRESS *, void *) {}, nullptr);
    std::vector<std::thread> invokers;
    for (int i = 0; i < 5; ++i) {
        const OMRALIB_HANDLE hdl = i == 0 ? cancelled : Omralib_open_ext(nullptr);
        invokers.emplace_back([this, hdl, &num_done] { invoke_often(hdl, num_done); });
    }
    for (unsigned int gone = 0; num_done < 5 * 40;) {
        if (num_done > static_cast<int>(50 * (gone + 1)) && gone < 3) {
            EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_declare_host_gone(++gone + 1));
        }
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_cancel_invoke(cancelled));
        std::this_thread::yield();
    }
    for (std::thread &invoker : invokers) {
        invoker.join();
    }
    {
        const std::lock_guard guard(lock);
        stopping = true;
        wake.notify_all();
    }
    for (std::thread &worker : workers) {
        worker.join();
    }
    EXPECT_EQ(0u, count(hdl_, 0x30000000));
}

} // namespace
