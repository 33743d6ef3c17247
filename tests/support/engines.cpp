#include "support/engines.h"
#include "support/failing_memory.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <stdexcept>

#include <unistd.h>

namespace {

// The URL with a namespace that nobody has used.
std::string with_fresh_namespace(const std::string &url) {
    static int number = 0;
    const std::size_t options = std::min(url.find('?'), url.size());
    const std::string name = "/test-" + std::to_string(getpid()) + "-" +
                             std::to_string(time(nullptr)) + "-" + std::to_string(++number);
    return url.substr(0, options) + name + url.substr(options);
}

} // namespace

store::Engine TestEngine::make(store::Clock &clock, store::Configuration configuration) const {
    configuration.engine_url = url;
    failing_memory::is_allowed = is_embedded();
    if (!is_embedded()) {
        configuration.engine_url = with_fresh_namespace(url);
        configuration.memory_limit = store::no_memory_limit; // which is its pool's quota
    }
    store::Engine engine;
    std::string why;
    if (store::kind_of(url)->make(clock, configuration, engine, why) != OMRALIB_RET_SUCCESS) {
        throw std::runtime_error(why);
    }
    return engine;
}

std::vector<TestEngine> test_engines() {
    std::vector<TestEngine> engines = {{"embedded:"}};
    if (const char *url = std::getenv("OMRA_TEST_STORE")) {
        engines.push_back({url});
    }
    return engines;
}
