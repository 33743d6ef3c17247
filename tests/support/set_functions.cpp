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
    std::mutex lock;
    // Guarded by lock.
    Seen seen;
    std::string complaints;
    std::array<OMRA_OBJKEY, max_threads> evaluated{}; // by worker thread: the key it took last
};
State &state = *new State;

thread_local bool asks = false;

// What a failing function leaves in its outputs must not be looked at.
char bogus_block[1];

constexpr std::size_t max_complaints_len = 1000;

void expect(bool holds, const char *what) {
    const std::lock_guard guard(state.lock);
    if (!holds && state.complaints.size() < max_complaints_len) {
        state.complaints.append(state.complaints.empty() ? "" : "|").append(what);
    }
}

int fail(int code, char **pout, unsigned int *plen_out) {
    *pout = bogus_block;
    *plen_out = 1;
    return code;
}

int give(const Result &result, char **pout, unsigned int *plen_out) {
    char *pblock = static_cast<char *>(Omrapmi_malloc(sizeof result));
    if (pblock == nullptr) {
        return fail(no_memory, pout, plen_out);
    }
    std::memcpy(pblock, &result, sizeof result);
    *pout = pblock;
    *plen_out = sizeof result;
    return 0;
}

Result read(const char *pbytes, std::size_t len) {
    Result result{};
    expect(len == sizeof result, "a result of another length");
    std::memcpy(static_cast<void *>(&result), pbytes, std::min(len, sizeof result));
    return result;
}

// Asks where the function runs: for which key, which goes to `key_out`. Returns that of the eval
// that the thread ran last, or runs now.
OMRA_OBJKEY ask(bool is_eval, unsigned int label, OMRA_OBJKEY &key_out) {
    unsigned int host_id = 0;
    asks = true;
    const int num_threads = Omrapmi_get_worker_thread_count();
    const int index = Omrapmi_get_worker_thread_index();
    expect(Omrapmi_get_key(&key_out) == OMRALIB_RET_SUCCESS, "no key");
    expect(Omrapmi_worker_get_svr_host_id(&host_id) == OMRALIB_RET_SUCCESS, "no sender");
    asks = false;
    expect(index >= 0 && index < num_threads, "no worker thread");
    expect(!state.script.is_sender || state.script.is_sender(host_id, label), "another sender");
    const std::lock_guard guard(state.lock);
    OMRA_OBJKEY &evaluated = state.evaluated.at(static_cast<unsigned int>(index) % max_threads);
    evaluated = is_eval ? key_out : evaluated;
    state.seen.num_keyless_merges += !is_eval && OMRA_OBJKEY_IS_NULL(key_out) ? 1 : 0;
    return evaluated;
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

Objects objects_of(std::string_view result) {
    return result == "none" ? Objects() : read(result.data(), result.size()).objects;
}

Script &script() {
    return state.script;
}

Seen seen() {
    const std::lock_guard guard(state.lock);
    return state.seen;
}

void reset() {
    state.script = {};
    const std::lock_guard guard(state.lock);
    state.seen = {};
}

bool is_asking() {
    return asks;
}

std::string take_complaints() {
    const std::lock_guard guard(state.lock);
    return std::exchange(state.complaints, {});
}

bool register_all(unsigned int app_id) {
    const int statuses[] = {
        Omrapmi_worker_register_eval_func(eval, eval_id, app_id),
        Omrapmi_worker_register_merge_func(merge, merge_id, app_id),
        Omrapmi_worker_register_invoke_once_eval_func(eval, once_id, app_id),
    };
    return std::count(std::begin(statuses), std::end(statuses), OMRALIB_RET_SUCCESS) == 3;
}

int eval(const char *pdata, unsigned int data_len, const char *pparams, unsigned int params_len,
         char **ppresult_out, unsigned int *presult_len_out) {
    const Script &its = state.script;
    unsigned int object = no_object, label = 0;
    expect((pdata == nullptr) == (data_len == 0), "data without a length, or a length alone");
    expect((pparams == nullptr) == (params_len == 0),
           "parameters without a length, or the reverse");
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
    if (OMRA_OBJKEY key{}; its.ask && data_len != 0) {
        ask(true, label, key);
        expect(key.app_id != 0 && key.obj_id.u64_comp[0] == object, "an eval knows another key");
    }
    {
        const std::lock_guard guard(state.lock);
        state.seen.params.assign(pparams != nullptr ? pparams : "", params_len);
    }
    if (its.fails && its.fails(object, label)) {
        return fail(eval_failure + static_cast<int>(object), ppresult_out, presult_len_out);
    }
    if (its.is_silent && its.is_silent(object)) {
        return 0;
    }
    Result result{label, {}, {}};
    result.objects.set(object % max_objects);
    const int code = give(result, ppresult_out, presult_len_out);
    if (code == 0 && its.spoil_eval) {
        its.spoil_eval(nullptr, ppresult_out, presult_len_out);
    }
    return code;
}

// Odd sets are made in place, even ones in a new block.
int merge(char *pdst, unsigned int dst_len, const char *psrc, unsigned int src_len,
          char **ppmerged_out, unsigned int *pmerged_len_out) {
    const Script &its = state.script;
    if (its.on_merge) {
        its.on_merge();
    }
    const Result dst = read(pdst, dst_len), src = read(psrc, src_len);
    expect(*ppmerged_out == nullptr && *pmerged_len_out == 0, "outputs that are not preset");
    expect((dst.objects & src.objects).none(), "an object is merged twice");
    expect(dst.label == src.label, "results of two invocations are merged");
    // A thread that merges still has the key that it evaluated before, if there was one.
    if (OMRA_OBJKEY key{}; its.ask) {
        const OMRA_OBJKEY evaluated = ask(false, dst.label, key);
        expect(key.app_id == 0 || std::memcmp(&key, &evaluated, sizeof key) == 0,
               "a merge knows another key");
    }
    const bool fails = its.merge_fails && its.merge_fails(dst, src);
    {
        const std::lock_guard guard(state.lock);
        state.seen.num_merges += 1;
        state.seen.num_failed_merges += fails ? 1 : 0;
    }
    if (fails) {
        return fail(merge_failure, ppmerged_out, pmerged_len_out);
    }
    const Result merged{dst.label, {}, dst.objects | src.objects};
    int code = 0;
    if (merged.objects.count() % 2 == 0) {
        code = give(merged, ppmerged_out, pmerged_len_out);
    } else {
        std::memcpy(pdst, &merged, std::min<std::size_t>(dst_len, sizeof merged));
        *ppmerged_out = pdst;
        *pmerged_len_out = dst_len;
    }
    if (code == 0 && its.spoil_merge) {
        its.spoil_merge(psrc, ppmerged_out, pmerged_len_out);
    }
    return code;
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
        result = objects_of({answer.presults_obj_out, answer.results_obj_len_out});
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
                       (!has_key || (exception.key.app_id & 0x0FFFFFFF) == its.app_id);
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
