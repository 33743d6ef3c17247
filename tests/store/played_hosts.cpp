#include "played_hosts.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t exception_bytes = 48;
constexpr std::size_t exception_key_offset = 8;
constexpr unsigned int timeout_m = 1; /* of results and exceptions, as the module makes them */

PlayedHosts *played = nullptr;

std::string make_exception(const OMRA_OBJKEY &key) {
    std::string record(exception_bytes, '\0');
    record[0] = 1;
    std::memcpy(record.data() + exception_key_offset, &key, sizeof key);
    return record;
}

void append_number(std::string &numbers, unsigned long long number) {
    numbers.append(reinterpret_cast<const char *>(&number), sizeof number);
}

} // namespace

PlayedHosts::PlayedHosts(const EngineParam &engine, std::uint32_t num_hosts, unsigned int seed,
                         const store::Configuration &more)
    : store(engine.make(clock, configuration(num_hosts, more)), clock,
            configuration(num_hosts, more)),
      random(seed), answer([](const Job &) { return OMRALIB_INVOKE_ACCEPTED; }),
      before_step([](Job &) {}), merge_fails([] { return false; }),
      loses_answer([] { return false; }),
      turn([this](store::Millis deadline) { take_turn(deadline); }) {
    cluster().in_order = true;
    cluster().on_receive = [this](const store::Request &request) {
        receiving_ = request.share.host.number;
    };
    objects().fates = cluster().fates = [this](std::string_view operation) {
        const bool may_be_lost = is_invoking_ && (!is_at_work_ || operation == "reply");
        return may_be_lost && loses_answer() ? (pick(2) == 0 ? lost : never_left) : as_usual;
    };
    played = this;
    clock.on_wait = [this](store::Millis deadline) { turn(deadline); };
    hdl = Omralib_open_ext(nullptr);
    worker = Omralib_open_ext("the worker guid ");
    OMRALIB_CB cb;
    cb.invoke_ext_cb = on_invoke;
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_register_cb(OMRALIB_CB_INVOKE_EXT, cb));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_start_app_event_handling(worker, event_app));
}

store::Configuration PlayedHosts::configuration(std::uint32_t num_hosts,
                                                store::Configuration more) {
    more.num_hosts = num_hosts;
    return more;
}

void PlayedHosts::store_objects(unsigned long long num) {
    for (unsigned long long i = 0; i < num; ++i) {
        ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl, make_key(data_app, i), "x"));
    }
}

OMRALIB_STATS PlayedHosts::stats() {
    OMRALIB_STATS stats{};
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_stats(&stats));
    return stats;
}

/* Requests ------------------------------------------------------------------------------------- */

int PlayedHosts::on_invoke(const char *, OMRALIB_INVOKE_PARAMS *pparams) {
    Job job;
    job.host = played->receiving_;
    job.params = *pparams;
    const int answer = played->answer(job);
    if (answer == OMRALIB_INVOKE_ACCEPTED) {
        ++played->num_jobs;
        played->jobs.push_back(job);
    }
    return answer;
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

/* Lets a job chosen at random go on; when there is none, time passes. */
void PlayedHosts::take_turn(store::Millis deadline) {
    std::vector<std::list<Job>::iterator> able;
    for (auto it = jobs.begin(); it != jobs.end(); ++it) {
        if (!it->is_stuck) {
            able.push_back(it);
        }
    }
    if (!able.empty()) {
        clock.advance(pick(4));
        step(able[pick(static_cast<unsigned int>(able.size()))]);
    } else if (deadline != store::never) {
        clock.advance(deadline - clock.now());
    } else {
        ADD_FAILURE() << "the invocation waits for nothing";
        Omralib_cancel_invoke(hdl);
    }
}

void PlayedHosts::step(std::list<Job>::iterator job) {
    before_step(*job);
    if (job->is_stuck) {
        return;
    }
    is_at_work_ = true;
    switch (++job->num_steps) {
    case 1:
        compute(*job);
        break;
    case 2:
        store_results(*job);
        break;
    case 3:
        store_exceptions(*job);
        break;
    default:
        report(*job);
        if (job->is_zombie) {
            EXPECT_NE(OMRALIB_RET_SUCCESS, job->report) << "a dead host's reply counts";
        }
        jobs.erase(job);
    }
    is_at_work_ = false;
}

void PlayedHosts::finish_zombies() {
    for (auto job = jobs.begin(); job != jobs.end();) {
        const auto next = std::next(job);
        job->is_zombie = true;
        for (int i = job->num_steps; i < 4 && !job->is_stuck; ++i) {
            step(job);
        }
        job = next;
    }
}

void PlayedHosts::compute(Job &job) {
    if (job.is_fold()) {
        job.results = get(worker, job.params.params_key);
        return;
    }
    std::vector<OMRA_OBJKEY> keys(static_cast<std::size_t>(job.params.num_keys));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_invoke_keys(job.params.context, keys.data(),
                                                           static_cast<unsigned int>(keys.size())));
    for (const OMRA_OBJKEY &key : keys) {
        if (get(worker, key) != "x") { /* it is dropped, as one that has gone would be */
            ++job.num_dropped;
            ++job.num_successful;
        } else if (fails(key.obj_id.u64_comp[0])) {
            job.exceptions += make_exception(key);
            ++job.num_failed;
        } else {
            append_number(job.results, key.obj_id.u64_comp[0]);
            ++job.num_successful;
        }
    }
}

void PlayedHosts::store_results(Job &job) {
    const OMRA_OBJKEY key = job.params.results_key;
    if (job.is_fold()) {
        const bool has_source = job.results.rfind("status", 0) != 0;
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
        job.exceptions += make_exception(OMRA_OBJKEY{});
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_unlock_obj(worker, ticket, 0, key));
    } else {
        EXPECT_EQ(OMRALIB_RET_SUCCESS, update(worker, key, ticket, target + job.results, true));
    }
}

void PlayedHosts::store_exceptions(const Job &job) {
    if (!job.exceptions.empty()) {
        EXPECT_EQ(OMRALIB_RET_SUCCESS,
                  put(worker, job.params.exceptions_key, job.exceptions, timeout_m));
    }
}

void PlayedHosts::report(Job &job) {
    job.report =
        Omralib_complete_invoke(worker, job.params.context, job.num_successful, job.num_failed);
    if (job.report != OMRALIB_RET_SUCCESS) {
        Omralib_flush_invoke(job.params.context);
    }
}

/* Invocations ---------------------------------------------------------------------------------- */

Outcome PlayedHosts::invoke(unsigned int timeout_s, OMRALIB_HANDLE its_hdl) {
    OMRA_INDEX_HDR header = make_header(data_app, event_app);
    header.invoke_timeout = timeout_s;
    Outcome outcome;
    is_invoking_ = true;
    outcome.status = ::invoke(its_hdl, header, "", outcome.result);
    is_invoking_ = false;
    if (outcome.status == OMRALIB_RET_SUCCESS) {
        take_objects(its_hdl, outcome);
    }
    return outcome;
}

/* As the invoker does it: exceptions are asked for only when something has failed. */
void PlayedHosts::take_objects(OMRALIB_HANDLE its_hdl, Outcome &outcome) {
    if (!OMRA_OBJKEY_IS_NULL(outcome.result.results_key)) {
        const std::string results = get(its_hdl, outcome.result.results_key);
        EXPECT_EQ(0u, results.size() % sizeof(unsigned long long)) << results;
        outcome.evaluated.resize(results.size() / sizeof(unsigned long long));
        std::memcpy(outcome.evaluated.data(), results.data(), results.size());
        std::sort(outcome.evaluated.begin(), outcome.evaluated.end());
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_remove_obj(its_hdl, 0, outcome.result.results_key));
    }
    if (outcome.result.num_failed != 0 && !OMRA_OBJKEY_IS_NULL(outcome.result.exceptions_key)) {
        const std::string exceptions = get(its_hdl, outcome.result.exceptions_key);
        EXPECT_EQ(0u, exceptions.size() % exception_bytes) << exceptions;
        for (std::size_t i = 0; i < exceptions.size(); i += exception_bytes) {
            OMRA_OBJKEY key;
            std::memcpy(&key, exceptions.data() + i + exception_key_offset, sizeof key);
            if (OMRA_OBJKEY_IS_NULL(key)) {
                ++outcome.num_merge_exceptions;
            } else {
                outcome.failed.push_back(key.obj_id.u64_comp[0]);
            }
        }
        std::sort(outcome.failed.begin(), outcome.failed.end());
        EXPECT_EQ(OMRALIB_RET_SUCCESS,
                  Omralib_remove_obj(its_hdl, 0, outcome.result.exceptions_key));
    }
}
