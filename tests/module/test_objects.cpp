// Objects of the store as the module uses them: created or locked, and the two forms of the
// parameters. What becomes of failures is the matter of the fault sweeps.
#include "module_test.h"

#include "objects/objects.h"
#include "runtime/params.h"

#include <algorithm>
#include <cstring>

namespace {

using interposer::instead;
using interposer::real;
using interposer::take_log;

class Objects_test : public Module_test {
protected:
    int create_or_lock(unsigned int extra_len = 0, unsigned int timeout_s = 30) {
        return Omrapmi_read_get_or_create_and_lock_obj(hdl, &key5, &pdata, &data_len, extra_len,
                                                       "def", 3, timeout_s);
    }
    std::string data() const { return {pdata, data_len}; }

    const char *pdata = nullptr;
    unsigned int data_len = 0;
    const OMRA_OBJKEY key5 = world::key(5);
};

TEST_F(Objects_test, CreatedWhenMissingOrEmptyAndElseLocked) {
    EXPECT_EQ(create_or_lock(), 1);
    EXPECT_TRUE(data() == "def" && world::bytes(5) == "def");
    EXPECT_EQ(take_log(), "store_obj 3 2 5"); // 90 seconds are 2 minutes
    world::put(5, "");
    EXPECT_EQ(create_or_lock(0, 0xFFFFFFFF), 1);
    EXPECT_TRUE(data() == "def" && world::bytes(5) == "def");
    EXPECT_EQ(take_log(), "store_obj 3 65535 5|read_and_lock_obj 5|update_locked_obj 1 3 5");

    world::put(5, "contents");
    const int elsewhere =
        real<Omralib_read_and_lock_obj>(world::handle(), 0, 0, &data_len, world::key(5));
    int num_sleeps = 0;
    instead<Thread_sleep> = [&](unsigned int duration_ms) {
        EXPECT_EQ(duration_ms, 10u);
        if (++num_sleeps == 3) {
            real<Omralib_unlock_obj>(world::handle(), elsewhere, 0, world::key(5));
        }
    };
    const int ticket = create_or_lock(4);
    real<Omralib_flush_read_data>(world::handle());
    EXPECT_EQ(num_sleeps, 3);
    EXPECT_EQ(data(), "contents");
    char *pbuffer = const_cast<char *>(pdata);
    std::fill_n(pbuffer + data_len, 4, '+'); // there is room
    EXPECT_EQ(Omralib_update_locked_obj(hdl, ticket, 1, 0, pbuffer, 12, key5), 1);
    Sys_free(pbuffer);
    // Lengths that no block can have.
    EXPECT_EQ(create_or_lock(0xFFFFFFFF), -1351);
    EXPECT_EQ(Omrapmi_create_obj(hdl, &key5, 0, "12345678", 8, "x", 0xFFFFFFFC), -1351);
    EXPECT_EQ(world::bytes(5), "contents++++");
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
};

TEST_F(Params_test, UpTo32BytesTravelInTheKey) {
    OMRAPMI_PARAMS_EXT *pext = nullptr;
    char *pdata = nullptr;
    unsigned int data_len = 0;
    for (const std::size_t len : {0u, 1u, 32u}) {
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
    EXPECT_EQ(take_log(), "");
    key.flags = 200; // more than the key holds
    Omrapmi_immediate_params_get(&key, &pext, &pdata, &data_len);
    EXPECT_EQ(data_len, 32u);
    EXPECT_EQ(interposer::take_reports(), "*pparams_obj_len <= OMRAPMI_MAX_IMMEDIATE_PARAMS_LEN");
}

TEST_F(Params_test, LongerOnesAreStoredUnderAFreshKey) {
    std::vector<std::string> keys;
    instead<Omralib_store_obj> = [&](OMRALIB_HANDLE, unsigned int, const void *pdata,
                                     unsigned int len, unsigned int, OMRA_OBJKEY stored) {
        EXPECT_EQ(std::string(static_cast<const char *>(pdata), len),
                  std::string("\x04\x03\x02\x01\0\x01\x01\0", 8) + std::string(33, 'p'));
        keys.push_back(bytes_of(stored));
        return keys.size() < 3 ? OMRALIB_ERR_OBJ_EXISTS : 1;
    };
    EXPECT_EQ(pre(std::string(33, 'p')), 1);
    EXPECT_EQ(immediate, FALSE);
    EXPECT_EQ(take_log(), "store_obj 41 2 params|store_obj 41 2 params|store_obj 41 2 params");
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_TRUE(keys[0] != keys[1] && keys[1] != keys[2] && keys[2] == bytes_of(key));
    EXPECT_EQ(keys[2].substr(0, 8), std::string("\0\0\0\x30\x02\0\0\0", 8));
    EXPECT_EQ(keys[2].substr(24, 8), std::string("\x21\x21\xBD\xBD\x03\0\0\0", 8));
    EXPECT_EQ(pre(std::string(33, 'p'), 0xFFFFFFFF), 1);
    EXPECT_EQ(take_log(), "store_obj 41 65535 params");
    for (const auto &[answer, expected] : {std::pair(-106, -106), {-1351, -1303}, {-123, -123}}) {
        interposer::script({{"store_obj", answer}});
        EXPECT_EQ(pre(std::string(33, 'p')), expected);
    }
    EXPECT_EQ(interposer::take_reports(), "ret != OMRALIB_ERR_BAD_ARGS");
}

} // namespace
