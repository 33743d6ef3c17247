#include "set_functions.h"

#include "storlib.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <utility>

namespace set_functions {
namespace {

constexpr unsigned int max_threads = 1024;

// Worker threads outlive main, and so do the things that they use.
struct State {
    Script script;
    std::array<OMRA_OBJKEY, max_threads> evaluated{}; // each thread's own: the key it took last
    std::mutex lock;
    std::string complaints; // guarded by lock
};
State &state = *new State;

// What a failing function leaves in its outputs must not be looked at.
char bogus_block[1];

void expect(bool holds, const char *what) {
    const std::lock_guard guard(state.lock);
    if (!holds && state.complaints.size() < 1000) {
        state.complaints.append(state.complaints.empty() ? "" : "|").append(what);
    }
}

int fail(int code, char **pout, unsigned int *plen_out) {
    *pout = bogus_block;
    *plen_out = 1;
    return code;
}

// In the block, or in a new one for NULL; fails when there is no memory for it.
int give(const Result &result, char *pblock, const char *psrc, char **pout,
         unsigned int *plen_out) {
    *pout = pblock != nullptr ? pblock : static_cast<char *>(Omrapmi_malloc(sizeof result));
    *plen_out = sizeof result;
    if (*pout == nullptr) {
        return fail(42, pout, plen_out);
    }
    std::memcpy(*pout, &result, sizeof result);
    if (state.script.spoil) {
        state.script.spoil(pblock, psrc, pout, plen_out);
    }
    return 0;
}

Result read(const char *pbytes, std::size_t len) {
    Result result{};
    expect(len == sizeof result, "a result of another length");
    std::memcpy(static_cast<void *>(&result), pbytes, std::min(len, sizeof result));
    return result;
}

// Asks where the function runs: an eval for its object, or a merge.
void ask(std::optional<unsigned int> object, unsigned int label) {
    OMRA_OBJKEY key{};
    unsigned int host_id = 0;
    const int num_threads = Omrapmi_get_worker_thread_count();
    const int index = Omrapmi_get_worker_thread_index();
    expect(Omrapmi_get_key(&key) == OMRALIB_RET_SUCCESS, "no key");
    expect(Omrapmi_worker_get_svr_host_id(&host_id) == OMRALIB_RET_SUCCESS, "no sender");
    expect(index >= 0 && index < num_threads, "no worker thread");
    expect(!state.script.is_sender || state.script.is_sender(host_id, label), "another sender");
    OMRA_OBJKEY &evaluated = state.evaluated.at(static_cast<unsigned int>(index) % max_threads);
    if (object) {
        expect(key.app_id != 0 && key.obj_id.u64_comp[0] == *object, "an eval knows another key");
        evaluated = key;
    } else {
        const OMRA_OBJKEY right = state.script.has_keys ? evaluated : OMRA_OBJKEY{};
        expect(std::memcmp(&key, &right, sizeof key) == 0, "a merge knows another key");
    }
}

} // namespace

Objects set_of(const std::vector<unsigned int> &objects) {
    Objects result;
    for (const unsigned int object : objects) {
        result.set(object);
    }
    return result;
}

Objects first_objects(unsigned int num_objects) {
    return num_objects == 0 ? Objects() : ~Objects() >> (max_objects - num_objects);
}

std::string object_bytes(unsigned int object) {
    return {reinterpret_cast<const char *>(&object), sizeof object};
}

std::string result_bytes(const Objects &objects, unsigned int label) {
    const Result result{label, {}, objects};
    return {reinterpret_cast<const char *>(&result), sizeof result};
}

Script &script() {
    return state.script;
}

std::string take_complaints() {
    const std::lock_guard guard(state.lock);
    return std::exchange(state.complaints, {});
}

bool register_all(unsigned int app_id) {
    const int eval_status = Omrapmi_worker_register_eval_func(eval, eval_id, app_id);
    const int merge_status = Omrapmi_worker_register_merge_func(merge, merge_id, app_id);
    const int once_status = Omrapmi_worker_register_invoke_once_eval_func(eval, once_id, app_id);
    return eval_status == 1 && merge_status == 1 && once_status == 1;
}

int eval(const char *pdata, unsigned int data_len, const char *pparams, unsigned int params_len,
         char **ppresult_out, unsigned int *presult_len_out) {
    const Script &its = state.script;
    unsigned int object = no_object, label = 0;
    expect((pdata == nullptr) == (data_len == 0) && (pparams == nullptr) == (params_len == 0),
           "bytes without a length, or a length alone");
    expect(*ppresult_out == nullptr && *presult_len_out == 0, "outputs that are not preset");
    if (data_len == sizeof object) {
        std::memcpy(&object, pdata, sizeof object);
    }
    expect((data_len == 0 || data_len == sizeof object) && object < max_objects,
           "a foreign object");
    if (params_len >= sizeof label) {
        std::memcpy(&label, pparams, sizeof label);
    }
    if (its.on_eval) {
        its.on_eval(object);
    }
    if (its.ask && data_len != 0) {
        ask(object, label);
    }
    expect(!its.params || *its.params == std::string_view(pparams, params_len), "other parameters");
    if (its.fails && its.fails(object, label)) {
        return fail(eval_failure + static_cast<int>(object), ppresult_out, presult_len_out);
    }
    if (its.is_silent && its.is_silent(object)) {
        return 0;
    }
    return give({label, {}, set_of({object % max_objects})}, nullptr, nullptr, ppresult_out,
                presult_len_out);
}

// Odd sets are made in place, even ones in a new block.
int merge(char *pdst, unsigned int dst_len, const char *psrc, unsigned int src_len,
          char **ppmerged_out, unsigned int *pmerged_len_out) {
    const Script &its = state.script;
    const Result dst = read(pdst, dst_len), src = read(psrc, src_len);
    expect(*ppmerged_out == nullptr && *pmerged_len_out == 0, "outputs that are not preset");
    expect((dst.objects & src.objects).none(), "an object is merged twice");
    expect(dst.label == src.label, "results of two invocations are merged");
    if (its.ask) {
        ask({}, dst.label);
    }
    if (its.merge_fails && its.merge_fails(dst, src)) {
        return fail(merge_failure, ppmerged_out, pmerged_len_out);
    }
    const Objects merged = dst.objects | src.objects;
    char *const pblock = merged.count() % 2 == 0 || dst_len < sizeof dst ? nullptr : pdst;
    return give({dst.label, {}, merged}, pblock, psrc, ppmerged_out, pmerged_len_out);
}

// Answers -----------------------------------------------------------------------------------------

std::string check_answer(const OMRAPMI_INVOKE_ARGS &answer, const Invocation &its) {
    std::string what;
    const auto check = [&](bool holds, const std::string &complaint) {
        what += holds ? "" : complaint + "|";
    };
    Objects failing, silent, result, named;
    for (unsigned int object = 0; object < max_objects; ++object) {
        failing[object] = its.asked[object] && its.fails && its.fails(object);
        silent[object] =
            its.asked[object] && !failing[object] && its.is_silent && its.is_silent(object);
    }
    if (answer.presults_obj_out != nullptr) {
        result = read(answer.presults_obj_out, answer.results_obj_len_out).objects;
    }
    check((answer.presults_obj_out == nullptr) == (answer.results_obj_len_out == 0), "no result");
    check((result & ~(its.asked & ~failing & ~silent)).none(), "a result of what gives none");

    const bool is_disturbed = its.objects_may_be_lost || its.answers_may_be_lost;
    unsigned int num_merges = 0;
    check(answer.use_exceptions || answer.pexceptions_out == nullptr, "unwanted exceptions");
    for (ULONG i = 0; i < answer.num_exceptions_out && answer.use_exceptions; ++i) {
        const OMRAPMI_EXCEPTION &exception = answer.pexceptions_out[i];
        const bool has_key = !OMRA_OBJKEY_IS_NULL(exception.key);
        const ULONGLONG number = has_key ? exception.key.obj_id.u64_comp[0] : no_object;
        bool is_right = !has_key;
        int code = merge_failure;
        if (exception.is_eval) {
            is_right = number < max_objects && its.asked[number] && !named[number] &&
                       !result[number] && (is_disturbed || failing[number]) &&
                       (!has_key || (exception.key.app_id & 0x0FFFFFFF) == 7);
            code = eval_failure + static_cast<int>(number);
            named.set(number % max_objects);
        } else {
            ++num_merges;
        }
        check(is_right && (is_disturbed || exception.code == code),
              "exception " + std::to_string(exception.code) + " of " + std::to_string(number));
    }
    check(num_merges == its.num_failed_merges.value_or(num_merges), "other merge exceptions");
    check(num_merges == 0 || its.merges_may_fail || is_disturbed, "failed merges");

    const bool merge_failed = num_merges != 0 || (!answer.use_exceptions && its.merges_may_fail);
    const std::size_t num_in_result = result.count(), num_successful = answer.num_successful_out;
    check(num_successful + answer.num_failed_out == its.asked.count(), "counts do not add up");
    check(named.count() <= answer.num_failed_out, "more exceptions than failures");
    check(its.answers_may_be_lost || num_successful >= num_in_result, "a failure in the result");
    check((merge_failed && is_disturbed) || num_successful <= num_in_result + silent.count(),
          "a success that is not in the result");
    check(merge_failed || is_disturbed || answer.num_failed_out == failing.count(), "failures");
    check(is_disturbed || !answer.use_exceptions || named == failing, "exceptions are missing");
    check(merge_failed || its.objects_may_be_lost || (result | failing | silent) == its.asked,
          "objects are lost");
    return what;
}

} // namespace set_functions
