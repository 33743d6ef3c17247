// The first place whose lock is free.
#include "store/place.h"

#include <algorithm>

#include <fmt/format.h>

#include "cli/error.h"
#include "cli/keys.h"

namespace pmi_cli {

namespace {

constexpr unsigned int kNumPlaces = 240;
constexpr unsigned int kLocksAppId =
    0x10000000; // and the app id of the place, whose names it lacks

OMRA_OBJKEY lock_key(unsigned int app_id) {
    OMRA_OBJKEY key{};
    key.app_id = kLocksAppId + app_id;
    return key;
}

} // namespace

TemporaryPlace::TemporaryPlace(const StoreHandle &handle)
    : handle_(handle), app_id_(kMaxAppId + 1) {
    while (!take()) {
        if (++app_id_ > kMaxAppId + kNumPlaces) {
            throw RunError(fmt::format("{} runs have temporary objects in this store already; load "
                                       "the input with 'pmi load'",
                                       kNumPlaces));
        }
    }
    try {
        clear(); // of what a program that was killed has left
    } catch (...) {
        Omralib_unlock_obj(handle_.get(), ticket_, 0, lock_key(app_id_));
        throw;
    }
}

TemporaryPlace::~TemporaryPlace() {
    try {
        clear();
    } catch (const std::exception &error) {
        fmt::print(stderr, "pmi: temporary objects stay under app id {}: {}\n", app_id_,
                   error.what());
    }
    Omralib_unlock_obj(handle_.get(), ticket_, 0, lock_key(app_id_));
}

bool TemporaryPlace::take() {
    const OMRA_OBJKEY key = lock_key(app_id_);
    int status = Omralib_store_obj(handle_.get(), 0, nullptr, 0, 0, key);
    if (status != OMRALIB_ERR_OBJ_EXISTS) {
        check_status(status, "there can be no temporary objects");
    }
    unsigned int len = 0;
    status = Omralib_read_and_lock_obj(handle_.get(), 0, 0, &len, key);
    if (status > 0) {
        ticket_ = status;
    } else if (status != OMRALIB_ERR_OBJ_LOCKED) {
        check_status(status, "there can be no temporary objects");
    }
    return status > 0;
}

void TemporaryPlace::clear() {
    for (const int status : remove_objects(handle_, find_keys(handle_, app_id_, ""))) {
        if (status != OMRALIB_ERR_OBJ_NOT_FOUND) {
            check_status(status, "temporary objects cannot be removed");
        }
    }
}

} // namespace pmi_cli
