#include "interposer.h"

#include "common/records.h"
#include "runtime/descriptors.h"
#include "sysapp.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <tuple>
#include <utility>

namespace interposer {
namespace {

using HeldLock = std::tuple<OMRALIB_HANDLE, int, std::string>; // the ticket, the object in words

// Worker threads outlive main, and so do the things that they use.
struct State {
    std::mutex lock;
    std::vector<Answer> answers;
    std::string log, reports, misuse;
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

constexpr std::string_view store_prefix = "Omralib_";

// A call in words ---------------------------------------------------------------------------------

std::string name_of_object(const OMRA_OBJKEY &key) {
    const std::string app_id = key.app_id == 7 ? "" : std::to_string(key.app_id) + "/";
    return key.app_id == 0x30000000 ? "params" : app_id + std::to_string(key.obj_id.u64_comp[0]);
}

template <class Argument>
void describe(std::string &text, const Argument &argument) {
    std::string word;
    if constexpr (std::is_same_v<Argument, OMRA_OBJKEY>) {
        word = name_of_object(argument);
    } else if constexpr (std::is_same_v<Argument, const char *> || std::is_unsigned_v<Argument>) {
        word = argument ? (std::ostringstream() << argument).str() : "";
    }
    text.append(word.empty() ? "" : " ").append(word);
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

// Calls -------------------------------------------------------------------------------------------

template <auto *operation, class Function = std::remove_pointer_t<decltype(operation)>>
struct Operation;

template <auto *operation, class R, class... A>
struct Operation<operation, R(A...)> {
    using Result = R;
    using Value = std::conditional_t<std::is_void_v<R>, long, R>;
    using Arguments = std::tuple<A...>;

    static constexpr std::string_view name = name_of<operation>;
    template <auto *...operations>
    static constexpr bool is = ((name == name_of<operations>) || ...);
    static constexpr bool is_store = name.starts_with(store_prefix);
    static constexpr bool has_handle =
        is_store && !is<Omralib_init, Omralib_open_ext, Omralib_register_cb,
                        Omralib_get_invoke_keys, Omralib_flush_invoke>;

    static std::string text_of(const A &...arguments) {
        std::string text(name.substr(is_store ? store_prefix.size() : 0));
        [[maybe_unused]] bool is_handle = has_handle;
        ((std::exchange(is_handle, false) ? void() : describe(text, arguments)), ...);
        return text;
    }

    // What a call on a handle comes to, as the module knows it.
    static void note_answer(const Value &value, const Arguments &arguments) {
        const std::lock_guard guard(state.lock);
        const OMRALIB_HANDLE hdl = std::get<0>(arguments);
        check_owner(hdl);
        if constexpr (is<Omralib_close>) {
            state.owners.erase(hdl);
            state.reads.erase(hdl);
            std::erase_if(state.object_locks, [=](auto &lock) { return get<0>(lock) == hdl; });
        }
        if constexpr (is<Omralib_read_obj, Omralib_read_and_lock_obj, Omralib_invoke>) {
            expect(!state.reads.contains(hdl), "a read while one is pending");
            const unsigned int len = *std::get<unsigned int *>(arguments);
            if (value > 0 && len != 0) {
                state.reads[hdl] = len;
            }
        }
        if constexpr (is<Omralib_get_read_data, Omralib_flush_read_data>) {
            expect(state.reads.contains(hdl), "no read is pending");
            const unsigned int len = std::get<sizeof...(A) - 1>(arguments);
            std::erase_if(state.reads, [=](const auto &read) { // with a wrong length it stays
                return read.first == hdl && (is<Omralib_flush_read_data> || read.second == len);
            });
        }
        if constexpr (is<Omralib_read_and_lock_obj>) {
            if (value > 0) {
                state.object_locks.emplace(hdl, value, name_of_object(std::get<4>(arguments)));
            }
        }
        if constexpr (is<Omralib_unlock_obj, Omralib_update_locked_obj>) {
            const HeldLock held{hdl, std::get<int>(arguments),
                                name_of_object(std::get<OMRA_OBJKEY>(arguments))};
            expect(state.object_locks.contains(held), "a lock that is not held");
            if (is<Omralib_unlock_obj> || (value == 1 && std::get<2>(arguments) == 1)) {
                state.object_locks.erase(held);
            }
        }
    }

    static Value carry_out(const A &...arguments) {
        const auto call = [&] {
            return instead<operation> ? instead<operation>(arguments...)
                                      : real<operation>(arguments...);
        };
        if constexpr (is<Sys_log_assert>) {
            if (!instead<operation>) {
                const std::lock_guard guard(state.lock);
                append(state.reports, std::get<2>(std::tie(arguments...)));
                return 0;
            }
        }
        if constexpr (std::is_void_v<R>) {
            ended += is<Thread_end> ? 1 : 0;
            call();
            return 0;
        } else {
            // A thread counts before it can be seen waiting.
            forks += is<Thread_fork> ? 1 : 0;
            waiting += is<Blockq_deq> ? 1 : 0;
            const Value value = call();
            waiting -= is<Blockq_deq> ? 1 : 0;
            forks -= is<Thread_fork> && !value ? 1 : 0;
            mutexes += is<Lock_enter> && value ? 1 : 0;
            mutexes -= is<Lock_exit> && value ? 1 : 0;
            return value;
        }
    }

    static R interpose(const A &...arguments) {
        const auto text = [&] { return text_of(arguments...); };
        const Verdict verdict = before ? before({name, text}) : Verdict();
        Value value{};
        if (verdict.kind != Verdict::refused) {
            value = carry_out(arguments...);
        }
        if constexpr (is<Omralib_open_ext>) {
            if (verdict.kind == Verdict::answer_lost) {
                real<Omralib_close>(value);
            }
        }
        if (verdict.kind != Verdict::carried_out) {
            value = Value{};
            if constexpr (!std::is_pointer_v<Value>) {
                value = static_cast<Value>(verdict.answer);
            }
        }
        if constexpr (has_handle) {
            const Arguments all(arguments...);
            if (verdict.kind != Verdict::carried_out) {
                real<Omralib_flush_read_data>(std::get<0>(all));
            }
            note_answer(value, all);
        } else if constexpr (is<Omralib_open_ext>) {
            const std::lock_guard guard(state.lock);
            state.owners[value] = NULLTHREADID;
        }
        return static_cast<R>(value);
    }
};

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

std::string take_misuse() {
    return take(state.misuse);
}

Ledger ledger() {
    OMRAPMI_WORKER_STATE &worker = omrapmi_worker_state;
    const auto num_taken = [](QUEUE &pool, std::size_t built_in, unsigned int tag,
                              std::size_t batch) {
        return static_cast<int>(built_in + Sys_get_mem_use(tag).blocks * batch -
                                Sys_get_queue_count(&pool));
    };
    const std::lock_guard guard(state.lock);
    Ledger result = {.reads = static_cast<int>(state.reads.size()),
                     .object_locks = static_cast<int>(state.object_locks.size()),
                     .mutexes = mutexes,
                     .threads = forks - ended - waiting};
    if (worker.code == OMRAPMI_WORKER_STATE_CODE) {
        result.descriptors = num_taken(worker.idsc_freeq, OMRAPMI_NUM_BUILT_IN_IDSCS,
                                       OMRAPMI_TAG_IDSC_BATCH, OMRAPMI_IDSC_BATCH_LEN) +
                             num_taken(worker.wdsc_freeq, OMRAPMI_NUM_BUILT_IN_WDSCS,
                                       OMRAPMI_TAG_WDSC_BATCH, OMRAPMI_WDSC_BATCH_LEN);
    }
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
#define EACH_0(what, name)
#define EACH_1(what, name) what(name, 0)
#define EACH_2(what, name) EACH_1(what, name), what(name, 1)
#define EACH_3(what, name) EACH_2(what, name), what(name, 2)
#define EACH_4(what, name) EACH_3(what, name), what(name, 3)
#define EACH_5(what, name) EACH_4(what, name), what(name, 4)
#define EACH_6(what, name) EACH_5(what, name), what(name, 5)
#define EACH_7(what, name) EACH_6(what, name), what(name, 6)
#define PARAMETER(name, index)                                                                     \
    std::tuple_element_t<index, interposer::Operation<name>::Arguments> a##index
#define ARGUMENT(name, index) a##index
#define WRAP(arity, name)                                                                          \
    extern "C" interposer::Operation<name>::Result __wrap_##name(EACH_##arity(PARAMETER, name)) {  \
        return interposer::Operation<name>::interpose(EACH_##arity(ARGUMENT, name));               \
    }
INTERPOSED_OPERATIONS(WRAP)
// NOLINTEND(bugprone-reserved-identifier)
