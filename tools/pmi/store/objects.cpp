// Which store and app id the objects of a run have.
#include "store/objects.h"

#include "cli/keys.h"
#include "store/loading.h"

namespace pmi_cli {

namespace {

constexpr unsigned int kMinutesToLoad = 24 * 60;

// Minutes that a temporary object stays unless it is removed: its run may load, and then invoke.
unsigned int temporary_timeout_m(const Options &options) {
    return options.keeps_objects ? kMinutesToLoad + options.timeout_s / 60 : 0;
}

} // namespace

Objects::Objects(const StoreHandle &handle, const Options &options)
    : options_(options), names_(handle, options.keeps_objects && options.inputs.empty()) {
    if (are_temporary()) {
        if (options.keeps_objects) {
            place_.emplace(handle);
        }
        num_loaded_ = load_input(handle, names_, options, app_id(), temporary_timeout_m(options));
    }
}

unsigned int Objects::app_id() const {
    return place_ ? place_->app_id() : options_.app_id.value_or(kAppId);
}

const char *Objects::name(const OMRA_OBJKEY &key) {
    if (OMRA_OBJKEY_IS_NULL(key)) {
        return nullptr;
    }
    const std::string *name = names_.find(key);
    return name != nullptr ? name->c_str() : keys_.insert(key_text(key)).first->c_str();
}

} // namespace pmi_cli
