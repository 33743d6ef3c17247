// The user functions of the tests, and what an invocation with them must come to.
//
// An object's bytes are its number. A result is the set of the objects in it, so that it tells just
// which are in it, and one that is merged twice meets itself. Each function also asks where it
// runs, and complains about an answer that cannot be.
#pragma once

#include "pmicli.h"

#include <bitset>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace set_functions {

inline constexpr unsigned int eval_id = 1, merge_id = 2, once_id = 3;
inline constexpr unsigned int max_objects = 5000;
// Stands for the object of an invoke-once eval, and for an object without bytes.
inline constexpr unsigned int no_object = max_objects - 1;
inline constexpr int eval_failure = 1000; // plus the object: the code of a failing eval
inline constexpr int merge_failure = 77;

using Objects = std::bitset<max_objects>;
Objects set_of(const std::vector<unsigned int> &objects);
Objects first_objects(unsigned int num_objects);

// The bytes of an object, and of a result as a store keeps it. The label is that of the invocation:
// the first four bytes of its parameters, 0 without any. Results of two invocations never meet.
struct Result {
    unsigned int label, padding;
    Objects objects;
};
std::string object_bytes(unsigned int object);
std::string result_bytes(const Objects &objects, unsigned int label = 0);

// How the functions behave. Written while none runs.
struct Script {
    bool ask = true;      // where they run; not so where a test runs them on no worker thread
    bool has_keys = true; // merges run on threads that have evaluated an object
    std::optional<std::string> params; // that every eval must have
    std::function<bool(unsigned int object, unsigned int label)> fails;
    std::function<bool(unsigned int object)> is_silent; // without a result
    std::function<bool(const Result &dst, const Result &src)> merge_fails;
    // Whether this host may send requests of the invocation.
    std::function<bool(unsigned int host_id, unsigned int label)> is_sender;
    std::function<void(unsigned int object)> on_eval; // runs first
    // Runs last, with the result that a merge changed in place or NULL, a merge's source or NULL,
    // and what the function hands out, for it to change.
    std::function<void(char *pdst, const char *psrc, char **pout, unsigned int *plen_out)> spoil;
};
Script &script();

// What was wrong since the last call, joined by '|'.
std::string take_complaints();

// Registers all three for the app id. False when one was refused.
bool register_all(unsigned int app_id);
int eval(const char *pdata, unsigned int data_len, const char *pparams, unsigned int params_len,
         char **ppresult_out, unsigned int *presult_len_out);
int merge(char *pdst, unsigned int dst_len, const char *psrc, unsigned int src_len,
          char **ppmerged_out, unsigned int *pmerged_len_out);

// Answers -----------------------------------------------------------------------------------------

// An invocation with these functions for objects of app id 7, and what may have happened to it
// beside them.
struct Invocation {
    Objects asked;
    std::function<bool(unsigned int object)> fails = {}; // its eval
    std::function<bool(unsigned int object)> is_silent = {};
    bool merges_may_fail = false;
    bool objects_may_be_lost = false; // reads fail, or no host is left that would take them
    bool answers_may_be_lost = false; // the store did what it said it had not done
    std::optional<unsigned int> num_failed_merges = {}; // that the exceptions must name
};

// Every object is accounted for once: counts add up, the result holds just the successful objects
// that gave one, an exception names each one that failed, by key and code, and nothing is lost but
// to what the invocation says. Returns what is wrong, or "".
std::string check_answer(const OMRAPMI_INVOKE_ARGS &answer, const Invocation &invocation);

} // namespace set_functions
