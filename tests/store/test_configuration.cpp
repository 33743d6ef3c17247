/* The configuration of the process's store, and the texts about what went wrong. */
#include <cstdlib>

#include <gmock/gmock.h>

#include "store_test.h"

namespace {

std::string error_text(OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE) {
    char buf[200];
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_error_text(hdl, buf, sizeof buf));
    return buf;
}

TEST(Configuration, IsRefusedWithTheReasonAndMayThenBeMended) {
    using testing::HasSubstr;
    OMRALIB_CONFIG config{};
    config.engine_url = "somewhere:else";
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_configure(&config));
    EXPECT_THAT(error_text(), HasSubstr("\"somewhere:else\""));
    EXPECT_THAT(error_text(), HasSubstr("\"embedded:\""));
    config = {};
    config.num_hosts = 65;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_configure(&config));
    EXPECT_THAT(error_text(), HasSubstr("num_hosts is 65: 1 to 64"));
    config = {};
    config.lock_lease_s = 86401;
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_configure(&config));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_configure(nullptr));

    config = {"embedded:", 64, 5, 7, 1'000'000};
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_configure(&config));
    EXPECT_EQ("", error_text());
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_init());
    const store::Configuration &used = store::Store::current()->configuration();
    EXPECT_EQ(64u, used.num_hosts);
    EXPECT_EQ(5000, used.lock_lease);
    EXPECT_EQ(7u, used.max_invocations);
    EXPECT_EQ(1'000'000u, used.memory_limit);
    EXPECT_EQ(OMRALIB_ERR_CANT_INIT, Omralib_configure(&config));
    EXPECT_THAT(error_text(), HasSubstr("in use already"));
}

TEST(Configuration, AnUnknownEngineInTheEnvironmentStopsTheStore) {
    setenv("OMRA_STORE", "nowhere:", 1);
    OMRALIB_CONFIG config{};
    EXPECT_EQ(OMRALIB_ERR_CANT_INIT, Omralib_init());
    EXPECT_THAT(error_text(), testing::HasSubstr("OMRA_STORE is \"nowhere:\""));
    EXPECT_EQ(OMRALIB_NULL_HANDLE, Omralib_open_ext(nullptr));
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_configure(&config));
    config.engine_url = "embedded:";
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_configure(&config));
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_init());
}

class ErrorTexts : public StoreTest {};
FOR_ALL_ENGINES(ErrorTexts);

TEST_P(ErrorTexts, StayOnTheHandleUntilSomethingElseFails) {
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put(hdl_, make_key(1, 1), "a"));
    char plan[10];
    ASSERT_EQ(OMRALIB_ERR_BAD_QUERY, Omralib_explain_query(hdl_, 1, "size <", 6, plan, 10));
    const std::string text = error_text(hdl_);
    EXPECT_NE("", text);
    unsigned int len = 0;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omralib_read_obj(hdl_, 0, &len, make_key(1, 1)));
    EXPECT_EQ(text, error_text(hdl_));
    char buf[4];
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_error_text(hdl_, buf, sizeof buf));
    EXPECT_EQ(text.substr(0, 3), buf);
    EXPECT_EQ(OMRALIB_ERR_BAD_ARGS, Omralib_get_error_text(hdl_, nullptr, 3));
    EXPECT_EQ(text, error_text(hdl_));
    EXPECT_EQ(OMRALIB_ERR_OBJ_NOT_FOUND, Omralib_remove_obj(hdl_, 0, make_key(1, 2)));
    EXPECT_EQ("", error_text(hdl_));
}

} // namespace
