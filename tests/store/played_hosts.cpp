#include "played_hosts.h"

#include <algorithm>
#include <cstring>

#include "support/failing_memory.h"

namespace {

constexpr unsigned int timeout_m = 1; /* of results and exceptions, as the module makes them */

/* As the module stores them, but for what is not looked at. */
struct Exception {
    char head[8] = {1};
    OMRA_OBJKEY key{};
};

PlayedHosts *played = nullptr;
std::uint32_t receiving = 0; /* the host whose callback runs */

int on_invoke(const char *pguid, OMRALIB_INVOKE_PARAMS *pparams) {
    const failing_memory::Exposure exposure(false);
    EXPECT_EQ("the worker guid ", std::string_view(pguid, OMRALIB_GUID_LEN));
    EXPECT_FALSE(played->gone.contains(receiving)) << "a request that was withdrawn is handed over";
    const Job job{receiving, *pparams};
    const int answer = played->answer(job);
    if (answer == OMRALIB_INVOKE_ACCEPTED) {
        ++played->num_jobs;
        played->jobs.push_back(job);
    } else {
        played->refused.push_back(job);
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
    EXPECT_EQ(success, Omralib_remove_obj(hdl, 0, key));
    return records;
}

} // namespace

std::vector<OMRA_OBJKEY> Job::keys() const {
    std::vector<OMRA_OBJKEY> keys(static_cast<std::size_t>(params.num_keys));
    EXPECT_EQ(success, Omralib_get_invoke_keys(params.context, keys.data(), length_of(keys)));
    return keys;
}

PlayedHosts::PlayedHosts(const TestEngine &engine, const store::Configuration &configuration,
                         unsigned long long num_objects)
    : store(decorated(engine.make(clock, configuration)), clock, configuration) {
    store::DecoratedCluster &cluster = decorator_of(store.cluster());
    cluster.in_order = true;
    cluster.on_receive = [this](const store::HostId &host) {
        receiving = host.number;
        before_hand_over(receiving);
    };
    decorator_of(store.objects()).fates = cluster.fates = [this] {
        const bool is_lost = is_invoking_ && loses_answer();
        return !is_lost       ? store::Fate::as_usual
               : pick(2) == 0 ? store::Fate::answer_lost
                              : store::Fate::never_left;
    };
    played = this;
    clock.on_wait = [this](store::Millis deadline) {
        const failing_memory::Exposure exposure(false);
        turn(deadline);
    };
    OMRALIB_CB cb;
    cb.invoke_ext_cb = on_invoke;
    EXPECT_EQ(success, Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb));
    EXPECT_EQ(success, Omralib_start_app_event_handling(worker, event_app));
    for (unsigned long long i = num_objects; i-- > 0;) {
        EXPECT_EQ(success, put(hdl, make_key(data_app, i), "x"));
    }
}

void PlayedHosts::kill(std::uint32_t host, bool as_zombie) {
    for (Job &job : jobs) {
        if (job.host == host && !job.is_zombie) {
            job.is_zombie = true;
            job.rests_until = as_zombie ? 0 : store::never;
        }
    }
    gone.insert(host);
    EXPECT_EQ(success, Omralib_declare_host_gone(host));
}

/* Steps ---------------------------------------------------------------------------------------- */

void PlayedHosts::go_on(store::Millis deadline) {
    std::vector<std::list<Job>::iterator> able;
    for (auto job = jobs.begin(); job != jobs.end(); ++job) {
        if (job->rests_until <= clock.now()) {
            able.push_back(job);
        }
    }
    if (!able.empty()) {
        clock.advance(pick(step_bound));
        step(able[pick(able.size())]);
        return;
    }
    for (const Job &job : jobs) {
        deadline = std::min(deadline, job.rests_until);
    }
    ASSERT_NE(store::never, deadline) << "the invocation waits for nothing";
    clock.advance(deadline - clock.now());
}

void PlayedHosts::step(std::list<Job>::iterator job) {
    static constexpr void (PlayedHosts::*steps[])(Job &) = {
        &PlayedHosts::compute, &PlayedHosts::store_results, &PlayedHosts::store_exceptions};
    before_step(*job);
    if (job->rests_until > clock.now()) {
        return;
    }
    job->worker = job->worker != 0 ? job->worker : Omralib_open_ext("the worker guid ");
    if (job->num_steps == std::size(steps)) {
        const int status = complete(*job, job->num_successful, job->num_failed);
        /* One that has not heard of it goes on with its other chunks. */
        const bool is_chunk = job->params.exceptions_key.obj_id.u64_comp[1] != 0;
        EXPECT_FALSE(job->is_zombie && status == success && !is_chunk)
            << "a dead host's reply counts";
        if (status != success) {
            Omralib_flush_invoke(job->params.context);
        }
        EXPECT_EQ(success, Omralib_close(job->worker));
        jobs.erase(job);
        return;
    }
    const bool was_invoking = std::exchange(is_invoking_, false);
    (this->*steps[job->num_steps++])(*job);
    is_invoking_ = was_invoking;
}

void PlayedHosts::finish_zombies() {
    std::erase_if(jobs, [](const Job &job) { return job.rests_until == store::never; });
    while (!jobs.empty()) {
        jobs.front().is_zombie = true;
        jobs.front().rests_until = 0;
        step(jobs.begin());
    }
    for (const Job &job : refused) {
        std::vector<OMRA_OBJKEY> keys(static_cast<std::size_t>(job.params.num_keys));
        EXPECT_NE(success,
                  Omralib_get_invoke_keys(job.params.context, keys.data(), length_of(keys)))
            << "a refused request stays open";
    }
}

void PlayedHosts::compute(Job &job) {
    if (job.is_fold()) {
        job.results = get(job.worker, job.params.params_key);
        job.num_failed = job.results.starts_with("status") ? 1 : 0; /* there is no source */
        job.num_successful = 1 - job.num_failed;
        return;
    }
    const std::vector<OMRA_OBJKEY> keys = job.keys();
    for (const OMRA_OBJKEY &key : keys) {
        if (get(job.worker, key) != "x") { /* it is dropped, as one that has gone would be */
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

/* Results that there is no room for are lost. */
void PlayedHosts::store_results(Job &job) {
    const OMRA_OBJKEY key = job.params.results_key;
    if (job.results.empty() || (job.is_fold() && job.num_failed != 0)) {
        return;
    }
    int status = put(job.worker, key, job.results, timeout_m);
    if (status == OMRALIB_ERR_OBJ_EXISTS) {
        unsigned int len = 0;
        const int ticket = Omralib_read_and_lock_obj(job.worker, 0, 0, &len, key);
        ASSERT_GT(ticket, 0);
        const std::string target = fetch(job.worker, len);
        if (merge_fails()) {
            job.exceptions += bytes_of(Exception{});
        } else {
            status = update(job.worker, key, ticket, target + job.results, false);
        }
        EXPECT_EQ(success, Omralib_unlock_obj(job.worker, ticket, 0, key));
    }
    if (status == OMRALIB_ERR_NO_SPACE) {
        job.num_failed += std::exchange(job.num_successful, 0);
    }
}

void PlayedHosts::store_exceptions(Job &job) {
    if (!job.exceptions.empty()) {
        put(job.worker, job.params.exceptions_key, job.exceptions, timeout_m);
    }
}

/* As the invoker does it: exceptions are asked for only when something has failed. */
Outcome PlayedHosts::invoke(const OMRA_INDEX_HDR &header, std::string_view query,
                            OMRALIB_HANDLE by) {
    const OMRALIB_HANDLE its_hdl = by != 0 ? by : hdl;
    const std::string request = bytes_of(header).append(query);
    Outcome outcome;
    OMRA_INVOKE_RESULT &result = outcome.result;
    unsigned int len = 0;
    is_invoking_ = true;
    {
        const failing_memory::Exposure exposure(true);
        outcome.status = Omralib_invoke(its_hdl, 0, request.data(), length_of(request), &len);
    }
    is_invoking_ = false;
    if (outcome.status == success) {
        EXPECT_EQ(success, Omralib_get_read_data(its_hdl, &result, sizeof result));
        EXPECT_EQ(OMRALIB_INDEX_OP_INVOKE, result.reserved);
    }
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

Outcome PlayedHosts::invoke(unsigned int timeout_s, OMRALIB_HANDLE by) {
    OMRA_INDEX_HDR header = make_header(data_app);
    header.invoke_timeout = timeout_s;
    return invoke(header, "", by);
}
