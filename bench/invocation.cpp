// The kernels as user functions, which find their kernel in a global, and the invocation that is
// timed.
#include "invocation.h"

#include <cstring>
#include <new>

namespace bench {

namespace {

constexpr unsigned int kEvalId = 0;
constexpr unsigned int kMergeId = 1;
constexpr unsigned int kTimeout = 600; // seconds

// The kernels that the user functions run; set before the functions are registered, never
// destroyed.
const SumKernel *sum_kernel;
const WordsKernel *words_kernel;

template <typename Item>
Item *allocate(std::size_t count) {
    return static_cast<Item *>(Omrapmi_malloc(count * sizeof(Item)));
}

int eval_sum(const char *pdata, unsigned int data_len, const char *pparams, unsigned int params_len,
             char **ppresult_out, unsigned int *presult_len_out) {
    std::uint64_t sum = 0;
    if (!sum_kernel->eval({pdata, data_len}, {pparams, params_len}, sum)) {
        return kRefused;
    }
    auto *result = allocate<std::uint64_t>(1);
    if (result == nullptr) {
        return -1;
    }
    *result = sum;
    *ppresult_out = reinterpret_cast<char *>(result);
    *presult_len_out = sizeof *result;
    return 0;
}

int merge_sum(char *pdst, unsigned int dst_len, const char *psrc, unsigned int, char **ppmerged_out,
              unsigned int *pmerged_len_out) {
    sum_kernel->merge(*reinterpret_cast<std::uint64_t *>(pdst),
                      *reinterpret_cast<const std::uint64_t *>(psrc));
    *ppmerged_out = pdst;
    *pmerged_len_out = dst_len;
    return 0;
}

int eval_words(const char *pdata, unsigned int data_len, const char *pparams,
               unsigned int params_len, char **ppresult_out, unsigned int *presult_len_out) {
    auto *counts = allocate<WordCount>(kNumWords);
    if (counts == nullptr) {
        return -1;
    }
    if (!words_kernel->eval_into({pdata, data_len}, {pparams, params_len}, counts)) {
        Omrapmi_free(counts);
        return kRefused;
    }
    *ppresult_out = reinterpret_cast<char *>(counts);
    *presult_len_out = kNumWords * sizeof *counts;
    return 0;
}

std::span<const WordCount> as_words(const char *data, unsigned int len) {
    return {reinterpret_cast<const WordCount *>(data), len / sizeof(WordCount)};
}

int merge_words(char *pdst, unsigned int dst_len, const char *psrc, unsigned int src_len,
                char **ppmerged_out, unsigned int *pmerged_len_out) {
    const auto dst = as_words(pdst, dst_len);
    const auto src = as_words(psrc, src_len);
    auto *joined = allocate<WordCount>(dst.size() + src.size());
    if (joined == nullptr) {
        return -1;
    }
    const std::size_t size = join_words(dst, src, joined);
    *ppmerged_out = reinterpret_cast<char *>(joined);
    *pmerged_len_out = static_cast<unsigned int>(size * sizeof *joined);
    return 0;
}

std::uint64_t result_value(const Workload &workload, const char *data, unsigned int len) {
    if (data == nullptr) {
        return 0;
    }
    if (workload.merge == Merge::kWords) {
        return WordsKernel::value(as_words(data, len));
    }
    std::uint64_t sum = 0;
    std::memcpy(&sum, data, sizeof sum);
    return sum;
}

} // namespace

void start_worker(const Workload &workload) {
    const bool words = workload.merge == Merge::kWords;
    sum_kernel = new SumKernel(workload);
    words_kernel = new WordsKernel(workload);
    check(Omrapmi_worker_register_eval_func(words ? eval_words : eval_sum, kEvalId, kAppId),
          "the eval function cannot be registered");
    check(Omrapmi_worker_register_merge_func(words ? merge_words : merge_sum, kMergeId, kAppId),
          "the merge function cannot be registered");
    check(Omrapmi_worker_init_ext(workload.workers), "the worker cannot be set up");
    check(Omrapmi_worker_start(kAppId), "the worker cannot be started");
}

Invocation::Invocation(const Workload &workload, unsigned int app_id)
    : workload_(workload), app_id_(app_id), params_(make_params(workload)),
      query_(query_text(workload)), term_(query_term(workload)) {}

Timed Invocation::run() const {
    OMRAPMI_INVOKE_ARGS args{};
    args.app_id = app_id_;
    args.func_id_eval = kEvalId;
    args.func_id_merge = kMergeId;
    args.pparams_obj = params_.empty() ? nullptr : params_.data();
    args.params_obj_len = static_cast<ULONG>(params_.size());
    if (workload_.query == Query::kTerm) {
        args.use_query_spec = OMRAPMI_QUERY_INDEX;
        args.pquery_spec = &term_;
        args.query_spec_len = sizeof term_;
    } else if (!query_.empty()) {
        args.use_query_spec = OMRAPMI_QUERY_PASS_THROUGH;
        args.pquery_spec = query_.data();
        args.query_spec_len = static_cast<ULONG>(query_.size());
    }
    args.timeout_s = kTimeout;
    args.use_exceptions = workload_.use_exceptions ? TRUE : FALSE;
    OMRAPMI_INVOKE_EXT_ARGS ext{};
    ext.event_app_id = kAppId;

    const auto start = Clock::now();
    const int status = Omrapmi_invoke_ext(handle_.get(), &args, &ext);
    const Nanoseconds time = Clock::now() - start;

    check(status, "the invocation failed");
    Timed timed{{result_value(workload_, args.presults_obj_out, args.results_obj_len_out),
                 args.num_successful_out, args.num_failed_out, args.num_exceptions_out},
                time};
    Omrapmi_free(args.presults_obj_out);
    Omrapmi_free(args.pexceptions_out);
    return timed;
}

} // namespace bench
