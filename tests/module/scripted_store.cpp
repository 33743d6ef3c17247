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
    OMRALIB_INVOKE_EXT_CB invoke_cb = Omrapmi_invoke_ext_cb;
    std::map<unsigned int, Request> requests;
};
State &state = *new State;

constexpr int success = OMRALIB_RET_SUCCESS;

// The marked key of a reader names the same object.
OMRA_OBJKEY unmarked(OMRA_OBJKEY key) {
    key.app_id &= key.app_id >> 28 == 7 ? 0x0FFFFFFF : ~0u;
    return key;
}

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

std::optional<int> find_answer(const char *op, const OMRA_OBJKEY *pkey) {
    auto &answers = store::script.answers;
    for (auto it = answers.begin(); it != answers.end(); ++it) {
        if (std::strcmp(it->op, op) != 0 ||
            (it->number && (!pkey || pkey->obj_id.u64_comp[0] != *it->number))) {
            continue;
        }
        if (it->skip != 0) {
            it->skip -= 1;
            return std::nullopt;
        }
        const int result = it->result;
        answers.erase(it);
        return result;
    }
    return std::nullopt;
}

// One call: notes it, and gives the scripted answer or what `work` does under the lock.
template <typename Work>
int call(const char *op, const std::string &arguments, OMRALIB_HANDLE hdl, const OMRA_OBJKEY *pkey,
         Work work) {
    int result = success;
    sys::with_lock([&] {
        store::script.num_calls[op] += 1;
        if (op != std::string("init") && op != std::string("use_large_keys")) {
            state.log.append(state.log.empty() ? "" : "|").append(op);
            state.log.append(arguments.empty() ? "" : " ").append(arguments);
        }
        if (hdl != OMRALIB_NULL_HANDLE && state.handles.count(hdl) == 0) {
            fault(std::string("not an open handle: ") + op, 0);
        } else if (hdl != OMRALIB_NULL_HANDLE) {
            std::thread::id &owner = state.handles[hdl].owner;
            owner = owner == std::thread::id() ? std::this_thread::get_id() : owner;
            if (owner != std::this_thread::get_id()) {
                fault(std::string("the handle of another thread: ") + op, 0);
            }
        }
        const std::optional<int> answer = find_answer(op, pkey);
        result = answer ? *answer : work();
        if (answer && op == std::string("get_read_data")) {
            state.handles[hdl].pending.reset();
        }
    });
    return result;
}

// For the operations without a handle or without a key.
template <typename Work>
int call(const char *op, const std::string &arguments, Work work) {
    return call(op, arguments, OMRALIB_NULL_HANDLE, nullptr, work);
}
template <typename Work>
int call(const char *op, const std::string &arguments, OMRALIB_HANDLE hdl, Work work) {
    return call(op, arguments, hdl, nullptr, work);
}
template <typename Work>
int call(const char *op, const OMRA_OBJKEY &key, OMRALIB_HANDLE hdl, Work work) {
    return call(op, name_of(key), hdl, &key, work);
}

store::Object *find(const OMRA_OBJKEY &key) {
    auto found = store::script.objects.find(unmarked(key));
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

// Releases the lock of an object, with new bytes or without.
int release(const OMRA_OBJKEY &key, int lock_tkt, const std::string *pbytes) {
    store::Object *pobject = find(key);
    if (pobject == nullptr || lock_tkt == 0 || pobject->ticket != lock_tkt) {
        return fault("the lock is not held", OMRALIB_ERR_LOCK_LOST);
    }
    pobject->ticket = 0;
    pobject->bytes = pbytes ? *pbytes : pobject->bytes;
    return success;
}

int complete(unsigned int context, const store::Completion &completion) {
    auto found = state.requests.find(context);
    if (found == state.requests.end() || found->second.completion) {
        return fault("completed twice, or unknown", OMRALIB_ERR_BAD_ARGS);
    }
    found->second.completion = completion;
    return success;
}

} // namespace

namespace store {

Script &script = *new Script;

bool Key_less::operator()(const OMRA_OBJKEY &a, const OMRA_OBJKEY &b) const {
    return std::memcmp(&a, &b, sizeof a) < 0;
}

OMRA_OBJKEY key(ULONGLONG number, ULONG app_id) {
    OMRA_OBJKEY result = {};
    result.app_id = app_id;
    result.obj_id.u64_comp[0] = number;
    return result;
}

std::string bytes(ULONGLONG number) {
    std::string result;
    sys::with_lock([&] {
        const Object *pobject = find(key(number));
        result = pobject ? pobject->bytes : "none";
    });
    return result;
}

void put(ULONGLONG number, std::string_view bytes) {
    sys::with_lock([&] { script.objects[key(number)] = {std::string(bytes), 0, 0}; });
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
        for (const auto &[key, object] : script.objects) {
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
    const int result = state.invoke_cb(guid, &params);
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
    return call("init", "", [] { return success; });
}

void Omralib_use_large_keys(void) {
    call("use_large_keys", "", [] { return success; });
}

OMRALIB_HANDLE Omralib_open_ext(const char *pguid) {
    OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE;
    call("open_ext", pguid ? std::string(pguid, 6) : "", [&] {
        hdl = state.next_handle++;
        state.handles[hdl] = {};
        return success;
    });
    return hdl;
}

int Omralib_close(OMRALIB_HANDLE hdl) {
    const int result = call("close", "", hdl, [] { return success; });
    sys::with_lock([&] { state.handles.erase(hdl); });
    return result;
}

int Omralib_handle_ready(OMRALIB_HANDLE hdl) {
    return call("handle_ready", "",
                [&] { return state.handles.count(hdl) != 0 ? success : OMRALIB_ERR_BAD_HANDLE; });
}

unsigned int Omralib_get_host_addr(void) {
    call("get_host_addr", "", [] { return success; });
    return 0x0A000005;
}

int Omralib_register_cb(unsigned int cb_type, OMRALIB_CB cb) {
    return call("register_cb", std::to_string(cb_type), [&] {
        if (cb_type == OMRALIB_CB_INVOKE_EXT) {
            state.invoke_cb = cb.invoke_ext_cb;
        } else if (cb.event_ext_cb != Omrapmi_event_ext_cb) {
            return fault("not the event callback", OMRALIB_ERR_BAD_ARGS);
        }
        return success;
    });
}

int Omralib_register_appname_hdl(OMRALIB_HANDLE hdl, const char *name, unsigned int name_len,
                                 unsigned int *papp_id_out) {
    const std::string text(name, name_len);
    return call("register_appname_hdl", text, hdl, [&] {
        *papp_id_out = text == "__OMRA_appname_invoke_once" ? MGTI_APPID_INVOKE_ONCE
                                                            : MGTI_APPID_SYSTEM_BACKREST;
        return success;
    });
}

int Omralib_start_app_event_handling(OMRALIB_HANDLE hdl, unsigned int event_app_id) {
    return call("start", std::to_string(event_app_id), hdl, [] { return success; });
}

int Omralib_stop_app_event_handling(OMRALIB_HANDLE hdl, unsigned int event_app_id) {
    return call("stop", std::to_string(event_app_id), hdl, [] { return success; });
}

int Omralib_store_obj(OMRALIB_HANDLE hdl, unsigned int, const void *pdata, unsigned int data_len,
                      unsigned int timeout_m, OMRA_OBJKEY key) {
    const store::Object object = {{static_cast<const char *>(pdata), data_len}, timeout_m, 0};
    sys::with_lock([&] { store::script.stored.emplace_back(key, object); });
    return call("store_obj", key, hdl, [&] {
        const bool created = store::script.objects.emplace(key, object).second;
        return created ? success : OMRALIB_ERR_OBJ_EXISTS;
    });
}

int Omralib_read_obj(OMRALIB_HANDLE hdl, unsigned int, unsigned int *pdata_len_out,
                     OMRA_OBJKEY key) {
    return call("read_obj", key, hdl, [&] {
        const store::Object *pobject = find(key);
        return pobject ? begin_read(hdl, *pobject, pdata_len_out) : OMRALIB_ERR_OBJ_NOT_FOUND;
    });
}

int Omralib_get_read_data(OMRALIB_HANDLE hdl, void *pbuf, unsigned int len) {
    return call("get_read_data", std::to_string(len), hdl, [&] {
        std::optional<std::string> &pending = state.handles[hdl].pending;
        if (!pending || len != pending->size()) {
            return pending ? fault("wrong length", OMRALIB_ERR_BAD_ARGS)
                           : fault("nothing pending", OMRALIB_ERR_NOT_READING);
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
    return call("read_and_lock_obj", key, hdl, [&]() -> int {
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
    return call("update_locked_obj", key, hdl,
                [&] { return release(key, unlock == 1 ? lock_tkt : 0, &bytes); });
}

int Omralib_unlock_obj(OMRALIB_HANDLE hdl, int lock_tkt, unsigned int, OMRA_OBJKEY key) {
    return call("unlock_obj", key, hdl, [&] { return release(key, lock_tkt, nullptr); });
}

int Omralib_remove_obj(OMRALIB_HANDLE hdl, unsigned int, OMRA_OBJKEY key) {
    return call("remove_obj", key, hdl, [&] {
        return store::script.objects.erase(key) != 0 ? success : OMRALIB_ERR_OBJ_NOT_FOUND;
    });
}

int Omralib_invoke(OMRALIB_HANDLE hdl, unsigned int, const void *preq, unsigned int req_len,
                   unsigned int *presult_len_out) {
    const int answer = call("invoke", std::to_string(req_len), hdl, [] { return success; });
    if (answer != success) {
        return answer;
    }
    std::string reply;
    const int result = store::script.on_invoke({static_cast<const char *>(preq), req_len}, reply);
    sys::with_lock([&] { state.handles[hdl].pending = reply; });
    *presult_len_out = static_cast<unsigned int>(reply.size());
    return result;
}

int Omralib_get_invoke_keys(unsigned int context, OMRA_OBJKEY *pkeys, unsigned int num_keys) {
    return call("get_invoke_keys", std::to_string(context), [&] {
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
    return call("flush_invoke", std::to_string(context), [&] {
        return complete(context, {0, 0, true});
    });
}
