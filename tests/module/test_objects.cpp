// Objects of the store as the module uses them: the object helpers and the two forms of the
// parameters.
#include "module_test.h"

#include "objects/objects.h"
#include "runtime/params.h"

#include <algorithm>
#include <cstring>

namespace {

class Objects_test : public Module_test {
protected:
    int read() { return Omrapmi_read_get_obj(hdl, &key5, FALSE, &pdata, &data_len); }
    int read_delete() { return Omrapmi_read_get_delete_obj(hdl, &key5, &pdata, &data_len); }
    int create_or_lock(unsigned int extra_len = 0, unsigned int timeout_s = 30) {
        return Omrapmi_read_get_or_create_and_lock_obj(hdl, &key5, &plocked, &data_len, extra_len,
                                                       defaults, 3, timeout_s);
    }
    // After a failure the outputs are as before, and neither a lock nor a read is left.
    void expect_untouched() const {
        EXPECT_TRUE(pdata == untouched && plocked == untouched && data_len == 77);
        EXPECT_EQ(store::faults(), "");
    }
    // What the caller owns.
    std::string take_data() {
        std::string result(pdata ? pdata : "", data_len);
        Sys_free(std::exchange(pdata, untouched));
        return result;
    }

    char untouched[1] = {'u'};
    char *pdata = untouched;
    const char *plocked = untouched;
    const char *const defaults = "def";
    unsigned int data_len = 77;
    const OMRA_OBJKEY key5 = store::key(5);
};

TEST_F(Objects_test, ReadAndDelete) {
    EXPECT_EQ(read(), -109);
    EXPECT_EQ(sys::take_traces(), ""); // nothing uncommon
    EXPECT_EQ(read_delete(), -109);
    EXPECT_EQ(sys::take_traces(), "[rgo 0] -109|[rgdo 0] -109");
    store::put(5, "hello");
    store::take_log();
    sys::script.malloc_countdown[OMRAPMI_TAG_OBJECT] = 1;
    EXPECT_EQ(read(), -1351);
    EXPECT_EQ(store::take_log(), "read_obj 5|flush_read_data");
    store::script.answers = {{"get_read_data", -110}};
    EXPECT_EQ(read(), -110);
    EXPECT_EQ(sys::take_asserts(), "ret != OMRALIB_ERR_NOT_READING");
    store::script.answers = {{"remove_obj", -112}};
    EXPECT_EQ(read_delete(), -112);
    expect_untouched();
    EXPECT_EQ(read(), 1);
    EXPECT_EQ(take_data(), "hello");
    EXPECT_EQ(read_delete(), 1);
    EXPECT_EQ(take_data(), "hello");
    EXPECT_EQ(store::bytes(5), "none");

    store::put(5, "");
    EXPECT_EQ(read_delete(), 1);
    EXPECT_TRUE(pdata == nullptr && data_len == 0);
}

TEST_F(Objects_test, CreatedWhenMissingOrEmptyAndElseLocked) {
    EXPECT_EQ(create_or_lock(), 1);
    EXPECT_TRUE(plocked == defaults && data_len == 3 && store::bytes(5) == "def");
    EXPECT_EQ(store::script.objects.at("5").timeout_m, 2u); // 90 seconds, rounded up
    EXPECT_EQ(store::take_log(), "store_obj 5");

    store::put(5, "");
    EXPECT_EQ(create_or_lock(), 1);
    EXPECT_TRUE(plocked == defaults && data_len == 3 && store::bytes(5) == "def");
    EXPECT_EQ(store::take_log(), "store_obj 5|read_and_lock_obj 5|update_locked_obj 5");

    store::put(5, "contents");
    store::script.objects.at("5").ticket = store::elsewhere;
    int num_sleeps = 0;
    sys::script.on_sleep = [&](unsigned int duration_ms) {
        EXPECT_EQ(duration_ms, 10u);
        store::script.objects.at("5").ticket = ++num_sleeps == 3 ? 0 : store::elsewhere;
    };
    const int ticket = create_or_lock(4);
    EXPECT_EQ(num_sleeps, 3);
    EXPECT_EQ(std::string(plocked, data_len), "contents");
    char *pbuffer = const_cast<char *>(plocked);
    std::fill_n(pbuffer + data_len, 4, '+'); // there is room
    EXPECT_EQ(Omralib_update_locked_obj(hdl, ticket, 1, 0, pbuffer, 12, key5), 1);
    Sys_free(pbuffer);

    store::script.objects.clear();
    EXPECT_EQ(create_or_lock(0, 0xFFFFFFFF), 1);
    EXPECT_EQ(store::script.objects.at("5").timeout_m, 65535u);
}

TEST_F(Objects_test, FailuresToLockLeaveNeitherLockNorBuffer) {
    const std::pair<store::Answer, const char *> cases[] = {
        {{"store_obj", -123}, "contents"},
        {{"read_and_lock_obj", -109}, "contents"},
        {{"get_read_data", -110}, "contents"},
        {{"update_locked_obj", -123}, ""},
    };
    for (const auto &[answer, contents] : cases) {
        store::put(5, contents);
        store::script.answers = {answer};
        EXPECT_EQ(create_or_lock(), answer.result);
        expect_untouched();
    }
    EXPECT_EQ(sys::take_asserts(), "ret != OMRALIB_ERR_NOT_READING");
    // No memory, and a length that no block can have.
    store::put(5, "contents");
    for (const unsigned int extra_len : {4u, 0xFFFFFFFFu}) {
        sys::script.malloc_countdown[OMRAPMI_TAG_LOCKED_OBJECT] = extra_len == 4;
        EXPECT_EQ(create_or_lock(extra_len), -1351);
        expect_untouched();
    }
}

class Params_test : public Module_test {
protected:
    int pre(const std::string &params, unsigned int timeout_s = 30) {
        return Omrapmi_invoker_pre(hdl, &key, &ext, params.empty() ? nullptr : params.data(),
                                   static_cast<unsigned int>(params.size()), timeout_s, &immediate);
    }
    static std::string bytes_of(const OMRA_OBJKEY &key) {
        return {reinterpret_cast<const char *>(&key), sizeof key};
    }

    OMRAPMI_PARAMS_EXT ext = {0x01020304, 0, 1, 1, 0};
    OMRA_OBJKEY key = {};
    BOOLEAN immediate = 9;
    const std::string long_params = std::string(33, 'p');
};

TEST_F(Params_test, UpTo32BytesTravelInTheKey) {
    OMRAPMI_PARAMS_EXT *pext = nullptr;
    char *pdata = nullptr;
    unsigned int data_len = 0;
    for (const std::size_t len : {0u, 1u, 31u, 32u}) {
        const std::string params = std::string("0123456789abcdefghijklmnopqrstuv").substr(0, len);
        std::memset(&key, 0xEE, sizeof key);
        EXPECT_EQ(pre(params), 1);
        EXPECT_EQ(immediate, TRUE);
        std::string expected("\x04\x03\x02\x01.\x01\x01\0", 8);
        expected[4] = static_cast<char>(len);
        EXPECT_EQ(bytes_of(key), expected + params + std::string(32 - len, '\0'));
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
    store::script.answers = {{"store_obj", -108}, {"store_obj", -108}}; // taken
    EXPECT_EQ(pre(long_params), 1);
    EXPECT_EQ(immediate, FALSE);
    const auto &stored = store::script.stored;
    ASSERT_EQ(stored.size(), 3u);
    for (const auto &[stored_key, object] : stored) {
        EXPECT_EQ(object.bytes, std::string("\x04\x03\x02\x01\0\x01\x01\0", 8) + long_params);
        EXPECT_EQ(object.timeout_m, 2u);
        EXPECT_EQ(bytes_of(stored_key).substr(0, 8), std::string("\0\0\0\x30\x02\0\0\0", 8));
        EXPECT_EQ(bytes_of(stored_key).substr(24, 8), std::string("\x21\x21\xBD\xBD\x03\0\0\0", 8));
    }
    EXPECT_FALSE(same_key(stored[0].first, stored[1].first));
    EXPECT_FALSE(same_key(stored[1].first, stored[2].first));
    EXPECT_TRUE(same_key(stored[2].first, key));
    store::script.objects.clear();
    EXPECT_EQ(pre(long_params, 0xFFFFFFFF), 1);
    EXPECT_EQ(stored.back().second.timeout_m, 65535u);
}

TEST_F(Params_test, FailuresToStore) {
    for (const auto &[answer, expected] : {std::pair(-106, -106), {-1351, -1303}, {-123, -123}}) {
        store::script.answers = {{"store_obj", answer}};
        EXPECT_EQ(pre(long_params), expected);
    }
    EXPECT_EQ(sys::take_asserts(), "ret != OMRALIB_ERR_BAD_ARGS");
    sys::script.malloc_countdown[OMRAPMI_TAG_NEW_OBJECT] = 1;
    EXPECT_EQ(pre(long_params), -1303);
    // A length that no block can have: the bytes are not looked at.
    EXPECT_EQ(Omrapmi_create_obj(hdl, &key, 0, "12345678", 8, "x", 0xFFFFFFFC), -1351);
    EXPECT_EQ(store::script.num_calls["store_obj"], 3u);
}

} // namespace
