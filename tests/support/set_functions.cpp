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

void complain(const std::string &what) {
    const std::lock_guard guard(state.lock);
    if (state.complaints.size() < max_complaints_len) {
        state.complaints += (state.complaints.empty() ? "" : "|") + what;
    }
}

void expect(bool holds, const char *what) {
    if (!holds) {
        complain(what);
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

// Where a function runs: on which thread, for which key.
struct Place {
    unsigned int thread = 0;
    OMRA_OBJKEY key{};
};

Place ask(unsigned int label) {
    Place place;
    unsigned int host_id = 0;
    asks = true;
    const int num_threads = Omrapmi_get_worker_thread_count();
    const int index = Omrapmi_get_worker_thread_index();
    expect(Omrapmi_get_key(&place.key) == OMRALIB_RET_SUCCESS, "no key");
    expect(Omrapmi_worker_get_svr_host_id(&host_id) == OMRALIB_RET_SUCCESS, "no sender");
    asks = false;
    expect(index >= 0 && index < num_threads, "no worker thread");
    expect(!state.script.is_sender || state.script.is_sender(host_id, label), "another sender");
    place.thread = static_cast<unsigned int>(index) % max_threads;
    return place;
}

bool same_key(const OMRA_OBJKEY &a, const OMRA_OBJKEY &b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

void ask_in_eval(unsigned int object, unsigned int label) {
    const Place place = ask(label);
    const bool has_object = !OMRA_OBJKEY_IS_NULL(place.key);
    expect(object == no_object || (has_object && place.key.obj_id.u64_comp[0] == object),
           "an eval knows another key");
    const std::lock_guard guard(state.lock);
    state.evaluated.at(place.thread) = place.key;
}

// A thread that merges still has the key that it evaluated before, if there was one.
void ask_in_merge(unsigned int label) {
    const Place place = ask(label);
    std::unique_lock guard(state.lock);
    if (OMRA_OBJKEY_IS_NULL(place.key)) {
        ++state.seen.num_keyless_merges;
    } else if (!same_key(place.key, state.evaluated.at(place.thread))) {
        guard.unlock();
        complain("a merge knows another key");
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
    Result result{};
    result.label = label;
    result.objects = objects;
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
    if (its.ask) {
        ask_in_eval(object, label);
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
    Result result{label, {}};
    result.objects.set(object % max_objects);
    const int code = give(result, ppresult_out, presult_len_out);
    if (code == 0 && its.spoil_eval) {
        its.spoil_eval(ppresult_out, presult_len_out);
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
    if (its.ask) {
        ask_in_merge(dst.label);
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
    const Result merged{dst.label, dst.objects | src.objects};
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

namespace {

class Check {
public:
    Check(const OMRAPMI_INVOKE_ARGS &answer, const Invocation &invocation)
        : answer_(answer), invocation_(invocation),
          is_disturbed_(invocation.objects_may_be_lost || invocation.answers_may_be_lost) {
        for (unsigned int object = 0; object < max_objects; ++object) {
            if (invocation.asked[object]) {
                failing_[object] = invocation.fails && invocation.fails(object);
                silent_[object] =
                    !failing_[object] && invocation.is_silent && invocation.is_silent(object);
            }
        }
    }

    std::string run() {
        if (answer_.presults_obj_out != nullptr) {
            result_ = objects_of({answer_.presults_obj_out, answer_.results_obj_len_out});
        }
        expect(answer_.presults_obj_out != nullptr || answer_.results_obj_len_out == 0,
               "the length of no result");
        expect((result_ & ~(invocation_.asked & ~failing_ & ~silent_)).none(),
               "a result from an object that gives none");
        check_exceptions();
        check_counts();
        check_losses();
        return what_;
    }

private:
    void expect(bool holds, const std::string &what) {
        if (!holds) {
            what_ += (what_.empty() ? "" : "|") + what;
        }
    }

    void check_exceptions() {
        const ULONG num = answer_.pexceptions_out != nullptr ? answer_.num_exceptions_out : 0;
        expect(answer_.use_exceptions ? num == answer_.num_exceptions_out
                                      : answer_.pexceptions_out == nullptr,
               "exceptions that are not handed out, or that nobody asked for");
        for (ULONG i = 0; i < num; ++i) {
            const OMRAPMI_EXCEPTION &exception = answer_.pexceptions_out[i];
            if (exception.is_eval) {
                check_exception(exception);
                continue;
            }
            ++num_merges_;
            expect(OMRA_OBJKEY_IS_NULL(exception.key), "a merge exception with a key");
            expect(is_disturbed_ ||
                       (invocation_.merges_may_fail && exception.code == merge_failure),
                   "a merge exception with code " + std::to_string(exception.code));
        }
        expect(num_merges_ == invocation_.num_failed_merges.value_or(num_merges_),
               std::to_string(num_merges_) + " merge exceptions");
    }

    void check_exception(const OMRAPMI_EXCEPTION &exception) {
        const bool has_key = !OMRA_OBJKEY_IS_NULL(exception.key);
        const ULONGLONG number = has_key ? exception.key.obj_id.u64_comp[0] : no_object;
        const ULONG app_id = exception.key.app_id & ~OMRA_APPID_NO_RENEW;
        const std::string what = "an exception for object " + std::to_string(number) +
                                 " with code " + std::to_string(exception.code);
        if (number >= max_objects || !invocation_.asked[number] ||
            (has_key && app_id != invocation_.app_id)) {
            expect(false, what);
            return;
        }
        expect(is_disturbed_ ||
                   (failing_[number] && exception.code == eval_failure + static_cast<int>(number)),
               what);
        expect(!named_[number], what + " once more");
        expect(!result_[number], what + ", which is in the result");
        named_.set(number);
    }

    void check_counts() {
        const std::size_t num_in_result = result_.count();
        expect(answer_.num_successful_out + answer_.num_failed_out == invocation_.asked.count(),
               "counts do not add up");
        expect(named_.count() <= answer_.num_failed_out, "more exceptions than failures");
        expect(invocation_.answers_may_be_lost || answer_.num_successful_out >= num_in_result,
               "a failed object is in the result");
        expect((merge_failed() && is_disturbed_) ||
                   answer_.num_successful_out <= num_in_result + silent_.count(),
               "a successful object is not in the result");
        expect(merge_failed() || is_disturbed_ || answer_.num_failed_out == failing_.count(),
               "another number of failures");
    }

    void check_losses() {
        expect(!answer_.use_exceptions || is_disturbed_ || named_ == failing_,
               "a failure without an exception");
        expect(merge_failed() || invocation_.objects_may_be_lost ||
                   (result_ | failing_ | silent_) == invocation_.asked,
               "objects are lost");
    }

    bool merge_failed() const {
        return num_merges_ != 0 || (!answer_.use_exceptions && invocation_.merges_may_fail);
    }

    const OMRAPMI_INVOKE_ARGS &answer_;
    const Invocation &invocation_;
    const bool is_disturbed_;
    Objects failing_, silent_, result_, named_;
    unsigned int num_merges_ = 0;
    std::string what_;
};

} // namespace

std::string check_answer(const OMRAPMI_INVOKE_ARGS &answer, const Invocation &invocation) {
    return Check(answer, invocation).run();
}

} // namespace set_functions
