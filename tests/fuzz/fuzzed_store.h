// A store whose answers are drawn from a fuzz input: what it hands to the module may be anything
// that bytes can say, while the module's calls are held to the rules of storlib.h.
//
// Every operation that can fail draws its status code, every read the length and the bytes of an
// object, an invocation its reply. An input that is used up gives success and empty objects, so
// that every run comes to an end. The store ends the process when its caller breaks a rule: a read
// while another is pending, a wrong length, the lock of another object, a request completed twice.
//
// Assertion reports are quiet. One about a condition that no input can break ends the process.
#pragma once

#include "pmicli.h"

#include "fuzz.h"

namespace fuzzed_store {

inline constexpr unsigned int app = 7;
inline constexpr unsigned int eval_id = 1;
inline constexpr unsigned int merge_id = 2;
inline constexpr unsigned int once_id = 3;
inline constexpr char guid[OMRALIB_GUID_LEN] = "pmicli"; // with which the worker's handles are open

// What a target does with one input, from which the answers of the store are drawn meanwhile. Each
// target defines it. Before the first input this process is a worker with one thread, with user
// functions under the ids above that draw what they return; after each, nothing of the input may be
// left: no memory, no pending read, no lock, no singleton.
void use(FuzzedDataProvider &data);

// Delivers the request to the module, with keys drawn from the input, and waits until it has been
// completed, if it was accepted. NULL is delivered as it is.
void deliver(const char *pguid, const OMRALIB_INVOKE_PARAMS *pparams);

// A request for `num_keys` keys as a store that is in order sends it.
OMRALIB_INVOKE_PARAMS good_request(int num_keys);

// Invokes with arguments that are in order, and checks what comes back.
void invoke(OMRAPMI_INVOKE_ARGS &args);

// Draws 40 bytes, or the null key.
OMRA_OBJKEY draw_key(FuzzedDataProvider &data);

} // namespace fuzzed_store
