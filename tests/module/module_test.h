// What the tests of the module share: fixtures that check what a test leaves behind, requests, and
// user functions under a script.
#pragma once

#include "doubles.h"

#include "common/records.h"

#include <gtest/gtest.h>

#include <set>

namespace user {

inline constexpr unsigned int eval_id = 1;
inline constexpr unsigned int merge_id = 2;
inline constexpr unsigned int once_id = 3;

// A data object is one byte, its number; an eval's result is the bit of that number in 8 bytes, and
// merging unites the bits. So a result tells just which objects are in it, and a bit that meets
// itself was merged twice. Odd merges change the destination in place, even ones return a new
// block.
struct Script {
    std::map<unsigned int, int> eval_codes; // a failing eval's code, by object
    std::set<unsigned int> silent;          // these evals return no result
    std::set<unsigned int> failing_merges; // by the merge's number from 1; the code is 500 + number
    unsigned int merged_len = 8;           // that merges claim
    std::function<void(unsigned int)> on_eval;  // runs first, with the object
    std::function<void(unsigned int)> on_merge; // runs first, with the number of the merge
    // Run last, with what the function hands out (and the merge's source) for them to change.
    std::function<void(char **, unsigned int *)> spoil_eval;
    std::function<void(const char *, char **, unsigned int *)> spoil_merge;
    unsigned int num_merges = 0; // so far
    std::string params;          // of the last eval
};
inline constexpr unsigned int no_object = 63; // stands for the object of an invoke-once eval
// Written by a test while no user function runs.
Script &script();

extern const OMRAPMI_EVAL_FUNCP eval_func;
extern const OMRAPMI_MERGE_FUNCP merge_func;

// The result made of these objects, as it is stored.
std::string bits(const std::vector<unsigned int> &objects);
ULONGLONG number(std::string_view result);

} // namespace user

// Registers all three.
void register_functions();

// Traces on and a handle open; every assertion report, fault at the store and byte of memory left
// is a failure.
class Module_test : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

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
    static store::Completion run(const OMRALIB_INVOKE_PARAMS &params,
                                 const std::vector<OMRA_OBJKEY> &keys);
};

// An eval request with parameters in the key, of app id 7, for the functions of `user`; its results
// and exceptions objects are number 900 and 901.
OMRALIB_INVOKE_PARAMS eval_request(unsigned int context, std::string_view params = "");
// The same with parameters in object 50.
OMRALIB_INVOKE_PARAMS stored_params_request(unsigned int context);
OMRALIB_INVOKE_PARAMS once_request(unsigned int context);
OMRALIB_INVOKE_PARAMS merge_request(unsigned int context, ULONGLONG source);
// The parameters header inside the request.
OMRAPMI_PARAMS_EXT &params_ext(OMRALIB_INVOKE_PARAMS &params);

// Stores the data objects 0 to n - 1; their keys.
std::vector<OMRA_OBJKEY> put_objects(unsigned int num_objects);

// The records of the exceptions object.
std::vector<OMRAPMI_EXCEPTION> exceptions();
bool same_key(const OMRA_OBJKEY &a, const OMRA_OBJKEY &b);
