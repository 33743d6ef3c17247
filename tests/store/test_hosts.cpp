/* Invocations over many hosts, which refuse, are silent and die: whatever happens, an object's
 * result counts once, and what was lost is counted as failed. */
#include <cstdlib>
#include <map>

#include "played_hosts.h"

namespace {

using std::uint32_t;
using store::millis_per_second;

constexpr unsigned long long num_objects = 60;

class Hosts : public testing::TestWithParam<EngineParam> {};
FOR_ALL_ENGINES(Hosts);

std::vector<unsigned long long> numbers(unsigned long long num, bool failing) {
    std::vector<unsigned long long> list;
    for (unsigned long long i = 0; i < num; ++i) {
        if (PlayedHosts::fails(i) == failing) {
            list.push_back(i);
        }
    }
    return list;
}

/* What one host that never fails would have answered. */
void expect_exact(const Outcome &outcome, unsigned long long num) {
    ASSERT_EQ(OMRALIB_RET_SUCCESS, outcome.status);
    EXPECT_EQ(numbers(num, false), outcome.evaluated);
    EXPECT_EQ(numbers(num, true), outcome.failed);
    EXPECT_EQ(outcome.evaluated.size(), outcome.result.num_successful);
    EXPECT_EQ(outcome.failed.size(), outcome.result.num_failed);
    EXPECT_EQ(0u, outcome.num_merge_exceptions);
    EXPECT_EQ(outcome.evaluated.empty(), OMRA_OBJKEY_IS_NULL(outcome.result.results_key));
    EXPECT_EQ(outcome.failed.empty(), OMRA_OBJKEY_IS_NULL(outcome.result.exceptions_key));
}

/* What holds even when hosts fail for good: the result is that of the objects that are counted as
 * successful, each in it once. */
void expect_consistent(const Outcome &outcome, unsigned long long num) {
    ASSERT_EQ(OMRALIB_RET_SUCCESS, outcome.status);
    EXPECT_EQ(num, outcome.result.num_successful + outcome.result.num_failed);
    EXPECT_EQ(outcome.result.num_successful, outcome.evaluated.size());
    for (std::size_t i = 0; i < outcome.evaluated.size(); ++i) {
        EXPECT_FALSE(PlayedHosts::fails(outcome.evaluated[i]));
        EXPECT_TRUE(i == 0 || outcome.evaluated[i] != outcome.evaluated[i - 1]);
    }
}

TEST_P(Hosts, OneUsesTheKeysOfItsRequestAndFoldsNothing) {
    PlayedHosts hosts(GetParam(), 1);
    hosts.store_objects(num_objects);
    OMRA_OBJKEY results_key{};
    hosts.before_step = [&](Job &job) { results_key = job.params.results_key; };
    const Outcome outcome = hosts.invoke();
    expect_exact(outcome, num_objects);
    EXPECT_EQ(0, memcmp(&results_key, &outcome.result.results_key, sizeof results_key));
    EXPECT_EQ(1, hosts.num_jobs);
    EXPECT_EQ(0u, hosts.num_temp_objects());
}

/* Results that are there at once are folded in log2 rounds: a fold of folds and so on. */
TEST_P(Hosts, FoldPairwise) {
    constexpr unsigned long long num = 200; /* so that every host has a result */
    PlayedHosts hosts(GetParam(), 16);
    hosts.store_objects(num);
    std::map<unsigned long long, int> rounds; /* by the number in the key of a results object */
    int max_rounds = 0;
    std::size_t num_evaluating = 0;
    hosts.before_step = [&](Job &job) {
        if (job.is_fold() && job.num_steps == 0) {
            /* The oldest are folded first: no target is deeper than its source. */
            const int depth = rounds[job.params.params_key.obj_id.u64_comp[0]] + 1;
            rounds[job.params.results_key.obj_id.u64_comp[0]] = depth;
            max_rounds = std::max(max_rounds, depth);
        }
    };
    hosts.turn = [&](store::Millis) { /* everything evaluates first, then everything folds */
                                      num_evaluating = std::max(num_evaluating, hosts.jobs.size());
                                      hosts.step(hosts.jobs.begin());
    };
    expect_exact(hosts.invoke(), num);
    const int num_parts = static_cast<int>(num_evaluating);
    EXPECT_EQ(16, num_parts);
    EXPECT_EQ(2 * num_parts - 1, hosts.num_jobs);
    EXPECT_EQ(4, max_rounds);
    EXPECT_EQ(static_cast<unsigned long long>(num_parts - 1), hosts.stats().num_folds);
    EXPECT_EQ(0u, hosts.num_temp_objects());
}

TEST_P(Hosts, FoldWhileAnotherIsStillEvaluating) {
    PlayedHosts hosts(GetParam(), 4);
    hosts.store_objects(num_objects);
    unsigned long long folds_meanwhile = 0;
    hosts.turn = [&](store::Millis) {
        /* The first one sleeps as long as there is anything else to do. */
        const Job &first = hosts.jobs.front();
        if (hosts.jobs.size() > 1) {
            hosts.step(std::next(hosts.jobs.begin()));
        } else {
            folds_meanwhile +=
                !first.is_fold() && first.num_steps == 0 ? hosts.stats().num_folds : 0;
            hosts.step(hosts.jobs.begin());
        }
    };
    expect_exact(hosts.invoke(), num_objects);
    EXPECT_EQ(2u, folds_meanwhile);
    EXPECT_EQ(3u, hosts.stats().num_folds);
}

/* A host dies at every step of a request and of a fold, with and without going on as if nothing had
 * happened. */
TEST_P(Hosts, DieAtAnyStepAndChangeNothing) {
    for (const bool in_fold : {false, true}) {
        for (int num_steps = 0; num_steps < 4; ++num_steps) {
            for (const bool as_zombie : {false, true}) {
                SCOPED_TRACE(testing::Message() << in_fold << num_steps << as_zombie);
                PlayedHosts hosts(GetParam(), 4);
                hosts.store_objects(num_objects);
                std::uint32_t dead = 0;
                hosts.before_step = [&](Job &job) {
                    if (dead == 0 && job.is_fold() == in_fold && job.num_steps == num_steps) {
                        dead = job.host;
                        hosts.kill(dead, as_zombie);
                    }
                };
                expect_exact(hosts.invoke(), num_objects);
                hosts.finish_zombies();
                EXPECT_NE(0u, dead);
                EXPECT_GE(hosts.stats().num_retries, 1u);
                EXPECT_EQ(0u, hosts.num_temp_objects());

                /* And nothing more is sent to it. */
                hosts.answer = [&](const Job &job) {
                    EXPECT_NE(dead, job.host);
                    return OMRALIB_INVOKE_ACCEPTED;
                };
                expect_exact(hosts.invoke(), num_objects);
            }
        }
    }
}

TEST_P(Hosts, FailEverythingWhenAllAreGone) {
    PlayedHosts hosts(GetParam(), 3);
    hosts.store_objects(num_objects);
    hosts.before_step = [&](Job &job) {
        if (job.num_steps == 3) {
            for (std::uint32_t host = 1; host <= 3; ++host) {
                hosts.kill(host, true);
            }
        }
    };
    const Outcome outcome = hosts.invoke();
    EXPECT_EQ(num_objects, outcome.result.num_failed);
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(outcome.result.results_key));
    EXPECT_TRUE(OMRA_OBJKEY_IS_NULL(outcome.result.exceptions_key));
    hosts.finish_zombies();
    EXPECT_EQ(0u, hosts.num_temp_objects());
    EXPECT_EQ(OMRALIB_ERR_NO_WORKER, hosts.invoke().status);
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_declare_host_gone(0));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_declare_host_gone(4));
}

TEST_P(Hosts, AreAskedAgainWithGrowingPausesThenAnotherIs) {
    PlayedHosts hosts(GetParam(), 2);
    hosts.store_objects(num_objects);
    std::vector<store::Millis> times;
    hosts.answer = [&](const Job &job) {
        if (job.host == 1) {
            times.push_back(hosts.clock.now());
            return times.size() % 2 != 0 ? OMRALIB_INVOKE_NO_KEYS : OMRALIB_INVOKE_NO_MEMORY;
        }
        return OMRALIB_INVOKE_ACCEPTED;
    };
    hosts.turn = [&](store::Millis deadline) { /* no step takes time */
                                               if (hosts.jobs.empty()) {
                                                   hosts.clock.advance(deadline -
                                                                       hosts.clock.now());
                                               } else {
                                                   hosts.step(hosts.jobs.begin());
                                               }
    };
    expect_exact(hosts.invoke(), num_objects);
    std::vector<store::Millis> pauses;
    for (std::size_t i = 1; i < times.size(); ++i) {
        pauses.push_back(times[i] - times[i - 1]);
    }
    EXPECT_EQ((std::vector<store::Millis>{10, 20, 40, 80, 160, 320, 640, 1000}), pauses);
    EXPECT_EQ(times.size(), hosts.stats().num_refusals);
    EXPECT_EQ(times.size(), hosts.stats().num_retries);

    /* Any other answer is final, and a deadline ends the asking. */
    const OMRALIB_STATS before = hosts.stats();
    hosts.answer = [](const Job &) { return -1; };
    EXPECT_EQ(num_objects, hosts.invoke().result.num_failed);
    EXPECT_EQ(before.num_refusals + 4, hosts.stats().num_refusals);
    hosts.answer = [](const Job &) { return OMRALIB_INVOKE_NO_MEMORY; };
    const store::Millis start = hosts.clock.now();
    EXPECT_EQ(OMRALIB_ERR_INVOKE_TIMEOUT, hosts.invoke(1).status);
    EXPECT_EQ(start + millis_per_second, hosts.clock.now());
    EXPECT_EQ(0u, hosts.num_temp_objects());
}

TEST_P(Hosts, GiveTheKeysOfASilentOneToOneWithNothingToDo) {
    PlayedHosts hosts(GetParam(), 2);
    hosts.store_objects(num_objects);
    const store::Millis start = hosts.clock.now();
    store::Millis moved_at = 0;
    std::uint32_t silent = 0;
    hosts.answer = [&](const Job &) {
        if (silent != 0 && moved_at == 0 && hosts.clock.now() != start) {
            moved_at = hosts.clock.now();
        }
        return OMRALIB_INVOKE_ACCEPTED;
    };
    hosts.turn = [&](store::Millis deadline) {
        const auto job = std::find_if(hosts.jobs.begin(), hosts.jobs.end(),
                                      [&](const Job &each) { return each.host != silent; });
        if (silent == 0) {
            silent = hosts.jobs.front().host;
        } else if (job != hosts.jobs.end()) {
            hosts.step(job);
        } else {
            hosts.clock.advance(deadline - hosts.clock.now());
        }
    };
    expect_exact(hosts.invoke(10), num_objects);
    EXPECT_EQ(5 * millis_per_second, moved_at - start);
    /* It wakes up and makes its objects: nobody wants them. */
    ASSERT_EQ(1u, hosts.jobs.size());
    hosts.finish_zombies();
    EXPECT_EQ(0u, hosts.num_temp_objects());
}

TEST_P(Hosts, AreLeftAloneWhileAllAreSlow) {
    PlayedHosts hosts(GetParam(), 4);
    hosts.store_objects(num_objects);
    const store::Millis start = hosts.clock.now();
    hosts.turn = [&](store::Millis deadline) {
        if (hosts.clock.now() - start < 9 * millis_per_second) {
            hosts.clock.advance(std::min(deadline, start + 9 * millis_per_second) -
                                hosts.clock.now());
        } else {
            hosts.step(hosts.jobs.begin());
        }
    };
    expect_exact(hosts.invoke(10), num_objects);
    EXPECT_EQ(0u, hosts.stats().num_retries);
}

TEST_P(Hosts, KeepWhatIsDoneWhileTheSlowestTakesHours) {
    PlayedHosts hosts(GetParam(), 3);
    hosts.store_objects(num_objects);
    const store::Millis end = hosts.clock.now() + 120 * store::millis_per_minute;
    hosts.turn = [&](store::Millis deadline) {
        if (hosts.jobs.size() > 1 || hosts.clock.now() >= end) {
            hosts.step(--hosts.jobs.end());
        } else {
            ASSERT_NE(store::never, deadline);
            hosts.clock.advance(deadline - hosts.clock.now());
        }
    };
    expect_exact(hosts.invoke(), num_objects);
}

TEST_P(Hosts, AMergeThatFailsLosesOneResultAndSaysSo) {
    PlayedHosts hosts(GetParam(), 4);
    hosts.store_objects(num_objects);
    int num_merges = 0;
    hosts.merge_fails = [&] { return ++num_merges == 1; };
    const Outcome outcome = hosts.invoke();
    expect_consistent(outcome, num_objects);
    EXPECT_LT(outcome.evaluated.size(), numbers(num_objects, false).size());
    EXPECT_FALSE(outcome.evaluated.empty());
    EXPECT_EQ(numbers(num_objects, true), outcome.failed);
    EXPECT_EQ(1u, outcome.num_merge_exceptions);
    EXPECT_EQ(2u, hosts.stats().num_folds);
    EXPECT_EQ(0u, hosts.num_temp_objects());
}

/* A fold needs room for a copy; it waits for it a while. */
TEST_P(Hosts, FoldWhenThereIsRoomAgain) {
    for (const bool comes_back : {true, false}) {
        store::Configuration configuration;
        configuration.memory_limit = 1 << 20;
        PlayedHosts hosts(GetParam(), 2, 0, configuration);
        hosts.store_objects(num_objects);
        unsigned long long num_ballast = 0;
        hosts.before_step = [&](Job &job) {
            if (!job.is_fold() && job.num_steps == 3 && hosts.jobs.size() == 1) {
                while (put(hosts.worker, make_key(9, num_ballast), "x") == OMRALIB_RET_SUCCESS) {
                    ++num_ballast;
                }
            }
        };
        const auto step_at_random = hosts.turn;
        hosts.turn = [&](store::Millis deadline) {
            if (hosts.jobs.empty() && comes_back) {
                for (; num_ballast > 0; --num_ballast) {
                    Omralib_remove_obj(hosts.worker, 0, make_key(9, num_ballast - 1));
                }
            }
            step_at_random(deadline);
        };
        const Outcome outcome = hosts.invoke();
        if (comes_back) {
            expect_exact(outcome, num_objects);
        } else {
            expect_consistent(outcome, num_objects);
            EXPECT_FALSE(outcome.evaluated.empty());
        }
        EXPECT_EQ(0u, hosts.num_temp_objects());
    }
}

TEST_P(Hosts, ADeadlineInTheMiddleOfFoldingLeavesNothing) {
    PlayedHosts hosts(GetParam(), 4);
    hosts.store_objects(num_objects);
    hosts.before_step = [&](Job &job) {
        job.is_stuck = job.is_fold() && hosts.stats().num_folds == 1;
    };
    EXPECT_EQ(OMRALIB_ERR_INVOKE_TIMEOUT, hosts.invoke(10).status);
    for (Job &job : hosts.jobs) {
        job.is_stuck = false;
    }
    hosts.before_step = [](Job &) {};
    hosts.finish_zombies();
    EXPECT_EQ(0u, hosts.num_temp_objects());
}

/* Everything at once, in an order that the seed decides. */
void run_at_random(const EngineParam &engine, unsigned int seed) {
    SCOPED_TRACE(testing::Message() << "to see it again: STORE_HOSTS_SEED=" << seed);
    PlayedHosts hosts(engine, 1 + seed % 16, seed);
    const unsigned long long num = hosts.pick(5) == 0 ? hosts.pick(4) : hosts.pick(80);
    hosts.store_objects(num);
    const std::uint32_t reliable = 1 + hosts.pick(1 + seed % 16);
    const bool has_reliable = hosts.pick(4) != 0;
    const bool merges_fail = hosts.pick(4) == 0;
    const unsigned int timeout_s = hosts.pick(3) == 0 ? 10 : 0;
    const auto is_unlucky = [&](std::uint32_t host, unsigned int one_in) {
        return (host != reliable || !has_reliable) && hosts.pick(one_in) == 0;
    };
    hosts.answer = [&](const Job &job) -> int {
        if (is_unlucky(job.host, 4)) {
            const int refusals[] = {OMRALIB_INVOKE_NO_KEYS, OMRALIB_INVOKE_NO_MEMORY, -1};
            return refusals[hosts.pick(3)];
        }
        return OMRALIB_INVOKE_ACCEPTED;
    };
    hosts.before_step = [&](Job &job) {
        if (!job.is_zombie && is_unlucky(job.host, 10)) {
            if (timeout_s != 0 && hosts.pick(2) == 0) {
                job.is_stuck = true;
            } else {
                hosts.kill(job.host, hosts.pick(2) == 0);
            }
        }
    };
    hosts.merge_fails = [&] { return merges_fail && hosts.pick(3) == 0; };
    const Outcome outcome = hosts.invoke(timeout_s);
    if (has_reliable && !merges_fail && timeout_s == 0) {
        expect_exact(outcome, num);
    } else if (timeout_s == 0 || outcome.status != OMRALIB_ERR_INVOKE_TIMEOUT) {
        expect_consistent(outcome, num);
    }
    hosts.answer = [](const Job &) { return OMRALIB_INVOKE_ACCEPTED; };
    hosts.before_step = [](Job &) {};
    hosts.finish_zombies();
    EXPECT_EQ(0u, hosts.num_temp_objects());
}

TEST_P(Hosts, GiveExactResultsInAnyOrderOfEvents) {
    if (const char *seed = std::getenv("STORE_HOSTS_SEED")) {
        run_at_random(GetParam(), static_cast<unsigned int>(std::strtoul(seed, nullptr, 10)));
        return;
    }
    for (unsigned int seed = 0; seed < 600 && !HasFailure(); ++seed) {
        run_at_random(GetParam(), seed);
    }
}

} // namespace
