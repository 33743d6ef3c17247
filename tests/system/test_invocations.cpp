// The module on the shipped store and system utilities, as an application uses them.
#include <cstring>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "pmicli.h"
#include "storapp.h"
#include "sysapp.h"

namespace {

constexpr unsigned int app = 7;
constexpr int failure = 42;

struct Sums {
    ULONGLONG count;
    ULONGLONG total;
};

template <typename Value>
int give(const Value &value, char **ppresult_out, unsigned int *presult_len_out) {
    *ppresult_out = static_cast<char *>(Omrapmi_malloc(sizeof value));
    std::memcpy(*ppresult_out, &value, sizeof value);
    *presult_len_out = sizeof value;
    return 0;
}

// Adds the parameters' length to the object's number; fails on every number that ends in 3.
int eval(const char *pdata, unsigned int, const char *, unsigned int params_len,
         char **ppresult_out, unsigned int *presult_len_out) {
    ULONGLONG number;
    std::memcpy(&number, pdata, sizeof number);
    if (number % 10 == 3)
        return failure;
    return give(Sums{1, number + params_len}, ppresult_out, presult_len_out);
}

int merge(char *pdst, unsigned int dst_len, const char *psrc, unsigned int, char **ppmerged_out,
          unsigned int *pmerged_len_out) {
    Sums dst;
    Sums src;
    std::memcpy(&dst, pdst, sizeof dst);
    std::memcpy(&src, psrc, sizeof src);
    dst = {dst.count + src.count, dst.total + src.total};
    if (dst.count % 2 == 0) // both ways of giving a result back
        return give(dst, ppmerged_out, pmerged_len_out);
    std::memcpy(pdst, &dst, sizeof dst);
    *ppmerged_out = pdst;
    *pmerged_len_out = dst_len;
    return 0;
}

int once(const char *pdata, unsigned int, const char *pparams, unsigned int params_len,
         char **ppresult_out, unsigned int *presult_len_out) {
    EXPECT_EQ(nullptr, pdata);
    return give(Sums{1, static_cast<ULONGLONG>(std::accumulate(pparams, pparams + params_len, 0))},
                ppresult_out, presult_len_out);
}

class System : public testing::Test {
protected:
    System() {
        for (ULONGLONG number = 0; number < num_objects; ++number) {
            OMRA_OBJKEY key{};
            key.app_id = app;
            key.obj_id.u64_comp[0] = number;
            EXPECT_EQ(OMRALIB_RET_SUCCESS,
                      Omralib_store_obj(hdl_, 0, &number, sizeof number, 0, key));
        }
        Omrapmi_worker_register_eval_func(eval, 0, app);
        Omrapmi_worker_register_merge_func(merge, 1, app);
        Omrapmi_worker_register_invoke_once_eval_func(once, 2, app);
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omrapmi_worker_init_ext(4));
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omrapmi_worker_start(app));
    }

    // Invokes over all objects and checks everything that comes back.
    static void invoke_and_check(OMRALIB_HANDLE hdl, const std::string &params) {
        OMRAPMI_INVOKE_ARGS args{};
        args.app_id = app;
        args.func_id_merge = 1;
        args.timeout_s = 60;
        args.pparams_obj = params.empty() ? nullptr : params.data();
        args.params_obj_len = static_cast<ULONG>(params.size());
        args.use_exceptions = TRUE;
        ASSERT_EQ(OMRALIB_RET_SUCCESS, Omrapmi_invoke(hdl, &args));
        EXPECT_EQ(num_objects / 10, args.num_failed_out);
        EXPECT_EQ(num_objects - num_objects / 10, args.num_successful_out);

        ULONGLONG total = 0;
        for (ULONGLONG number = 0; number < num_objects; ++number)
            total += number % 10 == 3 ? 0 : number + params.size();
        Sums sums{};
        ASSERT_EQ(sizeof sums, args.results_obj_len_out);
        std::memcpy(&sums, args.presults_obj_out, sizeof sums);
        EXPECT_EQ(args.num_successful_out, sums.count);
        EXPECT_EQ(total, sums.total);

        ASSERT_EQ(args.num_failed_out, args.num_exceptions_out);
        ULONGLONG failed_numbers = 0;
        for (ULONG i = 0; i < args.num_exceptions_out; ++i) {
            EXPECT_EQ(failure, args.pexceptions_out[i].code);
            EXPECT_EQ(1, args.pexceptions_out[i].is_eval);
            EXPECT_EQ(3u, args.pexceptions_out[i].key.obj_id.u64_comp[0] % 10);
            failed_numbers += args.pexceptions_out[i].key.obj_id.u64_comp[0];
        }
        EXPECT_EQ((num_objects / 10) * (num_objects / 10 - 1) / 2 * 10 + num_objects / 10 * 3,
                  failed_numbers);
        Omrapmi_free(args.presults_obj_out);
        Omrapmi_free(args.pexceptions_out);
    }

    // Nothing of an invocation stays: no object beside the data, no block beside what is made once.
    // A worker gives its last blocks back after it has reported the request, so a few looks may be
    // needed.
    void expect_nothing_left() {
        OMRALIB_STATS stats{};
        Omralib_get_stats(&stats);
        EXPECT_EQ(num_objects, stats.num_objects);
        for (const unsigned int tag : {0xD1u, 0xD2u, 0xD3u, 0xD6u, 0xD8u}) {
            while (Sys_get_mem_use(tag).blocks != 0)
                std::this_thread::yield();
        }
        EXPECT_EQ(0u, Sys_get_assert_count());
    }

    static constexpr ULONGLONG num_objects = 2000;
    const OMRALIB_HANDLE hdl_ = Omralib_open_ext(nullptr);
};

TEST_F(System, GivesTheExactAnswerAndKeepsNothing) {
    invoke_and_check(hdl_, "");
    invoke_and_check(hdl_, std::string(32, 'p'));
    invoke_and_check(hdl_, std::string(33, 'p'));
    invoke_and_check(hdl_, std::string(1 << 20, 'p'));
    expect_nothing_left();
}

TEST_F(System, AnswersManyInvokersAtOnce) {
    std::vector<std::thread> invokers;
    for (std::size_t i = 0; i < 8; ++i) {
        invokers.emplace_back([i] {
            const OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
            for (std::size_t round = 0; round < 4; ++round)
                invoke_and_check(hdl, std::string(i * 10, 'p'));
            Omralib_close(hdl);
        });
    }
    for (std::thread &invoker : invokers)
        invoker.join();
    expect_nothing_left();
}

TEST_F(System, RunsAFunctionOnce) {
    OMRAPMI_INVOKE_ARGS args{};
    args.app_id = MGTI_APPID_INVOKE_ONCE;
    args.func_id_eval = 2;
    args.func_id_merge = 1;
    args.pparams_obj = "\1\2\3";
    args.params_obj_len = 3;
    args.timeout_s = 60;
    OMRAPMI_INVOKE_EXT_ARGS args_ext{app, FALSE, FALSE};
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omrapmi_invoke_ext(hdl_, &args, &args_ext));
    EXPECT_EQ(1u, args.num_successful_out);
    Sums sums{};
    ASSERT_EQ(sizeof sums, args.results_obj_len_out);
    std::memcpy(&sums, args.presults_obj_out, sizeof sums);
    EXPECT_EQ(6u, sums.total);
    Omrapmi_free(args.presults_obj_out);
    expect_nothing_left();
}

TEST_F(System, FailsWithTheReason) {
    OMRAPMI_INVOKE_ARGS args{};
    args.app_id = app + 1;
    args.num_failed_out = 77;
    EXPECT_EQ(OMRALIB_ERR_NO_WORKER, Omrapmi_invoke(hdl_, &args));
    args.app_id = app;
    args.func_id_eval = 9; // nobody registered it
    args.func_id_merge = 1;
    EXPECT_EQ(77u, args.num_failed_out);
    ASSERT_EQ(OMRALIB_RET_SUCCESS, Omrapmi_invoke(hdl_, &args));
    EXPECT_EQ(num_objects, args.num_failed_out);
    EXPECT_EQ(nullptr, args.presults_obj_out);
    EXPECT_STREQ("OMRALIB_ERR_NO_WORKER", Omrapmi_status_name(OMRALIB_ERR_NO_WORKER));
    EXPECT_STREQ("no function is registered under the id",
                 Omrapmi_status_text(OMRAPMI_ERR_FUNC_UNKNOWN));
    EXPECT_EQ(nullptr, Omrapmi_status_text(-1));
}

} // namespace
