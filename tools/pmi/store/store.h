// The store as the program uses it: set up once, one handle, queries in its language, and objects
// by their keys.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/options.h"
#include "storapp.h"

namespace pmi_cli {

// The app id of objects for which none is asked for.
inline constexpr unsigned int kAppId = 1;

// Objects that are stored or removed by one call.
inline constexpr std::size_t kBatch = 1024;

// Throws RunError when `status` is not success: "`what`: NAME (number): text".
void check_status(int status, const std::string &what);

// Sets the store up, before its first use, as `options` and the environment ask for. Throws
// UsageError.
void configure_store(const Options &options);

// An open handle of the store. Throws RunError when there is none.
class StoreHandle {
public:
    StoreHandle();
    StoreHandle(const StoreHandle &) = delete;
    StoreHandle &operator=(const StoreHandle &) = delete;
    ~StoreHandle();
    OMRALIB_HANDLE get() const { return handle_; }

private:
    OMRALIB_HANDLE handle_;
};

// The functions below throw RunError when the store fails, and UsageError for a query that is not
// valid; its text says where, with the line of the query and a mark below the place. An empty query
// selects all objects.

// Lines of text about how the store would find the objects of `query`.
std::string explain_query(const StoreHandle &handle, unsigned int app_id, const std::string &query);

// The keys of the objects that `query` selects, in key order, and the first `limit` of them only.
std::vector<OMRA_OBJKEY> find_keys(const StoreHandle &handle, unsigned int app_id,
                                   const std::string &query, std::uint64_t limit = UINT64_MAX);

// How many there are.
std::uint64_t count_objects(const StoreHandle &handle, unsigned int app_id,
                            const std::string &query);

// Reads an object. False when there is none.
bool read_object(const StoreHandle &handle, const OMRA_OBJKEY &key, std::string &bytes_out);

// Removes objects. What became of each is in the result, which is as long as `keys`. No status is
// an error here.
std::vector<int> remove_objects(const StoreHandle &handle, const std::vector<OMRA_OBJKEY> &keys);

} // namespace pmi_cli
