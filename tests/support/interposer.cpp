#include "interposer.h"

#include "common/records.h"
#include "runtime/descriptors.h"
#include "sysapp.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <tuple>
#include <utility>

namespace interposer {
namespace {

using HeldLock = std::tuple<OMRALIB_HANDLE, int, std::string>; // the ticket, the object in words

// Worker threads outlive main, and so do the things that they use.
struct State {
    std::mutex lock;
    std::vector<Answer> answers;
    std::string log, reports, traces, misuse;
    std::map<OMRALIB_HANDLE, THREADID> owners; // of the module's handles; 0: not used yet
    std::map<OMRALIB_HANDLE, unsigned int> reads;
    std::set<HeldLock> object_locks;
};
State &state = *new State; // guarded by its lock

std::atomic<int> mutexes{0}, idscs_pooled{0}, wdscs_pooled{0}, forks{0}, ended{0}, waiting{0};

void append(std::string &lines, std::string_view line) {
    const std::lock_guard guard(state.lock);
    lines.append(lines.empty() ? "" : "|").append(line);
}

std::string take(std::string &lines) {
    const std::lock_guard guard(state.lock);
    return std::exchange(lines, {});
}

// A call in words ---------------------------------------------------------------------------------

template <auto *operation>
constexpr std::string_view name_of;
#define NAME(arity, name)                                                                          \
    template <>                                                                                    \
    constexpr std::string_view name_of<name> = #name;
INTERPOSED_OPERATIONS(NAME)
#undef NAME

template <auto *operation, auto *other>
constexpr bool is = name_of<operation> == name_of<other>;

template <auto *operation>
constexpr bool has_handle = name_of<operation>.starts_with("Omralib_") &&
                            !is<operation, Omralib_init> && !is<operation, Omralib_open_ext> &&
                            !is<operation, Omralib_register_cb> &&
                            !is<operation, Omralib_get_invoke_keys> &&
                            !is<operation, Omralib_flush_invoke>;

template <class Argument>
void describe(std::string &text, const Argument &argument) {
    if constexpr (std::is_same_v<Argument, OMRA_OBJKEY>) {
        text += ' ';
        if (argument.app_id == 0x30000000) {
            text += "params";
            return;
        }
        if (argument.app_id != 7) {
            text += std::to_string(argument.app_id) + "/";
        }
        text += std::to_string(argument.obj_id.u64_comp[0]);
    } else if constexpr (std::is_same_v<Argument, const char *>) {
        text += argument != nullptr ? " " : "";
        text += argument != nullptr ? argument : "";
    } else if constexpr (std::is_integral_v<Argument>) {
        text += argument != 0 ? " " : "";
        text += argument != 0 ? std::to_string(argument) : "";
    }
}

template <auto *operation, class... Arguments>
std::string text_of(const std::tuple<Arguments...> &arguments) {
    constexpr std::string_view prefix = "Omralib_";
    std::string text(name_of<operation>);
    text.erase(0, text.starts_with(prefix) ? prefix.size() : 0);
    [[maybe_unused]] bool is_handle = has_handle<operation>;
    [[maybe_unused]] const auto add = [&](const auto &argument) {
        if (!std::exchange(is_handle, false)) {
            describe(text, argument);
        }
    };
    std::apply([&](const auto &...argument) { (add(argument), ...); }, arguments);
    return text;
}

template <class... Arguments>
unsigned int last_number(const std::tuple<Arguments...> &arguments) {
    unsigned int number = 0;
    [[maybe_unused]] const auto look = [&](const auto &argument) {
        if constexpr (std::is_same_v<std::decay_t<decltype(argument)>, unsigned int>) {
            number = argument;
        }
    };
    std::apply([&](const auto &...argument) { (look(argument), ...); }, arguments);
    return number;
}

// The ledger --------------------------------------------------------------------------------------

THREADID my_id() {
    return instead<Thread_myid> ? instead<Thread_myid>() : real<Thread_myid>();
}

void misused(const char *what) { // under the lock
    state.misuse.append(state.misuse.empty() ? "" : "|").append(what);
}

std::atomic<int> *pool(const QUEUE *pq) {
    return pq == &omrapmi_worker_state.idsc_freeq   ? &idscs_pooled
           : pq == &omrapmi_worker_state.wdsc_freeq ? &wdscs_pooled
                                                    : nullptr;
}

void begin_read(OMRALIB_HANDLE hdl, bool is_open, unsigned int len) {
    if (state.reads.contains(hdl)) {
        misused("a read while one is pending");
    }
    if (is_open && len != 0) {
        state.reads[hdl] = len;
    }
}

// Fetches so many pending bytes, or drops all that there are. With a wrong length they stay.
void end_read(OMRALIB_HANDLE hdl, std::optional<unsigned int> len) {
    const auto found = state.reads.find(hdl);
    if (found == state.reads.end()) {
        misused("no read is pending");
    } else if (!len || *len == found->second) {
        state.reads.erase(found);
    }
}

HeldLock held(OMRALIB_HANDLE hdl, int ticket, const OMRA_OBJKEY &key) {
    std::string object;
    describe(object, key);
    return {hdl, ticket, object};
}

void end_lock(OMRALIB_HANDLE hdl, int ticket, const OMRA_OBJKEY &key) {
    if (state.object_locks.erase(held(hdl, ticket, key)) == 0) {
        misused("a lock that is not held");
    }
}

void check_owner(OMRALIB_HANDLE hdl) {
    const auto found = state.owners.find(hdl);
    if (found == state.owners.end()) {
        return;
    }
    const THREADID caller = my_id();
    if (found->second != NULLTHREADID && found->second != caller) {
        misused("a handle used by two threads");
    }
    found->second = caller;
}

// What a call of the store comes to, as the module knows it.
template <auto *operation, class Value, class... Arguments>
void note_answer(const Value &value, const std::tuple<Arguments...> &arguments) {
    const std::lock_guard guard(state.lock);
    if constexpr (is<operation, Omralib_open_ext>) {
        if (value != OMRALIB_NULL_HANDLE) {
            state.owners[value] = NULLTHREADID;
        }
    } else if constexpr (has_handle<operation>) {
        constexpr std::size_t last = sizeof...(Arguments) - 1;
        const OMRALIB_HANDLE hdl = std::get<0>(arguments);
        check_owner(hdl);
        if constexpr (is<operation, Omralib_close>) {
            state.owners.erase(hdl);
            state.reads.erase(hdl);
            std::erase_if(state.object_locks, [=](auto &lock) { return get<0>(lock) == hdl; });
        } else if constexpr (is<operation, Omralib_read_obj>) {
            begin_read(hdl, value == OMRALIB_RET_SUCCESS, *std::get<2>(arguments));
        } else if constexpr (is<operation, Omralib_invoke>) {
            begin_read(hdl, value == OMRALIB_RET_SUCCESS, *std::get<4>(arguments));
        } else if constexpr (is<operation, Omralib_read_and_lock_obj>) {
            begin_read(hdl, value > 0, *std::get<3>(arguments));
            if (value > 0) {
                state.object_locks.insert(held(hdl, value, std::get<last>(arguments)));
            }
        } else if constexpr (is<operation, Omralib_get_read_data>) {
            end_read(hdl, std::get<2>(arguments));
        } else if constexpr (is<operation, Omralib_flush_read_data>) {
            end_read(hdl, std::nullopt);
        } else if constexpr (is<operation, Omralib_unlock_obj>) {
            end_lock(hdl, std::get<1>(arguments), std::get<last>(arguments));
        } else if constexpr (is<operation, Omralib_update_locked_obj>) {
            if (value == OMRALIB_RET_SUCCESS && std::get<2>(arguments) == 1) {
                end_lock(hdl, std::get<1>(arguments), std::get<last>(arguments));
            }
        }
    }
}

// Calls ------------------------------------------------------------------------------------------

template <class Pointer>
struct Signature;
template <class R, class... A>
struct Signature<R (*)(A...)> {
    using Result = R;
    using Value = std::conditional_t<std::is_void_v<R>, long, R>;
    using Arguments = std::tuple<A...>;
};
template <auto *operation>
using Result = typename Signature<decltype(operation)>::Result;
template <auto *operation>
using Value = typename Signature<decltype(operation)>::Value;
template <auto *operation, std::size_t index>
using Parameter = std::tuple_element_t<index, typename Signature<decltype(operation)>::Arguments>;

template <auto *operation, class Arguments>
Value<operation> apply(const Arguments &arguments) {
    const auto call = [&](const auto &...argument) {
        return instead<operation> ? instead<operation>(argument...) : real<operation>(argument...);
    };
    if constexpr (std::is_void_v<Result<operation>>) {
        std::apply(call, arguments);
        return 0;
    } else {
        return std::apply(call, arguments);
    }
}

// Makes the call, and notes what is taken and given back whatever the module will be told.
template <auto *operation, class Arguments>
Value<operation> carry_out(const Arguments &arguments) {
    if constexpr (is<operation, Thread_fork>) {
        forks += 1; // before the thread can be seen waiting
    } else if constexpr (is<operation, Thread_end>) {
        ended += 1;
    } else if constexpr (is<operation, Blockq_deq>) {
        waiting += 1;
    } else if constexpr (is<operation, Queue_enq>) {
        if (std::atomic<int> *pooled = pool(std::get<0>(arguments))) {
            *pooled += 1;
        }
    }
    const Value<operation> value = apply<operation>(arguments);
    if constexpr (is<operation, Thread_fork>) {
        forks -= value == NULLTHREADID ? 1 : 0;
    } else if constexpr (is<operation, Blockq_deq>) {
        waiting -= 1;
    } else if constexpr (is<operation, Queue_deq>) {
        if (std::atomic<int> *pooled = pool(std::get<0>(arguments))) {
            *pooled -= value != nullptr ? 1 : 0;
        }
    } else if constexpr (is<operation, Lock_enter>) {
        mutexes += value;
    } else if constexpr (is<operation, Lock_exit>) {
        mutexes -= value;
    }
    return value;
}

// Puts right what a client library would when the answer to a call does not arrive. The lock whose
// ticket is lost stays until its lease is over.
template <auto *operation, class Arguments>
void lose([[maybe_unused]] const Value<operation> &value, const Arguments &arguments) {
    if constexpr (is<operation, Omralib_open_ext>) {
        real<Omralib_close>(value);
    } else if constexpr (is<operation, Omralib_read_obj> || is<operation, Omralib_invoke> ||
                         is<operation, Omralib_read_and_lock_obj>) {
        real<Omralib_flush_read_data>(std::get<0>(arguments));
    }
}

// Pending bytes are on this side of the network: a fetch that fails leaves nothing pending.
template <auto *operation, class Arguments>
void refuse(const Arguments &arguments) {
    if constexpr (is<operation, Omralib_get_read_data> || is<operation, Omralib_flush_read_data>) {
        real<Omralib_flush_read_data>(std::get<0>(arguments));
    }
}

template <auto *operation, class Arguments>
Result<operation> interpose(const Arguments &arguments) {
    Verdict verdict;
    if (before) {
        verdict = before({name_of<operation>, last_number(arguments),
                          [&arguments] { return text_of<operation>(arguments); }});
    }
    Value<operation> value{};
    if (verdict.kind == Verdict::refused) {
        refuse<operation>(arguments);
    } else {
        value = carry_out<operation>(arguments);
    }
    if (verdict.kind == Verdict::answer_lost) {
        lose<operation>(value, arguments);
    }
    if (verdict.kind != Verdict::carried_out) {
        if constexpr (std::is_pointer_v<Value<operation>>) {
            value = reinterpret_cast<Value<operation>>(verdict.answer);
        } else {
            value = static_cast<Value<operation>>(verdict.answer);
        }
    }
    if constexpr (name_of<operation>.starts_with("Omralib_")) {
        note_answer<operation>(value, arguments);
    }
    if (verdict.then) {
        verdict.then();
    }
    return static_cast<Result<operation>>(value);
}

} // namespace

// Scripts -----------------------------------------------------------------------------------------

void script(std::vector<Answer> answers) {
    const std::lock_guard guard(state.lock);
    state.answers = std::move(answers);
}

Verdict scripted(const Call &call) {
    const std::string text = call.text();
    const std::lock_guard guard(state.lock);
    if (call.is_store() && text != "init") {
        state.log.append(state.log.empty() ? "" : "|").append(text);
    }
    const auto is_meant = [&](const Answer &answer) {
        return text.substr(0, text.find(' ')) == answer.operation &&
               (answer.about.empty() || text.ends_with(" " + answer.about));
    };
    const auto found = std::find_if(state.answers.begin(), state.answers.end(), is_meant);
    if (found == state.answers.end()) {
        return {};
    }
    const Verdict verdict{Verdict::refused, found->answer};
    state.answers.erase(found);
    return verdict;
}

std::string take_log() {
    return take(state.log);
}

// What was seen -----------------------------------------------------------------------------------

std::string take_reports() {
    return take(state.reports);
}

void collect_traces() {
    sys_trace_level = 0;
    Sys_set_trace_func([](const char *line) {
        std::string text(line, std::strlen(line) - 1); // without the newline
        if (text.starts_with("Tr [pmi-")) {
            text.erase(0, 7).front() = '[';
        }
        append(state.traces, text);
    });
}

std::string take_traces() {
    return take(state.traces);
}

std::string take_misuse() {
    return take(state.misuse);
}

Ledger ledger() {
    const auto made = [](unsigned int tag, unsigned int built_in, unsigned int batch_len) {
        return static_cast<int>(built_in + Sys_get_mem_use(tag).blocks * batch_len);
    };
    Ledger result;
    if (omrapmi_worker_state.code == OMRAPMI_WORKER_STATE_CODE) {
        result.descriptors =
            made(OMRAPMI_TAG_IDSC_BATCH, OMRAPMI_NUM_BUILT_IN_IDSCS, OMRAPMI_IDSC_BATCH_LEN) +
            made(OMRAPMI_TAG_WDSC_BATCH, OMRAPMI_NUM_BUILT_IN_WDSCS, OMRAPMI_WDSC_BATCH_LEN) -
            idscs_pooled - wdscs_pooled;
    }
    result.mutexes = mutexes;
    result.threads = forks - ended - waiting;
    const std::lock_guard guard(state.lock);
    result.reads = static_cast<int>(state.reads.size());
    result.object_locks = static_cast<int>(state.object_locks.size());
    return result;
}

unsigned int num_forks() {
    return static_cast<unsigned int>(forks);
}

std::size_t num_blocks() {
    std::size_t result = 0;
    for (const unsigned int tag :
         {OMRAPMI_TAG_NEW_OBJECT, OMRAPMI_TAG_OBJECT, OMRAPMI_TAG_LOCKED_OBJECT,
          OMRAPMI_TAG_REQUEST, OMRAPMI_TAG_USER}) {
        result += Sys_get_mem_use(tag).blocks;
    }
    return result;
}

namespace {

const bool reports_are_collected = [] {
    instead<Sys_log_assert> = [](const char *, int, const char *expression) {
        append(state.reports, expression);
    };
    return true;
}();

} // namespace
} // namespace interposer

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's
extern "C" {

using namespace interposer;

#define PARAMETERS_0(name)
#define PARAMETERS_1(name) Parameter<name, 0> a0
#define PARAMETERS_2(name) PARAMETERS_1(name), Parameter<name, 1> a1
#define PARAMETERS_3(name) PARAMETERS_2(name), Parameter<name, 2> a2
#define PARAMETERS_4(name) PARAMETERS_3(name), Parameter<name, 3> a3
#define PARAMETERS_5(name) PARAMETERS_4(name), Parameter<name, 4> a4
#define PARAMETERS_6(name) PARAMETERS_5(name), Parameter<name, 5> a5
#define PARAMETERS_7(name) PARAMETERS_6(name), Parameter<name, 6> a6
#define ARGUMENTS_0
#define ARGUMENTS_1 a0
#define ARGUMENTS_2 ARGUMENTS_1, a1
#define ARGUMENTS_3 ARGUMENTS_2, a2
#define ARGUMENTS_4 ARGUMENTS_3, a3
#define ARGUMENTS_5 ARGUMENTS_4, a4
#define ARGUMENTS_6 ARGUMENTS_5, a5
#define ARGUMENTS_7 ARGUMENTS_6, a6
#define WRAP(arity, name)                                                                          \
    Result<name> __wrap_##name(PARAMETERS_##arity(name)) {                                         \
        return interpose<name>(std::make_tuple(ARGUMENTS_##arity));                                \
    }
INTERPOSED_OPERATIONS(WRAP)

} // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
