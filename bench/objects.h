// The objects that a workload is about, in the store and as an array of this program's own.
#pragma once

#include <vector>

#include "storapp.h"
#include "workload.h"

namespace bench {

// Ends the program with a message: what is measured next would mean nothing.
[[noreturn]] void fail(const std::string &message);

// Fails unless `status` is success.
void check(int status, const char *what);

class StoreHandle {
public:
    StoreHandle();
    ~StoreHandle() { Omralib_close(handle_); }
    StoreHandle(const StoreHandle &) = delete;
    StoreHandle &operator=(const StoreHandle &) = delete;

    OMRALIB_HANDLE get() const { return handle_; }

private:
    OMRALIB_HANDLE handle_;
};

OMRA_OBJKEY make_key(unsigned int app_id, std::size_t number);

// Stores `count` objects of an app id, numbered from 0, with indexes when the workload has them.
void store_objects(unsigned int app_id, std::size_t count, const Workload &workload);

// The bytes of all objects of a workload, one after another.
std::vector<char> make_array(const Workload &workload);

// Which objects the workload's query selects, and the query as text where it is one: kRange finds
// 1 % of the objects in an index, kExpression tests those that a range finds in addition, kScan
// tests all objects and selects each.
Selection select(const Workload &workload);
std::string query_text(const Workload &workload);
OMRAPMI_QUERY_SPEC query_term(const Workload &workload); // kTerm: 10 objects

std::string make_params(const Workload &workload);

} // namespace bench
