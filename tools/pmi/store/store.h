// The store as the program uses it: set up once, one handle, queries in its language.
#pragma once

#include <string>

#include "cli/options.h"
#include "storapp.h"

namespace pmi_cli {

// The app id of the program's objects and functions. The store is this process's own.
inline constexpr unsigned int kAppId = 1;

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

// Lines of text about how the store would find the objects of `query`. Throws UsageError for a
// query that is not valid; its text says where, with the line of the query and a mark below the
// place.
std::string explain_query(const StoreHandle &handle, const std::string &query);

} // namespace pmi_cli
