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
#include <set>

#include "store_test.h"

/* A request that a host has accepted. */
struct Job {
    std::uint32_t host = 0;
    OMRALIB_INVOKE_PARAMS params{};
    OMRALIB_HANDLE worker = 0;  /* its own: what it does last to its results says how they fared */
    unsigned int num_steps = 0; /* done: 1 computed, 2 results stored, 3 exceptions stored */
    store::Millis rests_until = 0;
    bool is_zombie = false; /* nobody wants it any more, but it goes on */

    std::string results = {};
    std::string exceptions = {};
    std::uint32_t num_successful = 0;
    std::uint32_t num_failed = 0;
    std::uint32_t num_dropped = 0; /* objects that were not there to read */

    bool is_fold() const { return params.merge_request != 0; }
    std::vector<OMRA_OBJKEY> keys() const;
};

/* What an invocation came to, after its objects have been read and removed. */
struct Outcome {
    int status = 0;
    OMRA_INVOKE_RESULT result{};
    std::vector<unsigned long long> evaluated = {}; /* numbers of objects, sorted */
    std::vector<unsigned long long> failed = {};    /* with an exception, sorted; 0: of a merge */
};

class PlayedHosts {
public:
    static constexpr unsigned int event_app = 77;
    static constexpr unsigned int data_app = 5;
    static constexpr unsigned int temp_app = 0x30000000;

    /* With the objects 0 to num_objects - 1. */
    PlayedHosts(const TestEngine &engine, const store::Configuration &configuration,
                unsigned long long num_objects = 60);

    /* The evaluation of these fails. */
    static bool fails(unsigned long long number) { return number % 5 == 3; }

    /* Of a request for the objects of `app_id`, served by those who handle `event_app_id`. */
    static OMRA_INDEX_HDR make_header(unsigned int app_id, unsigned int event_app_id = event_app) {
        OMRA_INDEX_HDR header{};
        header.reserved = OMRALIB_INDEX_OP_INVOKE;
        header.app_id = app_id;
        header.reserved2 = event_app_id;
        return header;
    }

    /* On its own handle, unless another is given. */
    Outcome invoke(const OMRA_INDEX_HDR &header, std::string_view query = "",
                   OMRALIB_HANDLE by = 0);
    Outcome invoke(unsigned int timeout_s = 0, OMRALIB_HANDLE by = 0);

    /* The host is gone; what it was doing ends, or goes on although nobody wants it. */
    void kill(std::uint32_t host, bool as_zombie);

    /* Carries out a step of a job, which is taken off the list when it has reported. */
    void step(std::list<Job>::iterator job);
    int complete(const Job &job, unsigned int num_successful, unsigned int num_failed) const {
        return Omralib_complete_invoke(job.worker != 0 ? job.worker : worker, job.params.context,
                                       num_successful, num_failed);
    }

    /* Does what late jobs still do when the invocation is over. */
    void finish_zombies();

    unsigned int pick(std::size_t bound) { return static_cast<unsigned int>(random() % bound); }
    unsigned long long num_temp_objects() { return count(hdl, temp_app); }

    TestClock clock;
    store::Store store;
    const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
    const OMRALIB_HANDLE worker = Omralib_open_ext("the worker guid ");
    std::list<Job> jobs; /* accepted, in order */
    std::vector<Job> refused;
    std::set<std::uint32_t> gone; /* hosts that have been killed */
    std::mt19937 random;
    unsigned int num_jobs = 0;   /* ever accepted */
    unsigned int step_bound = 4; /* a step takes fewer milliseconds */

    /* The test's part. */
    std::function<int(const Job &job)> answer = [](const Job &) { return OMRALIB_INVOKE_ACCEPTED; };
    std::function<void(Job &job)> before_step = [](Job &) {}; /* may kill the job's host */
    std::function<void(std::uint32_t host)> before_hand_over = [](auto) {}; /* may kill it */
    std::function<bool()> merge_fails = [] { return false; }; /* the user's merge function */
    /* Of a call by the invocation, or of a reply. */
    std::function<bool()> loses_answer = [] { return false; };
    /* A step of a job chosen at random or, when there is none, time passes. */
    std::function<void(store::Millis deadline)> turn = [this](auto deadline) { go_on(deadline); };

private:
    bool is_invoking_ = false; /* and no host is at work */

    void go_on(store::Millis deadline);
    void compute(Job &job);
    void store_results(Job &job);
    void store_exceptions(Job &job);
};
