// Every call fails once: a scenario is run with its 1st, 2nd, 3rd... call failing, each time in a
// new process, until none fails; then with every pair of calls.
//
// FAULT_POINTS replays what a failure has printed, in this process, for example
//   FAULT_POINTS=12:refused:once test_faults --gtest_filter=*Eval.Singles/2
#include "scenarios.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

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

class Sweep {
public:
    Sweep(const scenarios::Scenario &scenario, unsigned int num_workers)
        : scenario_(scenario), num_workers_(num_workers),
          report_(static_cast<Report *>(mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE,
                                             MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {}
    Sweep(const Sweep &) = delete;
    Sweep &operator=(const Sweep &) = delete;
    ~Sweep() { munmap(report_, sizeof(Report)); }

    // Runs the scenario in a new process.
    faults::Seen run(const Plan &plan) {
        num_runs += 1;
        *report_ = {};
        const pid_t child = fork();
        if (child == 0) {
            alarm(60);
            std::string complaint;
            report_->seen =
                scenarios::run(scenario_, num_workers_, plan, complaint, report_->stage);
            std::strncpy(report_->complaint, complaint.c_str(), sizeof report_->complaint - 1);
            _exit(complaint.empty() ? 0 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        if (status != 0) {
            complain(plan, status);
        }
        return report_->seen;
    }

    bool goes_on() const { return num_complaints_ < 5; }

    unsigned int num_runs = 0;

private:
    void complain(const Plan &plan, int status) {
        num_complaints_ += 1;
        std::string what = report_->complaint;
        if (WIFSIGNALED(status)) {
            what += WTERMSIG(status) == SIGALRM ? "hangs" : strsignal(WTERMSIG(status));
            what.append(" ").append(report_->stage != nullptr ? report_->stage : "at the start");
        }
        ADD_FAILURE() << "FAULT_POINTS=" << faults::to_text(plan) << ": " << what;
    }

    const scenarios::Scenario &scenario_;
    const unsigned int num_workers_;
    Report *const report_;
    unsigned int num_complaints_ = 0;
};

class FaultTest : public testing::Test {
public:
    FaultTest(const scenarios::Scenario &scenario, unsigned int num_workers)
        : scenario_(scenario), num_workers_(num_workers), sweep_(scenario, num_workers) {}

    void TestBody() override {
        if (!replayed()) {
            const faults::Seen calm = sweep_.run({});
            ASSERT_NE(0u, calm.num_calls);
            sweep(calm);
        }
    }

protected:
    // `calm` is what happens when nothing fails.
    virtual void sweep(const faults::Seen &calm) = 0;

    // True when the environment asked for one run, which is then done.
    bool replayed() {
        const char *text = std::getenv("FAULT_POINTS");
        if (text == nullptr) {
            return false;
        }
        const Plan plan = faults::to_points(text);
        EXPECT_FALSE(plan.empty()) << text;
        std::string complaint;
        const char *stage = nullptr;
        const faults::Seen seen = scenarios::run(scenario_, num_workers_, plan, complaint, stage);
        std::printf("%u of %u calls failed\n", seen.num_fired, seen.num_calls);
        EXPECT_EQ("", complaint);
        return true;
    }

    void TearDown() override { RecordProperty("runs", static_cast<int>(sweep_.num_runs)); }

    const scenarios::Scenario &scenario_;
    const unsigned int num_workers_;
    Sweep sweep_;
};

// Each call alone, in every mode and extent. A host dies once.
class Singles : public FaultTest {
public:
    using FaultTest::FaultTest;
    void sweep(const faults::Seen &calm) override {
        for (const Mode mode : all_modes) {
            for (const Extent extent : all_extents) {
                const bool dies = mode >= Mode::host_1_dies;
                if ((dies && extent != Extent::once) ||
                    (sanitized && extent == Extent::operation)) {
                    continue;
                }
                const unsigned int num_calls =
                    mode == Mode::refused ? calm.num_calls : calm.num_store_calls;
                faults::Seen seen;
                for (unsigned int number = 1;
                     (number <= num_calls || seen.num_fired != 0) && sweep_.goes_on(); ++number) {
                    seen = sweep_.run({{number, mode, extent}});
                }
            }
        }
    }
};

// Every two calls refused once, for scenarios of up to 200 calls; in short ones also failing in
// other ways.
class Pairs : public FaultTest {
public:
    using FaultTest::FaultTest;
    void sweep(const faults::Seen &calm) override {
        ASSERT_GE(200u, calm.num_calls);
        for (unsigned int first = 1; first <= calm.num_calls; ++first) {
            for (unsigned int second = first + 1; second <= calm.num_calls && sweep_.goes_on();
                 ++second) {
                sweep_.run({{first}, {second}});
                if (calm.num_calls <= 60) {
                    const auto [mode_1, mode_2] = modes(first + second);
                    sweep_.run({{first, mode_1}, {second, mode_2}});
                }
            }
        }
    }

private:
    // A pair of modes, another one for each neighbour.
    static std::pair<Mode, Mode> modes(unsigned int turn) {
        constexpr unsigned int num_modes = std::size(all_modes);
        turn = 1 + turn % (num_modes * num_modes - 1);
        return {all_modes[turn / num_modes], all_modes[turn % num_modes]};
    }
};

template <class Test>
void add_test(const scenarios::Scenario &scenario, const char *kind, unsigned int num_workers) {
    testing::RegisterTest(
        (std::string("Faults") + scenario.name).c_str(),
        (std::string(kind) + "With" + std::to_string(num_workers)).c_str(), nullptr, nullptr,
        __FILE__, __LINE__,
        [&scenario, num_workers]() -> testing::Test * { return new Test(scenario, num_workers); });
}

} // namespace

int main(int argc, char **argv) {
    for (const scenarios::Scenario &scenario : scenarios::all) {
        for (const unsigned int num_workers : {1u, 2u, 8u}) {
            if (!sanitized || num_workers == 2) {
                add_test<Singles>(scenario, "Singles", num_workers);
            }
        }
        if (!sanitized) {
            add_test<Pairs>(scenario, "Pairs", 2);
        }
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
