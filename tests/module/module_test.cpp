#include "module_test.h"

#include "dispatch/dispatcher.h"

#include "sysapp.h"

#include <algorithm>
#include <cstring>

namespace {

// What a failing function leaves in its outputs must not be looked at.
char bogus_block[1];

int eval(const char *pdata, unsigned int data_len, const char *pparams, unsigned int params_len,
         char **ppresult_out, unsigned int *presult_len_out) {
    const unsigned int object =
        data_len != 0 ? static_cast<unsigned char>(*pdata) : user::no_object;
    if (user::script().on_eval) {
        user::script().on_eval(object);
    }
    sys::with_lock([&] {
        EXPECT_EQ(pparams == nullptr, params_len == 0);
        EXPECT_EQ(pdata == nullptr, data_len == 0);
        EXPECT_TRUE(*ppresult_out == nullptr && *presult_len_out == 0);
        user::script().params.assign(pparams ? pparams : "", params_len);
    });
    const auto code = user::script().eval_codes.find(object);
    if (code != user::script().eval_codes.end()) {
        *ppresult_out = bogus_block;
        *presult_len_out = 1;
        return code->second;
    }
    if (user::script().silent.count(object) == 0) {
        const ULONGLONG bit = 1ull << object;
        *ppresult_out = static_cast<char *>(Omrapmi_malloc(sizeof bit));
        *presult_len_out = sizeof bit;
        std::memcpy(*ppresult_out, &bit, sizeof bit);
    }
    if (user::script().spoil_eval) {
        user::script().spoil_eval(ppresult_out, presult_len_out);
    }
    return 0;
}

int merge(char *pdst, unsigned int dst_len, const char *psrc, unsigned int src_len,
          char **ppmerged_out, unsigned int *pmerged_len_out) {
    unsigned int nth = 0;
    sys::with_lock([&] { nth = ++user::script().num_merges; });
    if (user::script().on_merge) {
        user::script().on_merge(nth);
    }
    EXPECT_TRUE(*ppmerged_out == nullptr && *pmerged_len_out == 0);
    const ULONGLONG dst = user::number({pdst, dst_len});
    const ULONGLONG src = user::number({psrc, src_len});
    EXPECT_EQ(dst & src, 0u) << "merged twice";
    if (user::script().failing_merges.count(nth) != 0) {
        *ppmerged_out = bogus_block;
        return 500 + static_cast<int>(nth);
    }
    *ppmerged_out = nth % 2 == 1 ? pdst : static_cast<char *>(Omrapmi_malloc(sizeof dst));
    *pmerged_len_out = user::script().merged_len;
    const ULONGLONG merged = dst | src;
    std::memcpy(*ppmerged_out, &merged, sizeof merged);
    if (user::script().spoil_merge) {
        user::script().spoil_merge(psrc, ppmerged_out, pmerged_len_out);
    }
    return 0;
}

} // namespace

namespace user {

Script &script() {
    static Script &the_script = *new Script;
    return the_script;
}

const OMRAPMI_EVAL_FUNCP eval_func = eval;
const OMRAPMI_MERGE_FUNCP merge_func = merge;

std::string bits(const std::vector<unsigned int> &objects) {
    ULONGLONG value = 0;
    for (const unsigned int object : objects) {
        value |= 1ull << object;
    }
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

ULONGLONG number(std::string_view result) {
    ULONGLONG value = 0;
    EXPECT_EQ(result.size(), sizeof value);
    std::memcpy(&value, result.data(), std::min(result.size(), sizeof value));
    return value;
}

} // namespace user

void register_functions() {
    ASSERT_EQ(Omrapmi_worker_register_eval_func(eval, user::eval_id, 7), 1);
    ASSERT_EQ(Omrapmi_worker_register_merge_func(merge, user::merge_id, 7), 1);
    ASSERT_EQ(Omrapmi_worker_register_invoke_once_eval_func(eval, user::once_id, 7), 1);
}

void Module_test::SetUp() {
    sys::watch_traces();
    hdl = Omralib_open_ext(nullptr);
    store::take_log();
}

void Module_test::TearDown() {
    EXPECT_EQ(sys::take_asserts(), "");
    EXPECT_EQ(store::faults(), "");
    for (const unsigned int tag :
         {OMRAPMI_TAG_NEW_OBJECT, OMRAPMI_TAG_OBJECT, OMRAPMI_TAG_LOCKED_OBJECT,
          OMRAPMI_TAG_REQUEST, OMRAPMI_TAG_USER}) {
        EXPECT_EQ(Sys_get_mem_use(tag).blocks, 0u) << "left under tag " << tag;
    }
}

void Stepped_test::SetUp() {
    Module_test::SetUp();
    sys::script.threads_held = true;
    ASSERT_EQ(Omrapmi_worker_init_ext(2), 1);
    register_functions();
    sys::take_traces();
}

OMRAPMI_IDSC *Stepped_test::next_request() {
    return reinterpret_cast<OMRAPMI_IDSC *>(Blockq_deq(&omrapmi_worker_state.idsc_blockq, 0));
}

OMRAPMI_WDSC *Stepped_test::next_work() {
    return reinterpret_cast<OMRAPMI_WDSC *>(Blockq_deq(&omrapmi_worker_state.wdsc_blockq, 0));
}

std::vector<OMRAPMI_WDSC *> Stepped_test::dispatch(const OMRALIB_INVOKE_PARAMS &params,
                                                   const std::vector<OMRA_OBJKEY> &keys) const {
    EXPECT_EQ(store::deliver(params, keys), OMRALIB_INVOKE_ACCEPTED);
    OMRAPMI_IDSC *pidsc = next_request();
    EXPECT_TRUE(Omrapmi_dispatcher(hdl, pidsc));
    std::vector<OMRAPMI_WDSC *> work;
    while (OMRAPMI_WDSC *pwdsc = next_work()) {
        EXPECT_EQ(pwdsc->pidsc, pidsc);
        work.push_back(pwdsc);
    }
    return work;
}

void Live_test::SetUp() {
    Module_test::SetUp();
    ASSERT_EQ(Omrapmi_worker_init_ext(4), 1);
    register_functions();
    sys::take_traces();
}

store::Completion Live_test::run(const OMRALIB_INVOKE_PARAMS &params,
                                 const std::vector<OMRA_OBJKEY> &keys) {
    EXPECT_EQ(store::deliver(params, keys), OMRALIB_INVOKE_ACCEPTED);
    const store::Completion completion = store::wait_complete(params.context);
    sys::wait_for("the descriptors", [] { return sys::free_descriptors() == sys::all_free; });
    return completion;
}

OMRALIB_INVOKE_PARAMS eval_request(unsigned int context, std::string_view params) {
    OMRALIB_INVOKE_PARAMS request = {};
    request.app_id = 7;
    request.invoke_op = user::eval_id;
    request.merge_op = user::merge_id;
    request.context = context;
    request.invoke_timeout = 30;
    request.svr_host_id = 0xABC;
    request.results_key = store::key(900);
    request.exceptions_key = store::key(901);
    request.immediate_params = 1;
    params_ext(request).event_app_id = 7;
    params_ext(request).immediate_params_len = static_cast<UCHAR>(params.size());
    std::memcpy(reinterpret_cast<char *>(&request.params_key) + 8, params.data(), params.size());
    return request;
}

OMRALIB_INVOKE_PARAMS stored_params_request(unsigned int context) {
    OMRALIB_INVOKE_PARAMS request = eval_request(context);
    request.immediate_params = 0;
    request.params_key = store::key(50);
    return request;
}

OMRALIB_INVOKE_PARAMS once_request(unsigned int context) {
    OMRALIB_INVOKE_PARAMS request = eval_request(context);
    request.app_id = MGTI_APPID_INVOKE_ONCE;
    request.invoke_op = user::once_id;
    return request;
}

OMRALIB_INVOKE_PARAMS merge_request(unsigned int context, ULONGLONG source) {
    OMRALIB_INVOKE_PARAMS request = stored_params_request(context);
    request.merge_request = 1;
    request.params_key = store::key(source);
    return request;
}

OMRAPMI_PARAMS_EXT &params_ext(OMRALIB_INVOKE_PARAMS &params) {
    return *reinterpret_cast<OMRAPMI_PARAMS_EXT *>(&params.params_key);
}

std::vector<OMRA_OBJKEY> put_objects(unsigned int num_objects) {
    std::vector<OMRA_OBJKEY> keys;
    for (unsigned int i = 0; i < num_objects; ++i) {
        keys.push_back(store::key(i));
        store::put(i, std::string(1, static_cast<char>(i)));
    }
    return keys;
}

std::vector<OMRAPMI_EXCEPTION> exceptions() {
    const std::string bytes = store::bytes(901);
    std::vector<OMRAPMI_EXCEPTION> records(
        bytes == "none" ? 0 : bytes.size() / sizeof(OMRAPMI_EXCEPTION));
    if (!records.empty()) {
        std::memcpy(records.data(), bytes.data(), records.size() * sizeof records[0]);
    }
    return records;
}

bool same_key(const OMRA_OBJKEY &a, const OMRA_OBJKEY &b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}
