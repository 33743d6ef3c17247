// Where the input of a run lies in a store that keeps its objects: under an app id that no other
// run has, and no longer than the run.
#pragma once

#include "store/store.h"

namespace pmi_cli {

// An app id of temporary objects, which go when this does. It is held by the lock of an object, so
// that the place of a program that was killed is free again within the lease of a lock; whoever
// gets it then removes what is left there.
class TemporaryPlace {
public:
    // Throws RunError. `handle` outlives the place.
    explicit TemporaryPlace(const StoreHandle &handle);
    TemporaryPlace(const TemporaryPlace &) = delete;
    TemporaryPlace &operator=(const TemporaryPlace &) = delete;
    ~TemporaryPlace(); // what cannot be removed is told on standard error

    unsigned int app_id() const { return app_id_; }

private:
    bool take();
    void clear();

    const StoreHandle &handle_;
    unsigned int app_id_;
    int ticket_ = OMRALIB_NULL_LOCK_TKT;
};

} // namespace pmi_cli
