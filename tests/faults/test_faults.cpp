// Every call fails once: a scenario is run with its 1st, 2nd, 3rd... call failing, each time in a
// new process, until none fails; then with every pair of calls.
//
// FAULT_POINTS replays what a failure has printed, in this process, for example
//   FAULT_POINTS=12:refused:once test_faults --gtest_filter=*Eval.SinglesWith2
#include "scenarios.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using faults::Extent;
using faults::Mode;
using faults::Point;
using Plan = std::vector<Point>;

constexpr Mode all_modes[] = {Mode::refused, Mode::reply_lost, Mode::host_1_dies, Mode::host_2_dies,
                              Mode::host_3_dies};
constexpr Extent all_extents[] = {Extent::once, Extent::operation, Extent::all};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true; // a new process costs much more
#else
constexpr bool sanitized = false;
#endif

// Written by the processes of a sweep, read when they have ended.
struct Report {
    faults::Seen seen;
    const char *stage; // of this program's text
    char complaint[1000];
};

class Sweep : public testing::Test {
public:
    using Kind = void (*)(Sweep &sweep, const faults::Seen &calm); // what happens without failures

    Sweep(const scenarios::Scenario &scenario, unsigned int num_workers, Kind kind)
        : scenario_(scenario), num_workers_(num_workers), kind_(kind),
          report_(static_cast<Report *>(mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE,
                                             MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    Sweep(const Sweep &) = delete;
    Sweep &operator=(const Sweep &) = delete;
    ~Sweep() override { munmap(report_, sizeof(Report)); }

    void TestBody() override {
        if (const char *text = std::getenv("FAULT_POINTS")) { // one run, in this process
            const faults::Seen seen = play(faults::to_points(text));
            std::printf("%u of %u calls failed\n", seen.num_fired, seen.num_calls);
            EXPECT_STREQ("", report_->complaint);
            return;
        }
        const faults::Seen calm = run({});
        ASSERT_NE(0u, calm.num_calls);
        kind_(*this, calm);
        RecordProperty("runs", static_cast<int>(num_runs_));
    }

    // Runs the scenario in a new process.
    faults::Seen run(const Plan &plan) {
        num_runs_ += 1;
        *report_ = {};
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);
            report_->seen = play(plan);
            _exit(report_->complaint[0] == '\0' ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (status != 0) {
            num_complaints_ += 1;
            std::string what = report_->complaint;
            if (WIFSIGNALED(status)) {
                what += WTERMSIG(status) == SIGALRM ? "hangs" : strsignal(WTERMSIG(status));
                what.append(" ").append(report_->stage ? report_->stage : "at the start");
            }
            ADD_FAILURE() << "FAULT_POINTS=" << faults::to_text(plan) << ": " << what;
        }
        return report_->seen;
    }

    bool goes_on() const { return num_complaints_ < 5; }

private:
    faults::Seen play(const Plan &plan) {
        std::string complaint;
        const faults::Seen seen =
            scenarios::run(scenario_, num_workers_, plan, complaint, report_->stage);
        complaint.copy(report_->complaint, sizeof report_->complaint - 1);
        return seen;
    }

    const scenarios::Scenario &scenario_;
    const unsigned int num_workers_;
    const Kind kind_;
    Report *const report_;
    unsigned int num_runs_ = 0, num_complaints_ = 0;
};

// Each call alone, in every mode and extent. A host dies once.
void sweep_singles(Sweep &sweep, const faults::Seen &calm) {
    for (const Mode mode : all_modes) {
        for (const Extent extent : all_extents) {
            const bool dies = mode >= Mode::host_1_dies;
            if ((dies && extent != Extent::once) || (sanitized && extent == Extent::operation)) {
                continue;
            }
            const unsigned int num_calls =
                mode == Mode::refused ? calm.num_calls : calm.num_store_calls;
            faults::Seen seen;
            for (unsigned int number = 1;
                 (number <= num_calls || seen.num_fired != 0) && sweep.goes_on(); ++number) {
                seen = sweep.run({{number, mode, extent}});
            }
        }
    }
}

// Every two calls refused once, for scenarios of up to 200 calls; in short ones also failing in
// other ways: a pair of modes, another one for each neighbour.
void sweep_pairs(Sweep &sweep, const faults::Seen &calm) {
    constexpr unsigned int num_modes = std::size(all_modes);
    ASSERT_GE(200u, calm.num_calls);
    for (unsigned int first = 1; first <= calm.num_calls; ++first) {
        for (unsigned int second = first + 1; second <= calm.num_calls && sweep.goes_on();
             ++second) {
            sweep.run({{first}, {second}});
            if (calm.num_calls <= 60) {
                const unsigned int turn = 1 + (first + second) % (num_modes * num_modes - 1);
                sweep.run(
                    {{first, all_modes[turn / num_modes]}, {second, all_modes[turn % num_modes]}});
            }
        }
    }
}

void add_test(const scenarios::Scenario &scenario, Sweep::Kind kind, unsigned int num_workers) {
    const std::string name = kind == sweep_singles ? "SinglesWith" : "PairsWith";
    testing::RegisterTest(("Faults" + std::string(scenario.name)).c_str(),
                          (name + std::to_string(num_workers)).c_str(), nullptr, nullptr, __FILE__,
                          __LINE__, [&scenario, kind, num_workers]() -> testing::Test * {
                              return new Sweep(scenario, num_workers, kind);
                          });
}

} // namespace

int main(int argc, char **argv) {
    for (const scenarios::Scenario &scenario : scenarios::all) {
        for (const unsigned int num_workers : {1u, 2u, 8u}) {
            if (!sanitized || num_workers == 2) {
                add_test(scenario, sweep_singles, num_workers);
            }
        }
        if (!sanitized) {
            add_test(scenario, sweep_pairs, 2);
        }
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
