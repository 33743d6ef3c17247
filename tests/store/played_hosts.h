/* Hosts whose work a test carries out in small steps, on the invoking thread itself: whenever the
 * invocation would sleep, the test decides what happens next. So a run has one order of events and
 * a clock that moves when the test says so; with the same seed it is the same run.
 *
 * The hosts behave like the module: they store the results object of a request or merge into the
 * one that is there, then the exceptions, then they report. An object is evaluated to its number;
 * results are merged by putting them one after the other, so that a merged result tells which
 * objects are in it, and how often. */
#pragma once

#include <functional>
#include <list>
#include <random>

#include "store_test.h"

/* A request that a host has accepted. */
struct Job {
    std::uint32_t host = 0;
    OMRALIB_INVOKE_PARAMS params{};
    int num_steps = 0; /* done: 1 computed, 2 results stored, 3 exceptions stored, 4 reported */
    bool is_stuck = false;
    bool is_zombie = false; /* nobody wants it any more, but it goes on */
    int report = 0;         /* what the store said to the report */

    std::string results;
    std::string exceptions;
    std::uint32_t num_successful = 0;
    std::uint32_t num_failed = 0;
    std::uint32_t num_dropped = 0; /* objects that were not there to read */

    bool is_fold() const { return params.merge_request != 0; }
};

/* What an invocation came to, after its objects have been read and removed. */
struct Outcome {
    int status = 0;
    OMRA_INVOKE_RESULT result{};
    std::vector<unsigned long long> evaluated; /* numbers of objects, sorted */
    std::vector<unsigned long long> failed;    /* those with an exception, sorted */
    std::size_t num_merge_exceptions = 0;
};

class PlayedHosts {
public:
    static constexpr unsigned int event_app = 77;
    static constexpr unsigned int data_app = 5;
    static constexpr unsigned int temp_app = 0x30000000;

    PlayedHosts(const EngineParam &engine, std::uint32_t num_hosts, unsigned int seed = 0,
                const store::Configuration &more = {});
    PlayedHosts(const PlayedHosts &) = delete;
    PlayedHosts &operator=(const PlayedHosts &) = delete;

    /* The evaluation of these fails. */
    static bool fails(unsigned long long number) { return number % 5 == 3; }

    /* Stores the objects 0 to num - 1. */
    void store_objects(unsigned long long num);

    Outcome invoke(unsigned int timeout_s = 0) { return invoke(timeout_s, hdl); }
    Outcome invoke(unsigned int timeout_s, OMRALIB_HANDLE its_hdl);

    /* The host is gone; what it was doing ends, or goes on although nobody wants it. */
    void kill(std::uint32_t host, bool as_zombie);

    /* Carries out a step of a job, which is taken off the list when it has reported. */
    void step(std::list<Job>::iterator job);

    /* Does what late jobs still do when the invocation is over. */
    void finish_zombies();

    DecoratedObjects &objects() { return decorator_of(store.objects()); }
    DecoratedCluster &cluster() { return decorator_of(store.cluster()); }
    unsigned int pick(unsigned int bound) { return static_cast<unsigned int>(random() % bound); }
    unsigned long long num_temp_objects() { return count(hdl, temp_app); }
    OMRALIB_STATS stats();

    TestClock clock;
    store::Store store;
    OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE;
    OMRALIB_HANDLE worker = OMRALIB_NULL_HANDLE;
    std::mt19937 random;
    std::list<Job> jobs; /* accepted, in order */
    int num_jobs = 0;    /* ever accepted */

    /* The test's part; each has a default. */
    std::function<int(const Job &job)> answer; /* of the invoke callback */
    std::function<void(Job &job)> before_step; /* may kill the job's host */
    std::function<bool()> merge_fails;         /* the user's merge function */
    std::function<bool()> loses_answer;        /* of a call by the invocation, or of a reply */
    std::function<void(store::Millis deadline)> turn; /* a step of a job, or time passes */

private:
    static store::Configuration configuration(std::uint32_t num_hosts, store::Configuration more);
    static int on_invoke(const char *pguid, OMRALIB_INVOKE_PARAMS *pparams);

    void take_turn(store::Millis deadline);
    void compute(Job &job);
    void store_results(Job &job);
    void store_exceptions(const Job &job);
    void report(Job &job);
    void take_objects(OMRALIB_HANDLE its_hdl, Outcome &outcome);

    std::uint32_t receiving_ = 0; /* the host whose callback runs */
    bool is_invoking_ = false;
    bool is_at_work_ = false; /* a host */
};
