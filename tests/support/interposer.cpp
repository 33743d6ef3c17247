#include "interposer.h"

#include "common/records.h"
#include "runtime/descriptors.h"
#include "sysapp.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
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

std::atomic<int> mutexes{0}, forks{0}, ended{0}, waiting{0};

void append(std::string &lines, std::string_view line) { // under the lock
    lines.append(lines.empty() ? "" : "|").append(line);
}

std::string take(std::string &lines) {
    const std::lock_guard guard(state.lock);
    return std::exchange(lines, {});
}

// Operations --------------------------------------------------------------------------------------

template <auto *operation>
constexpr std::string_view name_of;
#define NAME(arity, name)                                                                          \
    template <>                                                                                    \
    constexpr std::string_view name_of<name> = #name;
INTERPOSED_OPERATIONS(NAME)

template <auto *operation, auto *...others>
constexpr bool is = ((name_of<operation> == name_of<others>) || ...);

constexpr std::string_view store_prefix = "Omralib_";
template <auto *operation>
constexpr bool is_store = name_of<operation>.starts_with(store_prefix);
template <auto *operation>
constexpr bool has_handle =
    is_store<operation> && !is<operation, Omralib_init, Omralib_open_ext, Omralib_register_cb,
                               Omralib_get_invoke_keys, Omralib_flush_invoke>;

template <class Pointer>
struct Signature;
template <class R, class... A>
struct Signature<R (*)(A...)> {
    using Result = R;
    using Arguments = std::tuple<A...>;
};
template <auto *operation>
using Result = typename Signature<decltype(operation)>::Result;
template <auto *operation>
using Value = std::conditional_t<std::is_void_v<Result<operation>>, long, Result<operation>>;
template <auto *operation>
using Arguments = typename Signature<decltype(operation)>::Arguments;

// A call in words ---------------------------------------------------------------------------------

std::string name_of_object(const OMRA_OBJKEY &key) {
    const std::string number = std::to_string(key.obj_id.u64_comp[0]);
    return key.app_id == 7            ? number
           : key.app_id == 0x30000000 ? "params"
                                      : std::to_string(key.app_id) + "/" + number;
}

template <class Argument>
void describe(std::string &text, const Argument &argument) {
    if constexpr (std::is_same_v<Argument, OMRA_OBJKEY>) {
        text.append(" ").append(name_of_object(argument));
    } else if constexpr (std::is_same_v<Argument, const char *>) {
        text.append(argument ? " " : "").append(argument ? argument : "");
    } else if constexpr (std::is_unsigned_v<Argument>) {
        text.append(argument ? " " : "").append(argument ? std::to_string(argument) : "");
    }
}

template <auto *operation>
std::string text_of(const Arguments<operation> &arguments) {
    std::string text(name_of<operation>.substr(is_store<operation> ? store_prefix.size() : 0));
    const auto describe_all = [&](const auto &...argument) { (describe(text, argument), ...); };
    if constexpr (has_handle<operation>) {
        std::apply([&](auto, const auto &...rest) { describe_all(rest...); }, arguments);
    } else {
        std::apply(describe_all, arguments);
    }
    return text;
}

template <class... All>
unsigned int last_number(const std::tuple<All...> &arguments) {
    unsigned int number = 0;
    [[maybe_unused]] const auto look = [&]<class Argument>(const Argument &argument) {
        if constexpr (std::is_same_v<Argument, unsigned int>) {
            number = argument;
        }
    };
    std::apply([&](const auto &...argument) { (look(argument), ...); }, arguments);
    return number;
}

// The ledger --------------------------------------------------------------------------------------

void expect(bool holds, const char *what) {
    if (!holds) {
        append(state.misuse, what);
    }
}

void check_owner(OMRALIB_HANDLE hdl) {
    const auto found = state.owners.find(hdl);
    if (found != state.owners.end()) {
        const THREADID caller = instead<Thread_myid> ? instead<Thread_myid>() : real<Thread_myid>();
        const THREADID before = std::exchange(found->second, caller);
        expect(before == NULLTHREADID || before == caller, "a handle used by two threads");
    }
}

// What a call on a handle comes to, as the module knows it.
template <auto *operation>
void note_answer(const Value<operation> &value, const Arguments<operation> &arguments) {
    const std::lock_guard guard(state.lock);
    const OMRALIB_HANDLE hdl = std::get<0>(arguments);
    check_owner(hdl);
    if constexpr (is<operation, Omralib_close>) {
        state.owners.erase(hdl);
        state.reads.erase(hdl);
        std::erase_if(state.object_locks, [=](auto &lock) { return get<0>(lock) == hdl; });
    }
    if constexpr (is<operation, Omralib_read_obj, Omralib_read_and_lock_obj, Omralib_invoke>) {
        expect(!state.reads.contains(hdl), "a read while one is pending");
        if (const unsigned int len = *std::get<unsigned int *>(arguments); value > 0 && len != 0) {
            state.reads[hdl] = len;
        }
    }
    if constexpr (is<operation, Omralib_get_read_data, Omralib_flush_read_data>) {
        const auto read = state.reads.find(hdl);
        expect(read != state.reads.end(), "no read is pending");
        bool is_done = read != state.reads.end();
        if constexpr (is<operation, Omralib_get_read_data>) { // with a wrong length it stays
            is_done = is_done && read->second == std::get<2>(arguments);
        }
        if (is_done) {
            state.reads.erase(read);
        }
    }
    if constexpr (is<operation, Omralib_read_and_lock_obj>) {
        if (value > 0) {
            state.object_locks.emplace(hdl, value, name_of_object(std::get<4>(arguments)));
        }
    }
    if constexpr (is<operation, Omralib_unlock_obj, Omralib_update_locked_obj>) {
        const std::string object = name_of_object(std::get<OMRA_OBJKEY>(arguments));
        const HeldLock held{hdl, std::get<int>(arguments), object};
        expect(state.object_locks.contains(held), "a lock that is not held");
        if (is<operation, Omralib_unlock_obj> || (value == 1 && std::get<2>(arguments) == 1)) {
            state.object_locks.erase(held);
        }
    }
}

// Calls -------------------------------------------------------------------------------------------

template <auto *operation>
Value<operation> carry_out(const Arguments<operation> &arguments) {
    const auto call = [](const auto &...argument) {
        return instead<operation> ? instead<operation>(argument...) : real<operation>(argument...);
    };
    if constexpr (std::is_void_v<Result<operation>>) {
        ended += is<operation, Thread_end> ? 1 : 0;
        std::apply(call, arguments);
        return 0;
    } else {
        // A thread counts before it can be seen waiting.
        forks += is<operation, Thread_fork> ? 1 : 0;
        waiting += is<operation, Blockq_deq> ? 1 : 0;
        const Value<operation> value = std::apply(call, arguments);
        waiting -= is<operation, Blockq_deq> ? 1 : 0;
        forks -= is<operation, Thread_fork> && !value ? 1 : 0;
        mutexes += is<operation, Lock_enter> && value ? 1 : 0;
        mutexes -= is<operation, Lock_exit> && value ? 1 : 0;
        return value;
    }
}

template <auto *operation>
Result<operation> interpose(const Arguments<operation> &arguments) {
    Verdict verdict;
    if (before) {
        verdict = before({name_of<operation>, last_number(arguments),
                          [&] { return text_of<operation>(arguments); }});
    }
    Value<operation> value{};
    if (verdict.kind != Verdict::refused) {
        value = carry_out<operation>(arguments);
    }
    if (verdict.kind != Verdict::carried_out) {
        if constexpr (is<operation, Omralib_open_ext>) {
            if (verdict.kind == Verdict::answer_lost) {
                real<Omralib_close>(value);
            }
        } else if constexpr (has_handle<operation>) {
            real<Omralib_flush_read_data>(std::get<0>(arguments));
        }
        if constexpr (std::is_pointer_v<Value<operation>>) {
            value = reinterpret_cast<Value<operation>>(verdict.answer);
        } else {
            value = static_cast<Value<operation>>(verdict.answer);
        }
    }
    if constexpr (has_handle<operation>) {
        note_answer<operation>(value, arguments);
    } else if constexpr (is<operation, Omralib_open_ext>) {
        const std::lock_guard guard(state.lock);
        state.owners[value] = NULLTHREADID;
    }
    if (verdict.then) {
        verdict.then();
    }
    return static_cast<Result<operation>>(value);
}

const bool reports_are_collected = [] {
    instead<Sys_log_assert> = [](const char *, int, const char *expression) {
        const std::lock_guard guard(state.lock);
        append(state.reports, expression);
    };
    return true;
}();

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
        append(state.log, text);
    }
    const auto is_meant = [&](const Answer &answer) {
        return text.substr(0, text.find(' ')) == answer.operation &&
               (answer.about.empty() || text.ends_with(" " + answer.about));
    };
    const auto found = std::find_if(state.answers.begin(), state.answers.end(), is_meant);
    if (found == state.answers.end()) {
        return {};
    }
    Verdict verdict{Verdict::refused, found->answer};
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
        const std::lock_guard guard(state.lock);
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
    OMRAPMI_WORKER_STATE &worker = omrapmi_worker_state;
    const auto taken = [](QUEUE *pool, unsigned int tag, unsigned int built_in,
                          unsigned int batch) {
        const std::size_t made = built_in + Sys_get_mem_use(tag).blocks * batch;
        return static_cast<int>(made) - static_cast<int>(Sys_get_queue_count(pool));
    };
    Ledger result;
    if (worker.code == OMRAPMI_WORKER_STATE_CODE) {
        result.descriptors = taken(&worker.idsc_freeq, OMRAPMI_TAG_IDSC_BATCH,
                                   OMRAPMI_NUM_BUILT_IN_IDSCS, OMRAPMI_IDSC_BATCH_LEN) +
                             taken(&worker.wdsc_freeq, OMRAPMI_TAG_WDSC_BATCH,
                                   OMRAPMI_NUM_BUILT_IN_WDSCS, OMRAPMI_WDSC_BATCH_LEN);
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

} // namespace interposer

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's
#define PARAMETER(name, index) std::tuple_element_t<index, interposer::Arguments<name>> a##index
#define PARAMETERS_0(name)
#define PARAMETERS_1(name) PARAMETER(name, 0)
#define PARAMETERS_2(name) PARAMETERS_1(name), PARAMETER(name, 1)
#define PARAMETERS_3(name) PARAMETERS_2(name), PARAMETER(name, 2)
#define PARAMETERS_4(name) PARAMETERS_3(name), PARAMETER(name, 3)
#define PARAMETERS_5(name) PARAMETERS_4(name), PARAMETER(name, 4)
#define PARAMETERS_6(name) PARAMETERS_5(name), PARAMETER(name, 5)
#define PARAMETERS_7(name) PARAMETERS_6(name), PARAMETER(name, 6)
#define ARGUMENTS_0
#define ARGUMENTS_1 a0
#define ARGUMENTS_2 a0, a1
#define ARGUMENTS_3 a0, a1, a2
#define ARGUMENTS_4 a0, a1, a2, a3
#define ARGUMENTS_5 a0, a1, a2, a3, a4
#define ARGUMENTS_6 a0, a1, a2, a3, a4, a5
#define ARGUMENTS_7 a0, a1, a2, a3, a4, a5, a6
#define WRAP(arity, name)                                                                          \
    extern "C" interposer::Result<name> __wrap_##name(PARAMETERS_##arity(name)) {                  \
        return interposer::interpose<name>({ARGUMENTS_##arity});                                   \
    }
INTERPOSED_OPERATIONS(WRAP)
// NOLINTEND(bugprone-reserved-identifier)
