#include "doubles.h"

#include "pmicli.h"

#include <algorithm>
#include <cstring>

namespace {

struct Handle {
    std::optional<std::string> pending;
    std::thread::id owner; // the thread that used it first
};

struct Request {
    std::vector<OMRA_OBJKEY> keys;
    std::optional<store::Completion> completion;
};

// Guarded by the lock of both doubles, as store::script is.
struct State {
    std::map<OMRALIB_HANDLE, Handle> handles;
    OMRALIB_HANDLE next_handle = 1;
    int next_ticket = 1; // a ticket can equal OMRALIB_RET_SUCCESS
    std::string log, faults;
    std::map<unsigned int, Request> requests;
};
State &state = *new State;

constexpr int success = OMRALIB_RET_SUCCESS;

std::string name_of(const OMRA_OBJKEY &key) {
    if (key.app_id == 0x30000000) {
        return "params";
    }
    return (key.app_id != 7 ? std::to_string(key.app_id) + "/" : "") +
           std::to_string(key.obj_id.u64_comp[0]);
}

int fault(const std::string &text, int result) {
    state.faults += text + "|";
    return result;
}

std::optional<int> find_answer(const std::string &op, const std::string &about) {
    auto &answers = store::script.answers;
    for (auto it = answers.begin(); it != answers.end(); ++it) {
        if (it->op == op && (it->about.empty() || it->about == about)) {
            const int result = it->result;
            answers.erase(it);
            return result;
        }
    }
    return std::nullopt;
}

void check_handle(OMRALIB_HANDLE hdl) {
    Handle &handle = state.handles[hdl];
    if (handle.owner == std::thread::id()) {
        handle.owner = std::this_thread::get_id();
    }
    if (hdl >= state.next_handle || handle.owner != std::this_thread::get_id()) {
        fault("not this thread's open handle", 0);
    }
}

// One call: notes it, and gives the scripted answer or what `work` does under the lock.
int call(const std::string &op, const std::string &about, OMRALIB_HANDLE hdl,
         const std::function<int()> &work) {
    int result = success;
    sys::with_lock([&] {
        store::script.num_calls[op] += 1;
        if (op != "init" && op != "use_large_keys") {
            state.log.append(state.log.empty() ? "" : "|").append(op);
            state.log.append(about.empty() ? "" : " ").append(about);
        }
        if (hdl != OMRALIB_NULL_HANDLE) {
            check_handle(hdl);
        }
        const std::optional<int> answer = find_answer(op, about);
        result = answer ? *answer : work();
        if (answer && op == "get_read_data") {
            state.handles[hdl].pending.reset();
        }
    });
    return result;
}

int call(const std::string &op, const std::string &about = {},
         OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE) {
    return call(op, about, hdl, [] { return success; });
}

// The marked key of a reader names the same object.
store::Object *find(OMRA_OBJKEY key) {
    key.app_id &= key.app_id >> 28 == 7 ? 0x0FFFFFFF : ~0u;
    const auto found = store::script.objects.find(name_of(key));
    return found != store::script.objects.end() ? &found->second : nullptr;
}

int begin_read(OMRALIB_HANDLE hdl, const store::Object &object, unsigned int *plen_out) {
    if (state.handles[hdl].pending) {
        return fault("a read while one is pending", OMRALIB_ERR_OBJ_READING);
    }
    if (!object.bytes.empty()) {
        state.handles[hdl].pending = object.bytes;
    }
    *plen_out = static_cast<unsigned int>(object.bytes.size());
    return success;
}

// Releases the lock of an object, with new bytes.
int release(const OMRA_OBJKEY &key, int lock_tkt, const std::string &bytes) {
    store::Object *pobject = find(key);
    if (pobject == nullptr || lock_tkt == 0 || pobject->ticket != lock_tkt) {
        return fault("the lock is not held", OMRALIB_ERR_LOCK_LOST);
    }
    *pobject = {bytes, pobject->timeout_m, 0};
    return success;
}

int complete(unsigned int context, const store::Completion &completion) {
    const auto found = state.requests.find(context);
    if (found == state.requests.end() || found->second.completion) {
        return fault("completed twice, or unknown", OMRALIB_ERR_BAD_ARGS);
    }
    found->second.completion = completion;
    store::script.on_complete();
    return success;
}

} // namespace

namespace store {

Script &script = *new Script;

OMRA_OBJKEY key(ULONGLONG number, ULONG app_id) {
    OMRA_OBJKEY result = {};
    result.app_id = app_id;
    result.obj_id.u64_comp[0] = number;
    return result;
}

std::string bytes(ULONGLONG number) {
    std::string result = "none";
    sys::with_lock([&] {
        if (const Object *pobject = find(key(number))) {
            result = pobject->bytes;
        }
    });
    return result;
}

void put(ULONGLONG number, std::string_view bytes) {
    sys::with_lock([&] { script.objects[std::to_string(number)] = {std::string(bytes), 0, 0}; });
}

std::string take_log() {
    std::string result;
    sys::with_lock([&] { result = std::exchange(state.log, {}); });
    return result;
}

std::string faults() {
    std::string result;
    sys::with_lock([&] {
        result = state.faults;
        for (const auto &[hdl, handle] : state.handles) {
            result += handle.pending ? "a read left pending|" : "";
        }
        for (const auto &[name, object] : script.objects) {
            result += object.ticket != 0 && object.ticket != elsewhere ? "a lock left held|" : "";
        }
        result += state.requests.empty() ? "" : "a request left open|";
    });
    return result;
}

int deliver(OMRALIB_INVOKE_PARAMS params, const std::vector<OMRA_OBJKEY> &keys) {
    char guid[OMRALIB_GUID_LEN] = "pmicli";
    params.num_keys = static_cast<int>(keys.size());
    sys::with_lock([&] { state.requests[params.context] = {keys, std::nullopt}; });
    const int result = Omrapmi_invoke_ext_cb(guid, &params);
    if (result != OMRALIB_INVOKE_ACCEPTED) {
        sys::with_lock([&] { state.requests.erase(params.context); });
    }
    std::memset(&params, 0xEE, sizeof params); // the module must have made its own copy
    return result;
}

Completion wait_complete(unsigned int context) {
    Completion result = {};
    sys::wait_for("a completion", [&] {
        const auto found = state.requests.find(context);
        if (found == state.requests.end() || !found->second.completion) {
            return false;
        }
        result = *found->second.completion;
        state.requests.erase(found);
        return true;
    });
    return result;
}

} // namespace store

int Omralib_init(void) {
    return call("init");
}

void Omralib_use_large_keys(void) {
    call("use_large_keys");
}

OMRALIB_HANDLE Omralib_open_ext(const char *pguid) {
    const auto open = [] {
        state.handles[state.next_handle] = {};
        return static_cast<int>(state.next_handle++);
    };
    return static_cast<OMRALIB_HANDLE>(
        call("open_ext", pguid ? std::string(pguid, 6) : "", OMRALIB_NULL_HANDLE, open));
}

int Omralib_close(OMRALIB_HANDLE hdl) {
    return call("close", "", hdl);
}

int Omralib_handle_ready(OMRALIB_HANDLE hdl) {
    return call("handle_ready", "", OMRALIB_NULL_HANDLE,
                [&] { return state.handles.count(hdl) != 0 ? success : OMRALIB_ERR_BAD_HANDLE; });
}

unsigned int Omralib_get_host_addr(void) {
    return 0x0A000005;
}

int Omralib_register_cb(unsigned int cb_type, OMRALIB_CB cb) {
    return call("register_cb", std::to_string(cb_type), OMRALIB_NULL_HANDLE, [&] {
        const bool is_right = cb_type == OMRALIB_CB_INVOKE_EXT
                                  ? cb.invoke_ext_cb == Omrapmi_invoke_ext_cb
                                  : cb.event_ext_cb == Omrapmi_event_ext_cb;
        return is_right ? success : fault("not the callback", OMRALIB_ERR_BAD_ARGS);
    });
}

int Omralib_register_appname_hdl(OMRALIB_HANDLE hdl, const char *name, unsigned int name_len,
                                 unsigned int *papp_id_out) {
    const std::string text(name, name_len);
    *papp_id_out =
        text == "__OMRA_appname_invoke_once" ? MGTI_APPID_INVOKE_ONCE : MGTI_APPID_SYSTEM_BACKREST;
    return call("register_appname_hdl", text, hdl);
}

int Omralib_start_app_event_handling(OMRALIB_HANDLE hdl, unsigned int event_app_id) {
    return call("start", std::to_string(event_app_id), hdl);
}

int Omralib_stop_app_event_handling(OMRALIB_HANDLE hdl, unsigned int event_app_id) {
    return call("stop", std::to_string(event_app_id), hdl);
}

int Omralib_store_obj(OMRALIB_HANDLE hdl, unsigned int, const void *pdata, unsigned int data_len,
                      unsigned int timeout_m, OMRA_OBJKEY key) {
    const store::Object object = {{static_cast<const char *>(pdata), data_len}, timeout_m, 0};
    sys::with_lock([&] { store::script.stored.emplace_back(key, object); });
    return call("store_obj", name_of(key), hdl, [&] {
        const bool created = store::script.objects.emplace(name_of(key), object).second;
        return created ? success : OMRALIB_ERR_OBJ_EXISTS;
    });
}

int Omralib_read_obj(OMRALIB_HANDLE hdl, unsigned int, unsigned int *pdata_len_out,
                     OMRA_OBJKEY key) {
    return call("read_obj", name_of(key), hdl, [&] {
        const store::Object *pobject = find(key);
        return pobject ? begin_read(hdl, *pobject, pdata_len_out) : OMRALIB_ERR_OBJ_NOT_FOUND;
    });
}

int Omralib_get_read_data(OMRALIB_HANDLE hdl, void *pbuf, unsigned int len) {
    return call("get_read_data", std::to_string(len), hdl, [&] {
        std::optional<std::string> &pending = state.handles[hdl].pending;
        if (!pending || len != pending->size()) {
            return fault("not the pending length", OMRALIB_ERR_BAD_ARGS);
        }
        std::memcpy(pbuf, pending->data(), len);
        pending.reset();
        return success;
    });
}

int Omralib_flush_read_data(OMRALIB_HANDLE hdl) {
    return call("flush_read_data", "", hdl, [&] {
        const bool pending = std::exchange(state.handles[hdl].pending, std::nullopt).has_value();
        return pending ? success : fault("nothing to flush", OMRALIB_ERR_NOT_READING);
    });
}

int Omralib_read_and_lock_obj(OMRALIB_HANDLE hdl, unsigned int, unsigned int,
                              unsigned int *pdata_len_out, OMRA_OBJKEY key) {
    return call("read_and_lock_obj", name_of(key), hdl, [&]() -> int {
        store::Object *pobject = find(key);
        if (pobject == nullptr || pobject->ticket != 0) {
            return pobject ? OMRALIB_ERR_OBJ_LOCKED : OMRALIB_ERR_OBJ_NOT_FOUND;
        }
        const int result = begin_read(hdl, *pobject, pdata_len_out);
        return result == success ? pobject->ticket = state.next_ticket++ : result;
    });
}

int Omralib_update_locked_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int unlock, unsigned int,
                              const void *pdata, unsigned int data_len, OMRA_OBJKEY key) {
    const std::string bytes(static_cast<const char *>(pdata), data_len);
    return call("update_locked_obj", name_of(key), hdl,
                [&] { return release(key, unlock == 1 ? lock_tkt : 0, bytes); });
}

int Omralib_unlock_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int, OMRA_OBJKEY key) {
    return call("unlock_obj", name_of(key), hdl,
                [&] { return release(key, lock_tkt, find(key)->bytes); });
}

int Omralib_remove_obj(OMRALIB_HANDLE hdl, unsigned int, OMRA_OBJKEY key) {
    return call("remove_obj", name_of(key), hdl, [&] {
        return store::script.objects.erase(name_of(key)) != 0 ? success : OMRALIB_ERR_OBJ_NOT_FOUND;
    });
}

int Omralib_invoke(OMRALIB_HANDLE hdl, unsigned int, const void *preq, unsigned int req_len,
                   unsigned int *presult_len_out) {
    return call("invoke", std::to_string(req_len), hdl, [&] {
        std::string &reply = state.handles[hdl].pending.emplace();
        const int result =
            store::script.on_invoke({static_cast<const char *>(preq), req_len}, reply);
        *presult_len_out = static_cast<unsigned int>(reply.size());
        return result;
    });
}

int Omralib_get_invoke_keys(unsigned int context, OMRA_OBJKEY *pkeys, unsigned int num_keys) {
    return call("get_invoke_keys", std::to_string(context), OMRALIB_NULL_HANDLE, [&] {
        const std::vector<OMRA_OBJKEY> &keys = state.requests.at(context).keys;
        if (keys.size() != num_keys) {
            return fault("wrong number of keys", OMRALIB_ERR_BAD_ARGS);
        }
        std::copy(keys.begin(), keys.end(), pkeys);
        return success;
    });
}

int Omralib_complete_invoke(OMRALIB_HANDLE hdl, unsigned int context, unsigned int num_successful,
                            unsigned int num_failed) {
    return call("complete_invoke", std::to_string(context), hdl, [&] {
        return complete(context, {num_successful, num_failed});
    });
}

int Omralib_flush_invoke(unsigned int context) {
    return call("flush_invoke", std::to_string(context), OMRALIB_NULL_HANDLE, [&] {
        return complete(context, {0, 0, true});
    });
}
