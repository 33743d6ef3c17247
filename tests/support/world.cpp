#include "world.h"

#include "client/store.h"
#include "decorators.h"
#include "engines.h"
#include "interposer.h"
#include "storapp.h"

namespace world {

// The one place that knows how a store is put together.
void open(TestClock &clock, const Options &options) {
    store::Configuration configuration;
    configuration.num_hosts = options.num_hosts;
    configuration.lock_lease = options.lock_lease;
    store::Engine engine = decorated(test_engines().front().make(clock, configuration));
    decorator_of(*engine.objects).patience = options.lock_patience;
    decorator_of(*engine.cluster).in_order = options.deliver_inline;
    new store::Store(std::move(engine), clock, configuration); // the process's from now on
}

OMRA_OBJKEY key(unsigned long long number, unsigned int app_id) {
    OMRA_OBJKEY result{};
    result.app_id = app_id;
    result.obj_id.u64_comp[0] = number;
    return result;
}

void put(unsigned long long number, std::string_view bytes) {
    using interposer::real;
    remove(number);
    real<Omralib_store_obj>(handle(), 0, bytes.data(), static_cast<unsigned int>(bytes.size()), 0,
                            key(number));
}

void remove(unsigned long long number) {
    interposer::real<Omralib_remove_obj>(handle(), 0, key(number));
}

std::string bytes(unsigned long long number) {
    unsigned int len = 0;
    if (interposer::real<Omralib_read_obj>(handle(), 0, &len, key(number)) != OMRALIB_RET_SUCCESS) {
        return "none";
    }
    std::string result(len, '\0');
    interposer::real<Omralib_get_read_data>(handle(), result.data(), len);
    return result;
}

unsigned long long count(unsigned int app_id) {
    ULONGLONG result = 0;
    Omralib_count_objs(handle(), app_id, &result);
    return result;
}

OMRALIB_HANDLE handle() {
    static thread_local const OMRALIB_HANDLE hdl = interposer::real<Omralib_open_ext>(nullptr);
    return hdl;
}

} // namespace world
