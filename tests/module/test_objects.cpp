// Objects of the store as the module uses them: the object helpers, the two forms of the parameters
// and what is collected after an invocation.
#include "module_test.h"

#include "invoker/collect.h"
#include "invoker/params.h"
#include "objects/objects.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace {

class Objects_test : public Module_test {
protected:
    void SetUp() override {
        Module_test::SetUp();
        hdl = Omralib_open_ext(nullptr);
        store::take_log();
    }
    // After a failure the outputs are as before.
    void expect_untouched() const { EXPECT_TRUE(pdata == untouched && data_len == 77); }
    // What the caller owns; then as before.
    std::string take_data() {
        EXPECT_EQ(pdata == nullptr, data_len == 0);
        std::string result(pdata ? pdata : "", data_len);
        Sys_free(pdata);
        pdata = untouched;
        data_len = 77;
        return result;
    }

    OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE;
    char untouched[1] = {'u'};
    char *pdata = untouched;
    unsigned int data_len = 77;
    const OMRA_OBJKEY key5 = store::key(5);
};

TEST_F(Objects_test, ReadAndDelete) {
    const auto read = [&](BOOLEAN log) {
        return Omrapmi_read_get_obj(hdl, &key5, log, &pdata, &data_len);
    };
    const auto read_delete = [&] {
        return Omrapmi_read_get_delete_obj(hdl, &key5, &pdata, &data_len);
    };
    EXPECT_EQ(read(FALSE), -109);
    EXPECT_EQ(sys::take_traces(), "");
    EXPECT_EQ(read_delete(), -109);
    EXPECT_EQ(sys::take_traces(), "[rgo 0] -109|[rgdo 0] -109");

    store::put(5, "hello");
    EXPECT_EQ(read(TRUE), 1);
    EXPECT_EQ(take_data(), "hello");
    store::take_log();
    sys::script.malloc_countdown[OMRAPMI_TAG_OBJECT] = 1;
    EXPECT_EQ(read(FALSE), -1351);
    EXPECT_EQ(store::take_log(), "read_obj 5|flush_read_data");
    store::script.answers = {{"get_read_data", -110}};
    EXPECT_EQ(read(FALSE), -110);
    EXPECT_EQ(sys::take_asserts(), "ret != OMRALIB_ERR_NOT_READING");
    store::script.answers = {{"remove_obj", -112}};
    EXPECT_EQ(read_delete(), -112);
    EXPECT_EQ(sys::take_traces(), "[rgo 1]|[rgo 2] -110|[rgdo 1] -112");
    expect_untouched();
    EXPECT_EQ(read_delete(), 1);
    EXPECT_EQ(take_data(), "hello");
    EXPECT_EQ(store::bytes(5), "none");

    store::put(5, "");
    store::take_log();
    EXPECT_EQ(read_delete(), 1);
    EXPECT_EQ(take_data(), "");
    EXPECT_EQ(store::take_log(), "read_obj 5|remove_obj 5");
}

class Create_or_lock_test : public Objects_test {
protected:
    int run(unsigned int extra_len = 0, unsigned int timeout_s = 30) {
        return Omrapmi_read_get_or_create_and_lock_obj(hdl, &key5, &pout, &data_len, extra_len,
                                                       defaults, 3, timeout_s);
    }

    const char *const defaults = "def";
    const char *pout = untouched;
};

TEST_F(Create_or_lock_test, FillsWhatIsMissingOrEmptyAndLocksTheRest) {
    EXPECT_EQ(run(), 1);
    EXPECT_TRUE(pout == defaults && data_len == 3 && store::bytes(5) == "def");
    EXPECT_EQ(store::script.objects.at(key5).timeout_m, 2u); // 90 seconds, rounded up
    EXPECT_EQ(store::take_log(), "store_obj 5");

    store::put(5, "");
    pout = nullptr;
    EXPECT_EQ(run(), 1);
    EXPECT_TRUE(pout == defaults && data_len == 3 && store::bytes(5) == "def");
    EXPECT_EQ(store::take_log(), "store_obj 5|read_and_lock_obj 5|update_locked_obj 5");

    store::put(5, "contents");
    store::script.objects.at(key5).ticket = store::elsewhere;
    int num_sleeps = 0;
    sys::script.on_sleep = [&](unsigned int duration_ms) {
        EXPECT_EQ(duration_ms, 10u);
        store::script.objects.at(key5).ticket = ++num_sleeps == 3 ? 0 : store::elsewhere;
    };
    const int ticket = run(4);
    EXPECT_EQ(num_sleeps, 3);
    ASSERT_NE(pout, defaults);
    EXPECT_EQ(std::string(pout, data_len), "contents");
    char *pbuffer = const_cast<char *>(pout);
    std::fill_n(pbuffer + data_len, 4, '+');
    EXPECT_EQ(Omralib_update_locked_obj(hdl, ticket, 1, 0, pbuffer, 12, key5), 1);
    Sys_free(pbuffer);

    store::script.objects.clear();
    EXPECT_EQ(run(0, 0xFFFFFFFF), 1);
    EXPECT_EQ(store::script.objects.at(key5).timeout_m, 65535u);
}

TEST_F(Create_or_lock_test, FailuresLeaveNeitherLockNorBuffer) {
    struct Case {
        store::Answer answer;
        const char *contents, *traces, *asserts;
    };
    const Case cases[] = {
        {{"store_obj", -123}, "x", "[rgocalo 1] -123", ""},
        {{"read_and_lock_obj", -109}, "x", "[rgocalo 0] -109", ""},
        {{"get_read_data", -106}, "x", "[rgocalo 3] -106", "ret != OMRALIB_ERR_BAD_ARGS"},
        {{"update_locked_obj", -123}, "", "[rgocalo 4] -123", ""},
    };
    for (const Case &c : cases) {
        store::put(5, c.contents);
        store::script.answers = {c.answer};
        EXPECT_EQ(run(), c.answer.result);
        EXPECT_EQ(sys::take_traces(), c.traces);
        EXPECT_EQ(sys::take_asserts(), c.asserts);
        EXPECT_EQ(store::faults(), "");
    }
    // No memory, and a length that no block can have.
    store::put(5, "contents");
    store::take_log();
    for (const unsigned int extra_len : {4u, 0xFFFFFFFFu}) {
        sys::script.malloc_countdown[OMRAPMI_TAG_LOCKED_OBJECT] = extra_len == 4;
        EXPECT_EQ(run(extra_len), -1351);
        EXPECT_EQ(sys::take_traces(), "[rgocalo 2]");
        EXPECT_EQ(store::take_log(),
                  "store_obj 5|read_and_lock_obj 5|flush_read_data|unlock_obj 5");
    }
    EXPECT_TRUE(pout == untouched && data_len == 77);
}

class Params_test : public Objects_test {
protected:
    int pre(const std::string &params, unsigned int timeout_s = 30) {
        return Omrapmi_invoker_pre(hdl, &key, &ext, params.empty() ? nullptr : params.data(),
                                   static_cast<unsigned int>(params.size()), timeout_s, &immediate);
    }

    OMRAPMI_PARAMS_EXT ext = {0x01020304, 0, 1, 1, 0};
    OMRA_OBJKEY key = store::key(~0ull, ~0u);
    BOOLEAN immediate = 9;
    OMRAPMI_PARAMS_EXT *pext = nullptr;
};

TEST_F(Params_test, UpTo32BytesTravelInTheKey) {
    for (const std::size_t len : {0u, 1u, 31u, 32u}) {
        const std::string params = std::string("0123456789abcdefghijklmnopqrstuv").substr(0, len);
        std::memset(&key, 0xEE, sizeof key);
        EXPECT_EQ(pre(params), 1);
        EXPECT_EQ(immediate, TRUE);
        std::string expected("\x04\x03\x02\x01.\x01\x01\0", 8);
        expected[4] = static_cast<char>(len);
        expected += params + std::string(32 - len, '\0');
        EXPECT_EQ(std::string(reinterpret_cast<char *>(&key), sizeof key), expected);
        Omrapmi_immediate_params_get(&key, &pext, &pdata, &data_len);
        EXPECT_TRUE(static_cast<void *>(pext) == &key && data_len == len);
        EXPECT_EQ(pdata, len != 0 ? reinterpret_cast<char *>(&key) + 8 : nullptr);
    }
    EXPECT_EQ(store::take_log(), "");
    key.flags = 200; // more than the key holds
    Omrapmi_immediate_params_get(&key, &pext, &pdata, &data_len);
    EXPECT_EQ(data_len, 32u);
    EXPECT_EQ(sys::take_asserts(), "*pparams_obj_len <= OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN");
}

TEST_F(Params_test, LongerOnesAreStoredUnderAFreshKey) {
    const std::string params(33, 'p');
    store::script.answers = {{"store_obj", -108}, {"store_obj", -108}};
    EXPECT_EQ(pre(params), 1);
    EXPECT_EQ(immediate, FALSE);
    const auto &stored = store::script.stored;
    ASSERT_EQ(stored.size(), 3u);
    for (const auto &[stored_key, object] : stored) {
        EXPECT_EQ(object.bytes, std::string("\x04\x03\x02\x01\0\x01\x01\0", 8) + params);
        EXPECT_EQ(object.timeout_m, 2u);
        const std::string bytes(reinterpret_cast<const char *>(&stored_key), sizeof stored_key);
        EXPECT_EQ(bytes.substr(0, 8), std::string("\0\0\0\x30\x02\0\0\0", 8));
        EXPECT_EQ(bytes.substr(24, 8), std::string("\x21\x21\xBD\xBD\x03\0\0\0", 8));
    }
    EXPECT_FALSE(same_key(stored[0].first, stored[1].first));
    EXPECT_FALSE(same_key(stored[1].first, stored[2].first));
    EXPECT_TRUE(same_key(stored[2].first, key));
    EXPECT_EQ(sys::take_traces(), "[co 1] -108|[ipr 0] -108|[co 1] -108|[ipr 0] -108");
    EXPECT_EQ(pre(params, 0), 1);
    EXPECT_EQ(stored.back().second.timeout_m, 1u);
    EXPECT_EQ(pre(params, 0xFFFFFFFF), 1);
    EXPECT_EQ(stored.back().second.timeout_m, 65535u);
}

TEST_F(Params_test, FailuresToStore) {
    const std::string params(33, 'p');
    for (const auto &[answer, expected] :
         {std::pair(-105, -105), {-106, -106}, {-1351, -1303}, {-123, -123}}) {
        store::script.answers = {{"store_obj", answer}};
        EXPECT_EQ(pre(params), expected);
        char traces[64];
        std::snprintf(traces, sizeof traces, "[co 1] %d|[ipr 0] %d", answer, answer);
        EXPECT_EQ(sys::take_traces(), traces);
    }
    EXPECT_EQ(sys::take_asserts(), "ret != OMRALIB_ERR_BAD_KEY|ret != OMRALIB_ERR_BAD_ARGS");
    sys::script.malloc_countdown[OMRAPMI_TAG_NEW_OBJECT] = 1;
    EXPECT_EQ(pre(params), -1303);
    // A length that no block can have: the bytes are not looked at.
    EXPECT_EQ(Omrapmi_create_obj(hdl, &key5, 0, "12345678", 8, "x", 0xFFFFFFFC), -1351);
    EXPECT_EQ(sys::take_traces(), "[co 0]|[ipr 0] -1351|[co 0]");
    EXPECT_EQ(store::script.num_calls["store_obj"], 4u);
}

class Collect_test : public Objects_test {
protected:
    int post(BOOLEAN immediate = FALSE) {
        return Omrapmi_invoker_post(hdl, &params_key, immediate, &result, &pdata, &data_len,
                                    &pexceptions, &num_exceptions);
    }

    OMRA_OBJKEY params_key = store::key(1);
    OMRA_INVOKE_RESULT result = {2, 10, 2, 0, store::key(2), store::key(3)};
    OMRAPMI_EXCEPTION no_exception = {};
    OMRAPMI_EXCEPTION *pexceptions = &no_exception;
    ULONG num_exceptions = 55;
};

TEST_F(Collect_test, HandsOutWhatThereIs) {
    store::put(1, "params");
    store::put(2, "result");
    store::put(3, std::string(100, 'e')); // torn: two records and a rest
    result.num_failed = 1;
    EXPECT_EQ(post(), 1);
    EXPECT_EQ(store::take_log(), "remove_obj 1|read_obj 2|get_read_data 6|remove_obj 2|"
                                 "read_obj 3|get_read_data 100|remove_obj 3");
    EXPECT_EQ(sys::take_asserts(), "exceptions_obj_len % sizeof *pexceptions == 0");
    EXPECT_EQ(take_data(), "result");
    EXPECT_TRUE(num_exceptions == 2 && pexceptions[1].code == 0x65656565);
    Sys_free(pexceptions);

    // What is absent costs no call: no failure, or a key that is null in all that counts.
    result.results_key = OMRA_OBJKEY{0, 0, 9, 9, {}, {}};
    result.num_failed = 0;
    EXPECT_EQ(post(TRUE), 1);
    EXPECT_TRUE(take_data().empty() && pexceptions == nullptr && num_exceptions == 0);
    result.num_failed = 1;
    result.exceptions_key = {};
    EXPECT_EQ(post(TRUE), 1);
    EXPECT_TRUE(take_data().empty() && pexceptions == nullptr && num_exceptions == 0);
    EXPECT_EQ(store::take_log(), "");
}

TEST_F(Collect_test, TheFirstFailureDecidesAndTheRestIsStillDone) {
    struct Case {
        std::vector<store::Answer> answers;
        int expected;
        const char *traces, *asserts, *left;
    };
    const std::vector<Case> cases = {
        {{{"remove_obj", -109, 1}}, 1, "[ipo 0] -109", "", "1"},
        {{{"remove_obj", -105, 1}}, -105, "[ipo 0] -105", "ret != OMRALIB_ERR_BAD_KEY", "1"},
        {{{"read_obj", -109, 2}},
         -109,
         "[rgo 0] -109|[rgdo 0] -109|[ipo 1] -109",
         "ret != OMRALIB_ERR_OBJ_NOT_FOUND",
         "2"},
        {{{"remove_obj", -1351, 2}}, -1303, "[rgdo 1] -1351|[ipo 1] -1351", "", "2"},
        {{{"read_obj", -109, 3}}, -115, "[rgo 0] -109|[rgdo 0] -109|[ipo 2] -109 10 2", "", "3"},
        {{{"remove_obj", -1351, 3}}, -1303, "[rgdo 1] -1351|[ipo 2] -1351 10 2", "", "3"},
        {{{"remove_obj", -103, 1}, {"read_obj", -102, 2}, {"remove_obj", -112, 3}},
         -103,
         "[ipo 0] -103|[rgo 0] -102|[rgdo 0] -102|[ipo 1] -102|[rgdo 1] -112|[ipo 2] -112 10 2",
         "",
         "123"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.traces);
        std::string left;
        for (const ULONGLONG number : {1u, 2u, 3u}) {
            store::put(number, std::string(48, 'x'));
        }
        store::script.answers = c.answers;
        EXPECT_EQ(post(), c.expected);
        EXPECT_EQ(sys::take_traces(), c.traces);
        EXPECT_EQ(sys::take_asserts(), c.asserts);
        for (const ULONGLONG number : {1u, 2u, 3u}) {
            left += store::bytes(number) != "none" ? std::to_string(number) : "";
        }
        EXPECT_EQ(left, c.left);
        if (c.expected == 1) {
            take_data();
            Sys_free(std::exchange(pexceptions, &no_exception));
            num_exceptions = 55;
        }
        expect_untouched();
        EXPECT_TRUE(pexceptions == &no_exception && num_exceptions == 55);
    }
}

} // namespace
