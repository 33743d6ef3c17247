#include "store_test.h"

#include "query/request.h"

std::vector<EngineParam> all_engines() {
    std::vector<EngineParam> engines;
    for (const store::EngineKind &kind : store::engine_kinds()) {
        engines.push_back({kind.url == "embedded:" ? "Embedded" : "Other", &kind});
    }
    return engines;
}

std::vector<store::Key> StoreTest::find_value(unsigned int app_id, USHORT index,
                                              unsigned long long number) {
    const store::Term terms[] = {{index, false, make_value(number)}};
    std::vector<store::Key> keys;
    EXPECT_EQ(
        OMRALIB_RET_SUCCESS,
        store::find(store_.objects(), store::select_by_terms(app_id, true, terms), nullptr, keys));
    return keys;
}

int put_indexed(OMRALIB_HANDLE hdl, OMRA_OBJKEY key, const std::vector<OMRA_OBJ_INDEX> &values,
                unsigned int timeout_m) {
    return Omralib_store_indexed_obj(hdl, "x", 1, timeout_m, values.data(),
                                     static_cast<unsigned int>(values.size()), key);
}

std::string get(OMRALIB_HANDLE hdl, OMRA_OBJKEY key) {
    unsigned int len = 0;
    const int status = Omralib_read_obj(hdl, 0, &len, key);
    return status == OMRALIB_RET_SUCCESS ? fetch(hdl, len) : "status " + std::to_string(status);
}

std::string fetch(OMRALIB_HANDLE hdl, unsigned int len) {
    std::string data(len, '\0');
    if (len != 0) {
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_read_data(hdl, data.data(), len));
    }
    return data;
}

int update(OMRALIB_HANDLE hdl, OMRA_OBJKEY key, int ticket, std::string_view data, bool unlock) {
    return Omralib_update_locked_obj(hdl, ticket, unlock ? 1 : 0, 0, data.data(),
                                     static_cast<unsigned int>(data.size()), key);
}

unsigned long long count(OMRALIB_HANDLE hdl, unsigned int app_id) {
    ULONGLONG num = ~0ull;
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_count_objs(hdl, app_id, &num));
    return num;
}

OMRA_INDEX_HDR make_header(unsigned int app_id, unsigned int event_app_id) {
    OMRA_INDEX_HDR header{};
    header.reserved = OMRALIB_INDEX_OP_INVOKE;
    header.app_id = app_id;
    header.reserved2 = event_app_id;
    return header;
}

int invoke(OMRALIB_HANDLE hdl, const OMRA_INDEX_HDR &header, std::string_view query,
           OMRA_INVOKE_RESULT &result_out) {
    std::string request(reinterpret_cast<const char *>(&header), sizeof header);
    request += query;
    unsigned int len = 0;
    const int status =
        Omralib_invoke(hdl, 0, request.data(), static_cast<unsigned int>(request.size()), &len);
    if (status == OMRALIB_RET_SUCCESS) {
        EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_read_data(hdl, &result_out, sizeof result_out));
        EXPECT_EQ(OMRALIB_INDEX_OP_INVOKE, result_out.reserved);
    }
    return status;
}

std::string error_text(OMRALIB_HANDLE hdl) {
    char text[200];
    EXPECT_EQ(OMRALIB_RET_SUCCESS, Omralib_get_error_text(hdl, text, sizeof text));
    return text;
}
