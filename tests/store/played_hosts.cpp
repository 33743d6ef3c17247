#include "played_hosts.h"

#include <algorithm>
#include <cstring>
#include <ranges>

namespace {

constexpr unsigned int timeout_m = 1; /* of results and exceptions, as the module makes them */

/* As the module stores them, but for what is not looked at. */
struct Exception {
    char head[8] = {1};
    OMRA_OBJKEY key{};
};

PlayedHosts *played = nullptr;
std::uint32_t receiving = 0; /* the host whose callback runs */

int on_invoke(const char *, OMRALIB_INVOKE_PARAMS *pparams) {
    const Job job{receiving, *pparams};
    const int answer = played->answer(job);
    if (answer == OMRALIB_INVOKE_ACCEPTED) {
        ++played->num_jobs;
        played->jobs.push_back(job);
    }
    return answer;
}

/* The records of an object, which is removed. */
template <typename Record>
std::vector<Record> take(OMRALIB_HANDLE hdl, const OMRA_OBJKEY &key) {
    const std::string bytes = get(hdl, key);
    EXPECT_EQ(0u, bytes.size() % sizeof(Record)) << bytes;
    std::vector<Record> records(bytes.size() / sizeof(Record));
    std::memcpy(records.data(), bytes.data(), records.size() * sizeof(Record));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_remove_obj(hdl, 0, key));
    return records;
}

} // namespace

PlayedHosts::PlayedHosts(const store::EngineKind &engine, const store::Configuration &configuration,
                         unsigned long long num_objects, unsigned int seed)
    : store(decorated(engine.make(clock, configuration)), clock, configuration), random_(seed) {
    store::DecoratedCluster &cluster = decorator_of(store.cluster());
    cluster.in_order = true;
    cluster.on_receive = [](const store::Request &request) {
        receiving = request.share.host.number;
    };
    decorator_of(store.objects()).fates = cluster.fates = [this] {
        const bool is_lost = is_invoking_ && loses_answer();
        return !is_lost       ? store::Fate::as_usual
               : pick(2) == 0 ? store::Fate::answer_lost
                              : store::Fate::never_left;
    };
    played = this;
    clock.on_wait = [this](store::Millis deadline) { turn(deadline); };
    OMRALIB_CB cb;
    cb.invoke_ext_cb = on_invoke;
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_start_app_event_handling(worker, event_app));
    for (unsigned long long i = 0; i < num_objects; ++i) {
        EXPECT_EQ(OMRALIB_RET_SUCCESS, put(hdl, make_key(data_app, i), "x"));
    }
}

void PlayedHosts::kill(std::uint32_t host, bool as_zombie) {
    for (Job &job : jobs) {
        if (job.host == host && !job.is_zombie) {
            job.is_zombie = true;
            job.is_stuck = !as_zombie;
        }
    }
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_declare_host_gone(host));
}

/* Steps ---------------------------------------------------------------------------------------- */

void PlayedHosts::go_on(store::Millis deadline) {
    auto able = jobs | std::views::filter([](const Job &job) { return !job.is_stuck; });
    if (const auto num = static_cast<unsigned int>(std::ranges::distance(able)); num != 0) {
        clock.advance(pick(step_bound));
        step(std::ranges::next(able.begin(), pick(num)).base());
    } else if (deadline != store::never) {
        clock.advance(deadline - clock.now());
    } else {
        ADD_FAILURE() << "the invocation waits for nothing";
        Omralib_cancel_invoke(hdl);
    }
}

void PlayedHosts::step(std::list<Job>::iterator job) {
    static constexpr void (PlayedHosts::*steps[])(Job &) = {
        &PlayedHosts::compute, &PlayedHosts::store_results, &PlayedHosts::store_exceptions};
    before_step(*job);
    if (job->is_stuck) {
        return;
    }
    if (job->num_steps == std::size(steps)) {
        report(*job);
        jobs.erase(job);
        return;
    }
    const bool was_invoking = std::exchange(is_invoking_, false);
    (this->*steps[job->num_steps++])(*job);
    is_invoking_ = was_invoking;
}

void PlayedHosts::finish_zombies() {
    while (!jobs.empty()) {
        jobs.front().is_zombie = true;
        step(jobs.begin());
        std::erase_if(jobs, [](const Job &job) { return job.is_stuck; });
    }
}

void PlayedHosts::compute(Job &job) {
    if (job.is_fold()) {
        job.results = get(worker, job.params.params_key);
        return;
    }
    std::vector<OMRA_OBJKEY> keys(static_cast<std::size_t>(job.params.num_keys));
    EXPECT_EQ(OMRALIB_RET_SUCCESS,
              Omralib_get_invoke_keys(job.params.context, keys.data(), length_of(keys)));
    for (const OMRA_OBJKEY &key : keys) {
        if (get(worker, key) != "x") { /* it is dropped, as one that has gone would be */
            ++job.num_dropped;
        } else if (fails(key.obj_id.u64_comp[0])) {
            job.exceptions += bytes_of(Exception{.key = key});
            ++job.num_failed;
        } else {
            job.results += bytes_of(key.obj_id.u64_comp[0]);
        }
    }
    job.num_successful = length_of(keys) - job.num_failed;
}

void PlayedHosts::store_results(Job &job) {
    const OMRA_OBJKEY key = job.params.results_key;
    if (job.is_fold()) {
        const bool has_source = !job.results.starts_with("status");
        job.num_successful = has_source ? 1 : 0;
        job.num_failed = has_source ? 0 : 1;
        if (!has_source) {
            return;
        }
    }
    if (job.results.empty() || put(worker, key, job.results, timeout_m) == OMRALIB_RET_SUCCESS) {
        return;
    }
    unsigned int len = 0;
    const int ticket = Omralib_read_and_lock_obj(worker, 0, 0, &len, key);
    ASSERT_GT(ticket, 0);
    const std::string target = fetch(worker, len);
    if (merge_fails()) {
        job.exceptions += bytes_of(Exception{});
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_unlock_obj(worker, ticket, 0, key));
    } else {
        EXPECT_EQ(OMRALIB_RET_SUCCESS, update(worker, key, ticket, target + job.results, true));
    }
}

void PlayedHosts::store_exceptions(Job &job) {
    if (!job.exceptions.empty()) {
        EXPECT_EQ(OMRALIB_RET_SUCCESS,
                  put(worker, job.params.exceptions_key, job.exceptions, timeout_m));
    }
}

void PlayedHosts::report(Job &job) {
    const int status =
        Omralib_complete_invoke(worker, job.params.context, job.num_successful, job.num_failed);
    if (status != OMRALIB_RET_SUCCESS) {
        Omralib_flush_invoke(job.params.context);
    }
    EXPECT_FALSE(job.is_zombie && status == OMRALIB_RET_SUCCESS) << "a dead host's reply counts";
}

/* As the invoker does it: exceptions are asked for only when something has failed. */
Outcome PlayedHosts::invoke(unsigned int timeout_s, OMRALIB_HANDLE its_hdl) {
    OMRA_INDEX_HDR header = make_header(data_app, event_app);
    header.invoke_timeout = timeout_s;
    Outcome outcome;
    is_invoking_ = true;
    outcome.status = ::invoke(its_hdl, header, "", outcome.result);
    is_invoking_ = false;
    const OMRA_INVOKE_RESULT &result = outcome.result;
    if (!OMRA_OBJKEY_IS_NULL(result.results_key)) {
        outcome.evaluated = take<unsigned long long>(its_hdl, result.results_key);
    }
    if (result.num_failed != 0 && !OMRA_OBJKEY_IS_NULL(result.exceptions_key)) {
        for (const Exception &exception : take<Exception>(its_hdl, result.exceptions_key)) {
            outcome.failed.push_back(exception.key.obj_id.u64_comp[0]);
        }
    }
    std::ranges::sort(outcome.evaluated);
    std::ranges::sort(outcome.failed);
    return outcome;
}
