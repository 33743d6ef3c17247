// One layer between the module and the two libraries under it, for every test that has to look at
// the module's calls, to order them or to make them fail.
//
// The linker's --wrap leads each operation of the list below through the layer, in every target of
// pmi_interpose() of tests/CMakeLists.txt, which reads the list here. A call goes this way:
//
//   before(call)   the policy: it may answer itself, or have the answer lost afterwards
//   instead<op>    a test's own version of the operation; without one
//   real<op>       the shipped one, with the embedded store behind it
//   the ledger     what the module has taken and must give back, and whether it keeps the rules
//
// Hooks are set while nothing else runs.
#pragma once

#include "storlib.h"
#include "sys_util.h"

#include <functional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

// X(number of parameters, name)
// clang-format off
#define INTERPOSED_OPERATIONS(X) \
    X(0, Omralib_init) X(1, Omralib_open_ext) X(1, Omralib_close) X(1, Omralib_handle_ready) \
    X(2, Omralib_register_cb) X(4, Omralib_register_appname_hdl) \
    X(2, Omralib_start_app_event_handling) X(2, Omralib_stop_app_event_handling) \
    X(6, Omralib_store_obj) X(4, Omralib_read_obj) X(3, Omralib_get_read_data) \
    X(1, Omralib_flush_read_data) X(5, Omralib_read_and_lock_obj) X(7, Omralib_update_locked_obj) \
    X(4, Omralib_unlock_obj) X(3, Omralib_remove_obj) X(5, Omralib_invoke) \
    X(3, Omralib_get_invoke_keys) X(4, Omralib_complete_invoke) X(1, Omralib_flush_invoke) \
    X(2, Sys_malloc) X(1, Sys_free) X(0, Sys_get_num_lprocs) X(3, Sys_log_assert) \
    X(2, Thread_fork) X(0, Thread_end) X(0, Thread_myid) X(1, Thread_sleep) \
    X(1, Thread_datap_set) X(0, Thread_datap_get) \
    X(2, Queue_enq) X(1, Queue_deq) X(2, Blockq_enq) X(2, Blockq_deq) \
    X(2, Lock_enter) X(1, Lock_exit) X(1, Spinlock_enter) X(1, Spinlock_exit) \
    X(0, Enter_cs) X(0, Exit_cs)
// clang-format on

namespace interposer {

// The operation itself, past the layer.
template <auto *operation>
inline constexpr decltype(operation) real = nullptr;

// Stands for the operation while it is set.
template <auto *operation>
inline auto &instead = *new std::function<std::remove_pointer_t<decltype(operation)>>;

// One call, as a policy sees it. Valid during the call.
struct Call {
    std::string_view name; // "Omralib_store_obj"
    // The call in words, for logs and scripts: the name without "Omralib_", then the arguments.
    // Left out are the handle, pointers to memory and zeros. An object is its number, with its app
    // id in front when that is not 7; a parameters object is "params". Of Sys_malloc the tag is
    // last.
    std::function<std::string()> text;

    bool is_store() const { return name.starts_with("Omralib_"); }
};

// What becomes of a call.
struct Verdict {
    enum Kind { carried_out, refused, answer_lost } kind = carried_out;
    // What the caller of the latter two is told; 0 is NULL, too. Nothing stays pending on the
    // handle: bytes are on this side of the network.
    long answer = 0;
};

inline auto &before = *new std::function<Verdict(const Call &)>;

// Scripts -----------------------------------------------------------------------------------------

// The next call of the operation is refused with this answer; if `about` is given, the next one
// whose text ends with it.
struct Answer {
    std::string operation; // as in a call's text
    long answer;
    std::string about = {};
};
void script(std::vector<Answer> answers); // in the place of those that were not used

// A policy: scripted answers, and a log of the store's calls but Omralib_init.
Verdict scripted(const Call &call);
// The calls since the last time, joined by '|'.
std::string take_log();

// What was seen ---------------------------------------------------------------------------------

// The conditions of assertion reports, joined by '|'. They are printed only by a test's own
// version.
std::string take_reports();
// The rules of storlib.h that were broken since the last call, joined by '|': a handle of the
// module used by two threads, a read begun while one is pending, bytes fetched that are not, a lock
// that is not held.
std::string take_misuse();

// What the module has taken and not given back; all zero when nothing runs.
struct Ledger {
    int reads = 0;        // pending
    int object_locks = 0; // whose tickets it has
    int mutexes = 0;
    int descriptors = 0; // not in their pools
    int threads = 0;     // started, and neither waiting for work nor at their end yet
    bool operator==(const Ledger &) const = default;
};
Ledger ledger();
unsigned int num_forks(); // threads ever started
// The blocks of requests: all tags but those of what is made once and kept.
std::size_t num_blocks();

} // namespace interposer

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's
#define DECLARE_REAL(arity, name)                                                                  \
    extern "C" decltype(name) __real_##name;                                                       \
    template <>                                                                                    \
    inline constexpr decltype(&name) interposer::real<name> = __real_##name;
INTERPOSED_OPERATIONS(DECLARE_REAL)
#undef DECLARE_REAL
// NOLINTEND(bugprone-reserved-identifier)
