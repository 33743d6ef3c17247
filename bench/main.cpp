// pmi_bench: measures one workload, in the way that --measure names, and reports it through Google
// Benchmark.
//
// One process measures one workload with one number of worker threads and hosts, since these are
// chosen once in a process; scripts/bench starts one for each.
#include <algorithm>
#include <map>

#include <CLI/CLI.hpp>

#include "measures.h"
#include "objects.h"
#include "sys_util.h"
#include "sysapp.h"

namespace {

using bench::Plan;
using Measure = void (*)(benchmark::State &, const Plan &);

const std::map<std::string, Measure> kMeasures{{"throughput", bench::measure_throughput},
                                               {"latency", bench::measure_latency},
                                               {"rate", bench::measure_rate},
                                               {"memory", bench::measure_memory},
                                               {"invocations", bench::measure_invocations}};
const std::map<std::string, bench::Merge> kMerges{{"sum", bench::Merge::kSum},
                                                  {"work", bench::Merge::kSumWithWork},
                                                  {"words", bench::Merge::kWords}};
const std::map<std::string, bench::Query> kQueries{{"all", bench::Query::kAll},
                                                   {"term", bench::Query::kTerm},
                                                   {"range", bench::Query::kRange},
                                                   {"expression", bench::Query::kExpression},
                                                   {"scan", bench::Query::kScan}};

void add_options(CLI::App &app, Plan &plan, std::string &measure) {
    bench::Workload &workload = plan.workload;
    app.add_option("--measure", measure, "What to measure")->check(CLI::IsMember(&kMeasures));
    app.add_option("--workers", workload.workers, "Worker threads; 0: one for each processor")
        ->check(CLI::Range(0, 64));
    app.add_option("--objects", workload.num_objects, "Objects stored")
        ->check(CLI::Range(1, 100'000'000));
    app.add_option("--size", workload.object_len, "Bytes of an object, a multiple of 8")
        ->check(CLI::Range(8, 1 << 30));
    app.add_option("--work", workload.eval_work_us, "Microseconds of work in each eval")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--merge", workload.merge,
                   "sum: 8 bytes, in place; work: that and 1 us of work; words: 1,000 words, in a "
                   "new block")
        ->transform(CLI::CheckedTransformer(kMerges));
    app.add_option("--hosts", workload.num_hosts, "Hosts that the store plays")
        ->check(CLI::Range(1, 64));
    app.add_option("--exceptions", workload.refused_percent, "Percent of the objects that fail")
        ->check(CLI::Range(0, 100));
    app.add_option("--params", workload.params_len, "Bytes of parameters");
    app.add_option("--query", workload.query,
                   "all; term: 10 objects by an index; range: 1 % by an index; expression: the "
                   "same, tested in addition; scan: all, each tested")
        ->transform(CLI::CheckedTransformer(kQueries));
    app.add_flag("--indexed", workload.indexed, "The objects have two indexes");
    app.add_option("--seconds", plan.seconds, "How long to measure, about");
    app.add_option("--rounds", plan.num_rounds, "Rounds; 0: what the seconds allow");
    app.add_option("--calls", plan.num_calls, "Calls that latency is measured with");
    app.add_option("--pause", plan.pause_us, "Microseconds before each of these calls")
        ->check(CLI::NonNegativeNumber);
    app.add_option("--beside", plan.num_beside,
                   "For latency: objects of a long invocation that runs beside it");
    app.add_option("--invokers", plan.invokers, "Threads that invoke at once, in the rate")
        ->check(CLI::Range(1, 64));
    app.footer("Arguments that start with --benchmark_ go to Google Benchmark.");
    app.allow_extras();
}

// The workload as it is asked for, with what follows from that.
void complete(CLI::App &app, bench::Workload &workload) {
    if (workload.object_len % sizeof(std::uint64_t) != 0) {
        throw CLI::ValidationError("--size", "is not a multiple of 8");
    }
    if (workload.workers == 0) {
        workload.workers = Sys_get_num_lprocs();
    }
    workload.use_exceptions = app.count("--exceptions") != 0;
    const bool looked_up =
        workload.query != bench::Query::kAll && workload.query != bench::Query::kScan;
    workload.indexed = workload.indexed || looked_up;
}

void run(const Plan &plan, const std::string &measure, std::vector<std::string> arguments) {
    std::vector<char *> argv(arguments.size() + 1);
    std::transform(arguments.begin(), arguments.end(), argv.begin(),
                   [](std::string &argument) { return argument.data(); });
    int argc = static_cast<int>(arguments.size());
    benchmark::Initialize(&argc, argv.data());
    if (benchmark::ReportUnrecognizedArguments(argc, argv.data())) {
        bench::fail("unknown arguments; pmi_bench --help names those that there are");
    }
    OMRALIB_CONFIG config{};
    config.num_hosts = plan.workload.num_hosts;
    bench::check(Omralib_configure(&config), "the store cannot be set up");
    benchmark::RegisterBenchmark(measure.c_str(), kMeasures.at(measure), plan)
        ->UseManualTime()
        ->Iterations(1);
    benchmark::RunSpecifiedBenchmarks();
    if (Sys_get_assert_count() != 0) {
        bench::fail("internal conditions failed during the measurement");
    }
}

} // namespace

int main(int argc, char **argv) {
    try {
        CLI::App app("Measures one workload.", "pmi_bench");
        Plan plan;
        std::string measure = "throughput";
        add_options(app, plan, measure);
        try {
            app.parse(argc, argv);
            complete(app, plan.workload);
        } catch (const CLI::ParseError &error) {
            return app.exit(error);
        }
        std::vector<std::string> arguments = app.remaining();
        arguments.insert(arguments.begin(), argv[0]);
        run(plan, measure, std::move(arguments));
        return 0;
    } catch (const std::exception &error) {
        bench::fail(error.what());
    }
}
