// What the tests of the module share: requests, which a test delivers in the place of a store, and
// fixtures that check what it leaves behind. Objects are in the embedded store, behind the
// interposer; the user functions are those of set_functions.
#pragma once

#include "support/interposer.h"
#include "support/set_functions.h"
#include "support/world.h"

#include "common/records.h"

#include <gtest/gtest.h>

using Keys = std::vector<OMRA_OBJKEY>;

// Waits until the condition holds, and ends the process when it can only be in vain. A test with
// threads of its own kind puts another function here.
extern std::function<void(const std::function<bool()> &condition)> &wait_until;

// Requests ----------------------------------------------------------------------------------------

struct Completion {
    unsigned int num_successful, num_failed;
    bool operator==(const Completion &) const = default;
};

// Delivers a request for these keys to the module, and gives back its answer.
int deliver(OMRALIB_INVOKE_PARAMS params, const Keys &keys);
// Delivers it and waits until it is reported complete or given up.
Completion run_request(const OMRALIB_INVOKE_PARAMS &params, const Keys &keys);
// Runs when a request is reported complete.
extern std::function<void(unsigned int context)> &on_complete;

// A request with parameters in the key, for the functions of the tests: an eval request, or, with
// another app id, an invoke-once one. Its results and exceptions objects are number 900 and 901;
// its sender is host 0xABC plus the context.
OMRALIB_INVOKE_PARAMS eval_request(unsigned int context, std::string_view params = "",
                                   unsigned int app_id = world::app);
// A request to merge the object; with `is_merge` 0 an eval request whose parameters it has.
OMRALIB_INVOKE_PARAMS merge_request(unsigned long long object, UCHAR is_merge = 1);
// The parameters header inside the request.
OMRAPMI_PARAMS_EXT &params_ext(OMRALIB_INVOKE_PARAMS &params);

// The keys of the data objects 0 to n - 1, which are stored.
Keys put_objects(unsigned int num_objects);
std::vector<OMRAPMI_EXCEPTION> exceptions(unsigned long long object = 901);
// What a request has come to is right for the invocation; its objects are removed.
void check_outcome(const Completion &done, const set_functions::Invocation &invocation,
                   unsigned long long results = 900, unsigned long long exceptions_object = 901);

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
