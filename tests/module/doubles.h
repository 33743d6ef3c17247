// The two libraries under the module, as a test sees them.
//
// `sys`: the real system utilities, with the linker's --wrap in front of those that a test must be
// able to fail, to watch or to wait for. `store`: a store client library that keeps objects in
// memory, notes every call, gives the answers that it is told to give, and holds the requests that
// a test delivers. It also watches its caller: a handle used by two threads, a read begun while one
// is pending, a wrong length or lock ticket, or a request completed twice is noted as a fault.
//
// Fields are set by a test while no other thread of the module is at work.
#pragma once

#include "storlib.h"
#include "sys_util.h"

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace sys {

struct Script {
    std::array<unsigned int, 256> malloc_countdown = {}; // by tag; 1: the next one fails
    unsigned int fork_countdown = 0;
    unsigned int num_lprocs = 2;
    // TRUE: Thread_fork starts nothing and Thread_end returns; a test runs the thread functions.
    bool threads_held = false;
    // Thread_sleep calls it and returns at once.
    std::function<void(unsigned int)> on_sleep = [](unsigned int) {};

    // What was seen.
    std::string traces, asserts;
    std::vector<std::pair<void *(*)(void *), void *>> forks;
    unsigned int idle_workers = 0; // waiting for work
};
extern Script &script;

// Runs `change` under the lock of both doubles.
void with_lock(const std::function<void()> &change);
// Waits until `condition` holds under that lock, and ends the process when it can only be in vain.
void wait_for(const char *what, const std::function<bool()> &condition);
void wait_idle_workers(unsigned int num_thrds);
// The number of free invocation and work descriptors.
std::pair<unsigned int, unsigned int> free_descriptors();
// No request uses a descriptor, and the pools have not grown.
inline constexpr std::pair<unsigned int, unsigned int> all_free = {8, 64};

// Has the traces collected.
void watch_traces();
// The trace lines since the last call, joined by '|', with "Tr [pmi-" cut down to "[" and the
// newlines dropped; the conditions of assertion reports, joined likewise.
std::string take_traces();
std::string take_asserts();

} // namespace sys

namespace store {

struct Object {
    std::string bytes;
    unsigned int timeout_m = 0;
    int ticket = 0; // 0: not locked
};
inline constexpr int elsewhere = 0x7FFFFFFF; // the ticket of another holder

// The next call of `op`, named as in storlib.h without its prefix, answers `result` without doing
// anything; if `about` is given, the next call that the log notes with it.
struct Answer {
    std::string op;
    int result;
    std::string about = {};
};

struct Completion {
    unsigned int num_successful, num_failed;
    bool flushed = false;
    friend bool operator==(const Completion &, const Completion &) = default;
};

struct Script {
    std::map<std::string, Object> objects; // by their names in the log
    std::vector<Answer> answers;
    // What Omralib_invoke answers: it is given the request and makes the reply.
    std::function<int(std::string_view request, std::string &reply)> on_invoke;
    std::function<void()> on_complete = [] {}; // runs when a request is reported complete

    // What was seen.
    std::map<std::string, unsigned int> num_calls;
    std::vector<std::pair<OMRA_OBJKEY, Object>> stored; // by store_obj, successful or not
};
extern Script &script;

// The key of the test object `number`; the object's bytes, or "none".
OMRA_OBJKEY key(ULONGLONG number, ULONG app_id = 7);
std::string bytes(ULONGLONG number);
void put(ULONGLONG number, std::string_view bytes);

// The calls since the last time, joined by '|', each with what it is about, and without the two
// that every entry of the module begins with. An object is named by its number, with its app id in
// front when that is not 7; a parameters object is "params".
std::string take_log();
// Misuse so far, reads left pending, locks left held and requests never completed.
std::string faults();

// Delivers a request for these keys.
int deliver(OMRALIB_INVOKE_PARAMS params, const std::vector<OMRA_OBJKEY> &keys);
// Waits until the request is reported complete or given up, and forgets it.
Completion wait_complete(unsigned int context);

} // namespace store
