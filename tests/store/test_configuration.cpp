/* The configuration of the process's store, and why one is refused. */
#include <cstdlib>

#include "store_test.h"

namespace {

using testing::HasSubstr;

std::string why() {
    return error_text(OMRALIB_NULL_HANDLE);
}

TEST(Configuration, IsRefusedWithTheReasonAndThenStaysWhatItWas) {
    const OMRALIB_CONFIG config{"embedded:", 64, 5, 7, 1'000'000};
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_configure(&config));
    EXPECT_EQ("", why());
    const std::pair<OMRALIB_CONFIG, const char *> table[] = {
        {{"somewhere:else", 0, 0, 0, 0}, "\"somewhere:else\""},
        {{"somewhere:else", 0, 0, 0, 0}, "\"embedded:\""},
        {{nullptr, 65, 0, 0, 0}, "num_hosts is 65: 1 to 64"},
        {{nullptr, 0, 86401, 0, 0}, "86401"},
    };
    for (const auto &[refused, reason] : table) {
        EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_configure(&refused));
        EXPECT_THAT(why(), HasSubstr(reason));
    }
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_configure(nullptr));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_init());
    const store::Configuration &used = store::Store::current()->configuration();
    EXPECT_EQ(64u, used.num_hosts);
    EXPECT_EQ(5000, used.lock_lease);
    EXPECT_EQ(7u, used.max_invocations);
    EXPECT_EQ(1'000'000u, used.memory_limit);
    EXPECT_EQ(OMRALIB_ERR_CANT_INIT, Omralib_configure(&config));
    EXPECT_THAT(why(), HasSubstr("in use already"));
}

TEST(Configuration, AnUnknownEngineInTheEnvironmentStopsTheStore) {
    setenv("OMRA_STORE", "nowhere:", 1);
    OMRALIB_CONFIG config{};
    EXPECT_EQ(OMRALIB_NULL_HANDLE, Omralib_open_ext(nullptr));
    EXPECT_EQ(OMRALIB_ERR_CANT_INIT, Omralib_init());
    EXPECT_THAT(why(), HasSubstr("OMRA_STORE is \"nowhere:\""));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_configure(&config));
    config.engine_url = "embedded:";
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_configure(&config));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_init());
}

} // namespace
