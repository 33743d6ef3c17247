/* The fixture of the store tests: a fresh store over one of the engines, on a clock turned by hand,
 * and short forms of the operations that most tests need. */
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "client/store.h"
#include "support/clocks.h"
#include "support/decorators.h"

struct EngineParam {
    const char *name;
    const store::EngineKind *kind;

    /* Behind decorators. */
    store::Engine make(store::Clock &clock, const store::Configuration &configuration) const {
        return decorated(kind->make(clock, configuration));
    }
};

/* Every engine that there is. */
std::vector<EngineParam> all_engines();

inline std::string engine_name(const testing::TestParamInfo<EngineParam> &engine) {
    return engine.param.name;
}

#define FOR_ALL_ENGINES(suite)                                                                     \
    INSTANTIATE_TEST_SUITE_P(Engines, suite, testing::ValuesIn(all_engines()), engine_name)

class StoreTest : public testing::TestWithParam<EngineParam> {
protected:
    explicit StoreTest(const store::Configuration &configuration = {})
        : store_(GetParam().make(clock_, configuration), clock_, configuration) {
        hdl_ = Omralib_open_ext("store test guid");
    }

    /* Reading under lock waits for no other holder, because that would be waiting for the clock to
     * be turned; a test that wants it to sets its patience. */
    DecoratedObjects &objects() { return decorator_of(store_.objects()); }
    DecoratedCluster &cluster() { return decorator_of(store_.cluster()); }

    /* The objects that have this value of an index. */
    std::vector<store::Key> find_value(unsigned int app_id, USHORT index,
                                       unsigned long long number);

    TestClock clock_;
    store::Store store_;
    OMRALIB_HANDLE hdl_ = OMRALIB_NULL_HANDLE;
};

inline OMRA_OBJKEY make_key(unsigned int app_id, unsigned long long number) {
    OMRA_OBJKEY key{};
    key.app_id = app_id;
    key.obj_id.u64_comp[0] = number;
    key.obj_id.u64_comp[1] = 1;
    return key;
}

inline OMRA_OBJKEY marked(OMRA_OBJKEY key) {
    key.app_id |= OMRA_APPID_NO_RENEW;
    return key;
}

inline OMRA_INDEX_VALUE make_value(unsigned long long number) {
    return {{number, 0, 0, 0}};
}

inline OMRA_OBJ_INDEX make_index(USHORT index, unsigned long long number) {
    return {index, {}, make_value(number)};
}

inline int put(OMRALIB_HANDLE hdl, OMRA_OBJKEY key, std::string_view data,
               unsigned int timeout_m = 0) {
    return Omralib_store_obj(hdl, 0, data.data(), static_cast<unsigned int>(data.size()), timeout_m,
                             key);
}

int put_indexed(OMRALIB_HANDLE hdl, OMRA_OBJKEY key, const std::vector<OMRA_OBJ_INDEX> &values,
                unsigned int timeout_m = 0);

/* The object's bytes, or "status -109" and the like. */
std::string get(OMRALIB_HANDLE hdl, OMRA_OBJKEY key);

/* Fetches the pending bytes. */
std::string fetch(OMRALIB_HANDLE hdl, unsigned int len);

int update(OMRALIB_HANDLE hdl, OMRA_OBJKEY key, int ticket, std::string_view data, bool unlock);

unsigned long long count(OMRALIB_HANDLE hdl, unsigned int app_id);

/* The header of a request for the objects of `app_id`, served by those who handle `event_app_id`.
 */
OMRA_INDEX_HDR make_header(unsigned int app_id, unsigned int event_app_id);

/* With this header and what follows it; fetches the result. */
int invoke(OMRALIB_HANDLE hdl, const OMRA_INDEX_HDR &header, std::string_view query,
           OMRA_INVOKE_RESULT &result_out);

std::string error_text(OMRALIB_HANDLE hdl);
