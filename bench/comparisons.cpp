// The loop and the two parallel_reduces over the kernel of a workload, and what they need for it.
#include "comparisons.h"

#include <deque>

#include <oneapi/tbb/blocked_range.h>
#include <oneapi/tbb/global_control.h>
#include <oneapi/tbb/parallel_reduce.h>
#include <oneapi/tbb/task_arena.h>

namespace bench {

namespace {

// Copies objects out of the store. Used by one thread at a time.
class StoreReader {
public:
    Bytes read(const OMRA_OBJKEY &key) {
        unsigned int len = 0;
        check(Omralib_read_obj(handle_.get(), 0, &len, key), "an object cannot be read");
        if (len > buffer_.size()) {
            buffer_.resize(len);
        }
        check(Omralib_get_read_data(handle_.get(), buffer_.data(), len), "its bytes cannot be had");
        return {buffer_.data(), len};
    }

private:
    StoreHandle handle_;
    std::vector<char> buffer_;
};

struct Refusal {
    int code;
    OMRA_OBJKEY key;
};

// The result of a part of the objects.
template <typename Kernel>
struct Part {
    std::optional<typename Kernel::Result> result;
    std::uint64_t num_successful = 0;
    std::vector<Refusal> refusals;

    void add(const Kernel &kernel, typename Kernel::Result &&more) {
        if (result) {
            kernel.merge(*result, more);
        } else {
            result = std::move(more);
        }
    }

    void join(const Kernel &kernel, Part &&other) {
        if (other.result) {
            add(kernel, std::move(*other.result));
        }
        num_successful += other.num_successful;
        refusals.insert(refusals.end(), other.refusals.begin(), other.refusals.end());
    }
};

template <typename Kernel>
void evaluate(const Kernel &kernel, Bytes data, Bytes params, const OMRA_OBJKEY &key,
              Part<Kernel> &part) {
    typename Kernel::Result result{};
    if (kernel.eval(data, params, result)) {
        ++part.num_successful;
        part.add(kernel, std::move(result));
    } else {
        part.refusals.push_back({kRefused, key});
    }
}

} // namespace

struct Comparisons::State {
    State(const Workload &chosen, unsigned int app, bool with_array)
        : workload(chosen), app_id(app), selection(select(chosen)), params(make_params(chosen)),
          sum_kernel(chosen), words_kernel(chosen),
          parallelism(tbb::global_control::max_allowed_parallelism, chosen.workers),
          arena(static_cast<int>(chosen.workers)), readers(chosen.workers) {
        if (with_array) {
            array = make_array(chosen);
        }
    }

    // Runs `pass(kernel)`, which gives a part, with the workload's kernel.
    template <typename Pass>
    Timed time(const Pass &pass) const {
        return workload.merge == Merge::kWords ? time_with(words_kernel, pass)
                                               : time_with(sum_kernel, pass);
    }

    template <typename Kernel, typename Pass>
    Timed time_with(const Kernel &kernel, const Pass &pass) const {
        const auto start = Clock::now();
        const Part<Kernel> part = pass(kernel);
        const Nanoseconds time = Clock::now() - start;
        return {{part.result ? Kernel::value(*part.result) : 0, part.num_successful,
                 part.refusals.size(), workload.use_exceptions ? part.refusals.size() : 0},
                time};
    }

    // Evaluates the objects from `begin` to `end`, whose bytes `bytes_of(number, key)` gives.
    template <typename Kernel, typename BytesOf>
    void evaluate_range(const Kernel &kernel, std::size_t begin, std::size_t end,
                        const BytesOf &bytes_of, Part<Kernel> &part) const {
        for (std::size_t number = begin; number < end; ++number) {
            const OMRA_OBJKEY key = make_key(app_id, number);
            evaluate(kernel, bytes_of(number, key), params, key, part);
        }
    }

    // `make_bytes_of()` gives, on the thread that works, what `evaluate_range` reads objects with.
    template <typename Kernel, typename MakeBytesOf>
    Part<Kernel> reduce(const Kernel &kernel, const MakeBytesOf &make_bytes_of) {
        Body<Kernel, MakeBytesOf> body(*this, kernel, make_bytes_of);
        arena.execute([&] {
            tbb::parallel_reduce(tbb::blocked_range<std::size_t>(selection.begin, selection.end),
                                 body);
        });
        return std::move(body.part);
    }

    // What oneTBB splits and joins. The part grows in place from range to range.
    template <typename Kernel, typename MakeBytesOf>
    struct Body {
        Body(const State &all, const Kernel &chosen, const MakeBytesOf &make)
            : state(all), kernel(chosen), make_bytes_of(make) {}
        Body(Body &other, tbb::split) : Body(other.state, other.kernel, other.make_bytes_of) {}

        void operator()(const tbb::blocked_range<std::size_t> &range) {
            state.evaluate_range(kernel, range.begin(), range.end(), make_bytes_of(), part);
        }
        void join(Body &other) { part.join(kernel, std::move(other.part)); }

        const State &state;
        const Kernel &kernel;
        const MakeBytesOf &make_bytes_of;
        Part<Kernel> part;
    };

    const Workload workload;
    const unsigned int app_id;
    const Selection selection;
    const std::string params;
    const SumKernel sum_kernel;
    const WordsKernel words_kernel;
    const tbb::global_control parallelism;
    tbb::task_arena arena;
    std::deque<StoreReader> readers; // one for each slot of the arena
    std::vector<char> array;
};

Comparisons::Comparisons(const Workload &workload, unsigned int app_id, bool with_array)
    : state_(std::make_unique<State>(workload, app_id, with_array)) {}

Comparisons::~Comparisons() = default;

Timed Comparisons::run_loop() {
    return state_->time([this]<typename Kernel>(const Kernel &kernel) {
        Part<Kernel> part;
        state_->evaluate_range(
            kernel, state_->selection.begin, state_->selection.end,
            [&reader = state_->readers.front()](std::size_t, const OMRA_OBJKEY &key) {
                return reader.read(key);
            },
            part);
        return part;
    });
}

Timed Comparisons::run_tbb() {
    return state_->time([this](const auto &kernel) {
        return state_->reduce(kernel, [this] {
            const int slot = tbb::this_task_arena::current_thread_index();
            return [&reader = state_->readers[static_cast<std::size_t>(slot)]](
                       std::size_t, const OMRA_OBJKEY &key) { return reader.read(key); };
        });
    });
}

Timed Comparisons::run_bytes() {
    return state_->time([this](const auto &kernel) {
        return state_->reduce(kernel, [this] {
            return [array = state_->array.data(),
                    len = state_->workload.object_len](std::size_t number, const OMRA_OBJKEY &) {
                return Bytes(array + number * len, len);
            };
        });
    });
}

} // namespace bench
