// What the tests of the module share: fixtures that check what a test leaves behind, and the
// requests of a store, which a test delivers itself. Objects are in the embedded store, behind the
// interposer; the user functions are those of set_functions.
#pragma once

#include "support/interposer.h"
#include "support/set_functions.h"
#include "support/world.h"

#include "common/records.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

// Waits until the condition holds, and ends the process when it can only be in vain. A test with
// threads of its own kind puts another function here.
extern std::function<void(const std::function<bool()> &condition)> &wait_until;

// Requests ----------------------------------------------------------------------------------------

struct Completion {
    unsigned int num_successful, num_failed;
    bool flushed = false;
    friend bool operator==(const Completion &, const Completion &) = default;
};

// Delivers a request for these keys to the module.
int deliver(OMRALIB_INVOKE_PARAMS params, const std::vector<OMRA_OBJKEY> &keys);
// Waits until the request is reported complete or given up, and forgets it.
Completion wait_complete(unsigned int context);
// Both.
Completion run_request(const OMRALIB_INVOKE_PARAMS &params, const std::vector<OMRA_OBJKEY> &keys);
// Runs when a request is reported complete.
extern std::function<void(unsigned int context)> &on_complete;

// An eval request with parameters in the key, for the functions of the tests; its results and
// exceptions objects are number 900 and 901. Its sender is host 0xABC plus the context.
OMRALIB_INVOKE_PARAMS eval_request(unsigned int context, std::string_view params = "");
// The same with parameters in object 50.
OMRALIB_INVOKE_PARAMS stored_params_request(unsigned int context);
OMRALIB_INVOKE_PARAMS once_request(unsigned int context);
OMRALIB_INVOKE_PARAMS merge_request(unsigned int context, unsigned long long source);
// The parameters header inside the request.
OMRAPMI_PARAMS_EXT &params_ext(OMRALIB_INVOKE_PARAMS &params);

// Stores the data objects 0 to n - 1; their keys.
std::vector<OMRA_OBJKEY> put_objects(unsigned int num_objects);

// What a request has come to is right for the invocation; its objects are removed.
void check_outcome(const Completion &done, const set_functions::Invocation &invocation,
                   unsigned long long results = 900, unsigned long long exceptions = 901);
std::vector<OMRAPMI_EXCEPTION> exceptions(unsigned long long object = 901);

// Fixtures ----------------------------------------------------------------------------------------

// No report, broken rule or complaint of a user function, no block, read or lock that is left, no
// request that is open.
void check_nothing_left();

// A store on a clock that stands, traces on, scripted answers and a handle; nothing may be left.
class Module_test : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { check_nothing_left(); }

    OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE;
};

// A worker with held threads: the test takes requests and work from the queues itself.
class Stepped_test : public Module_test {
protected:
    void SetUp() override;

    static OMRAPMI_IDSC *next_request();
    static OMRAPMI_WDSC *next_work();
    // Delivers and dispatches, which must succeed; the work in the order of the queue.
    std::vector<OMRAPMI_WDSC *> dispatch(const OMRALIB_INVOKE_PARAMS &params,
                                         const std::vector<OMRA_OBJKEY> &keys) const;
};

// A worker that runs, with 4 threads.
class Live_test : public Module_test {
protected:
    void SetUp() override;
    // Delivers and waits until nothing of the request is left.
    static Completion run(const OMRALIB_INVOKE_PARAMS &params,
                          const std::vector<OMRA_OBJKEY> &keys);
};
