/* The object side of the store against a model of it: random sequences of operations must answer as
 * a std::map of objects does.
 *
 * A failure prints the shortest sequence that was found to fail and the string that replays it:
 *   RC_PARAMS="reproduce=..." or RC_PARAMS="seed=..." test_store --gtest_filter='*Model*' */
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <ostream>
#include <semaphore>
#include <set>

#include <rapidcheck.h>

#include "store_test.h"

namespace {

using store::Key;
using store::Millis;
using store::millis_per_minute;
using store::millis_per_second;

constexpr unsigned int num_objects = 10; /* in two app ids */
constexpr unsigned int num_handles = 3;
constexpr unsigned int num_values = 3; /* of each of the two indexes */
constexpr int no_ticket = INT32_MAX;   /* that no lock of a run can have */
constexpr Millis lease = 60 * millis_per_second;

/* One operation; every number counts modulo what it chooses from. */
struct Command {
    unsigned int op;
    unsigned int object;
    unsigned int handle;
    unsigned int detail;
};

struct ModelObject {
    std::string bytes;
    unsigned int timeout_m = 0;
    std::vector<OMRA_OBJ_INDEX> values;
    Millis expires_at = store::never;
    int ticket = 0;
    Millis locked_until = 0; /* `never` while an open handle holds the lock */
};

struct ModelHandle {
    OMRALIB_HANDLE hdl = OMRALIB_NULL_HANDLE;
    std::optional<std::string> pending;
    std::vector<std::pair<Key, int>> locks;
};

/* A store and its model, driven together. */
class ModelRun : public StoreTest {
public:
    struct Operation {
        const char *name;
        void (ModelRun::*carry_out)();
    };
    static const std::vector<Operation> operations;

    explicit ModelRun(std::uint64_t memory_limit)
        : StoreTest(configured(memory_limit)), limit_(memory_limit) {
        OMRALIB_CB cb;
        cb.event_ext_cb = [](OMRA_OBJKEY, const char *, unsigned int) {
            events->release();
            return OMRALIB_EVENT_NOT_HANDLED;
        };
        events.emplace(0);
        Omralib_register_cb(OMRALIB_CB_EVENT_EXT, cb);
        Omralib_start_app_event_handling(hdl_, 1);
        for (ModelHandle &handle : handles_) {
            handle.hdl = Omralib_open_ext(nullptr);
        }
    }

    void execute(const Command &command) {
        handle_ = &handles_[command.handle];
        detail_ = command.detail;
        number_ = command.object;
        choose(some_key(0));
        (this->*operations[command.op].carry_out)();
        RC_ASSERT(Omralib_handle_ready(handle_->hdl) ==
                  (handle_->pending ? OMRALIB_ERR_OBJ_READING : OMRALIB_RET_SUCCESS));
    }

    /* Every object that had to expire goes, once, and those who have to hear of it do, whether or
     * not anybody uses the store. */
    void finish() {
        clock_.advance(4 * millis_per_minute);
        let_expire();
        for (unsigned int i = 0; i < num_events_; ++i) {
            RC_ASSERT(events->try_acquire_for(std::chrono::seconds(60)));
        }
        list();
        store_.cluster().detach();
        RC_ASSERT(!events->try_acquire());
        OMRALIB_STATS stats;
        RC_ASSERT(OMRALIB_RET_SUCCESS == Omralib_get_stats(&stats));
        RC_ASSERT(stats.num_expired == num_expired_);
    }

private:
    static store::Configuration configured(std::uint64_t memory_limit) {
        store::Configuration configuration;
        configuration.memory_limit = memory_limit;
        return configuration;
    }

    void TestBody() override {}

    /* The object of the command, or one of those after it. */
    Key some_key(unsigned int distance) const {
        const unsigned int number = (number_ + distance) % num_objects;
        return make_key(1 + number % 2, number);
    }

    static std::string text_of(store::Bytes bytes) {
        return {reinterpret_cast<const char *>(bytes.data()), bytes.size()};
    }

    void choose(const Key &key) {
        key_ = key;
        const auto found = objects_.find(key_);
        object_ = found == objects_.end() ? nullptr : &found->second;
    }

    /* As storapp.h says what counts. */
    static std::uint64_t cost_of(std::size_t length, std::size_t num_index_values) {
        return length + 128 + 128 * num_index_values;
    }

    std::uint64_t cost() const {
        std::uint64_t sum = 0;
        for (const auto &[key, object] : objects_) {
            sum += cost_of(object.bytes.size(), object.values.size());
        }
        return sum;
    }

    bool fits(std::size_t length, std::size_t num_index_values) const {
        const std::uint64_t old =
            object_ ? cost_of(object_->bytes.size(), object_->values.size()) : 0;
        const std::uint64_t fresh = cost_of(length, num_index_values);
        return fresh <= old || limit_ == store::no_memory_limit || cost() - old + fresh <= limit_;
    }

    bool is_locked() const { return object_->ticket != 0 && clock_.now() < object_->locked_until; }

    std::string some_bytes() {
        const unsigned int length = detail_ % 5 == 0 ? 0 : detail_ % 300;
        return length == 0 ? "" : std::string(length, 'x') + std::to_string(++serial_);
    }

    std::vector<OMRA_OBJ_INDEX> some_values() const {
        std::vector<OMRA_OBJ_INDEX> values;
        for (USHORT index = 0; index < 2; ++index) {
            if ((detail_ >> index & 1) != 0) {
                values.push_back(make_index(index, (detail_ >> 2) % num_values));
            }
        }
        return values;
    }

    bool renews() const { return detail_ % 2 == 0; }
    Key given_key() const { return renews() ? key_ : marked(key_); }

    void use(bool renew) {
        if (renew && object_->timeout_m != 0) {
            object_->expires_at = clock_.now() + object_->timeout_m * millis_per_minute;
        }
    }

    /* What storing or replacing leaves. */
    void put(ModelObject fresh) {
        objects_[key_] = std::move(fresh);
        object_ = &objects_[key_];
        use(true);
    }

    template <typename Operation>
    void put_by(Operation operation, int expected) {
        ModelObject fresh;
        fresh.bytes = some_bytes();
        fresh.timeout_m = (detail_ >> 4) % 4;
        fresh.values = some_values();
        if (expected == OMRALIB_RET_SUCCESS && !fits(fresh.bytes.size(), fresh.values.size())) {
            expected = OMRALIB_ERR_NO_SPACE;
        }
        RC_ASSERT(expected == operation(handle_->hdl, fresh.bytes.data(),
                                        static_cast<unsigned int>(fresh.bytes.size()),
                                        fresh.timeout_m, fresh.values.data(),
                                        static_cast<unsigned int>(fresh.values.size()),
                                        given_key()));
        if (expected == OMRALIB_RET_SUCCESS) {
            put(std::move(fresh));
        }
    }

    void store_object() {
        put_by(Omralib_store_indexed_obj, object_ ? OMRALIB_ERR_OBJ_EXISTS : OMRALIB_RET_SUCCESS);
    }

    void replace() {
        put_by(Omralib_replace_obj, !object_      ? OMRALIB_ERR_OBJ_NOT_FOUND
                                    : is_locked() ? OMRALIB_ERR_OBJ_LOCKED
                                                  : OMRALIB_RET_SUCCESS);
    }

    /* What a read that has succeeded leaves. */
    void note_read(unsigned int len) {
        RC_ASSERT(len == object_->bytes.size());
        if (len != 0) {
            handle_->pending = object_->bytes;
        }
        use(renews());
    }

    void read() {
        unsigned int len = ~0u;
        const int expected = handle_->pending ? OMRALIB_ERR_OBJ_READING
                             : object_        ? OMRALIB_RET_SUCCESS
                                              : OMRALIB_ERR_OBJ_NOT_FOUND;
        RC_ASSERT(expected == Omralib_read_obj(handle_->hdl, 0, &len, given_key()));
        if (expected == OMRALIB_RET_SUCCESS) {
            note_read(len);
        }
    }

    void fetch_pending() {
        if (!handle_->pending) {
            RC_ASSERT(OMRALIB_ERR_NOT_READING == Omralib_flush_read_data(handle_->hdl));
            return;
        }
        const auto len = static_cast<unsigned int>(handle_->pending->size());
        RC_ASSERT(fetch(handle_->hdl, len) == *handle_->pending);
        handle_->pending.reset();
    }

    /* What a lock answers, and what it leaves. */
    bool note_lock(int ticket, Millis until) {
        if (!object_ || is_locked()) {
            RC_ASSERT(ticket == (object_ ? OMRALIB_ERR_OBJ_LOCKED : OMRALIB_ERR_OBJ_NOT_FOUND));
            return false;
        }
        RC_ASSERT(ticket > 0);
        RC_ASSERT(tickets_.insert(ticket).second);
        object_->ticket = ticket;
        object_->locked_until = until;
        return true;
    }

    void lock() {
        unsigned int len = ~0u;
        const int ticket = Omralib_read_and_lock_obj(handle_->hdl, 0, 0, &len, given_key());
        if (handle_->pending) {
            RC_ASSERT(OMRALIB_ERR_OBJ_READING == ticket);
        } else if (note_lock(ticket, store::never)) {
            handle_->locks.emplace_back(key_, ticket);
            note_read(len);
        }
    }

    /* What an operation under a lock has to answer. */
    int expect_lock(int ticket) const {
        return !object_                                    ? OMRALIB_ERR_OBJ_NOT_FOUND
               : object_->ticket != ticket || !is_locked() ? OMRALIB_ERR_LOCK_LOST
                                                           : OMRALIB_RET_SUCCESS;
    }

    /* Mostly that of one of the handle's locks; else one that is worth nothing: its own of another
     * object, another handle's, or nobody's. */
    int choose_ticket() {
        const auto &locks = handles_[detail_ % 8 == 7 ? 0 : handle_ - handles_].locks;
        if (locks.empty()) {
            return no_ticket;
        }
        const auto [key, ticket] = locks[detail_ % locks.size()];
        choose(detail_ % 8 == 6 ? key_ : key);
        return ticket;
    }

    auto find_lock(int ticket) {
        return std::ranges::find_if(handle_->locks, [&](const auto &held) {
            return held.second == ticket && store::order_of(held.first, key_) == 0;
        });
    }

    int expect_held(int ticket) {
        return find_lock(ticket) != handle_->locks.end() ? expect_lock(ticket)
                                                         : OMRALIB_ERR_LOCK_LOST;
    }

    void note_unlocked(int ticket, int status) {
        if (status == OMRALIB_RET_SUCCESS) {
            object_->ticket = 0;
        }
        if (const auto held = find_lock(ticket); held != handle_->locks.end()) {
            handle_->locks.erase(held);
        }
    }

    void update_locked() {
        const int ticket = choose_ticket();
        const bool unlocking = detail_ % 3 != 0;
        const std::string data = some_bytes();
        int expected = expect_held(ticket);
        if (expected == OMRALIB_RET_SUCCESS && !fits(data.size(), object_->values.size())) {
            expected = OMRALIB_ERR_NO_SPACE;
        }
        RC_ASSERT(expected == update(handle_->hdl, given_key(), ticket, data, unlocking));
        if (expected == OMRALIB_RET_SUCCESS) {
            object_->bytes = data;
            use(renews());
        }
        if (expected != OMRALIB_ERR_NO_SPACE && (unlocking || expected != OMRALIB_RET_SUCCESS)) {
            note_unlocked(ticket, expected);
        }
    }

    void unlock() {
        const int ticket = choose_ticket();
        const int expected = expect_held(ticket);
        RC_ASSERT(expected == Omralib_unlock_obj(handle_->hdl, ticket, 0, given_key()));
        note_unlocked(ticket, expected);
    }

    /* Other hosts and the invocation: what only the engine sees -------------------------------- */

    /* Locks, and renews no lease. */
    void lock_and_die() {
        store::Content content;
        int ticket = 0;
        const int status = objects().read_and_lock(key_, renews(), 0, ticket, content);
        if (note_lock(status == OMRALIB_RET_SUCCESS ? ticket : status, clock_.now() + lease)) {
            RC_ASSERT(text_of(content.bytes()) == object_->bytes);
            dead_ = {key_, ticket};
            use(renews());
        }
    }

    /* Its ticket is good as long as its lease, and as the object. */
    void use_dead_ticket() {
        choose(dead_.first);
        const int ticket = dead_.second;
        const int expected = expect_lock(ticket);
        const bool renewing = detail_ % 3 == 2;
        if (renewing && object_ && object_->ticket == ticket && !is_locked() && ticket != 0) {
            return; /* whether a lease that is over comes back is the engine's matter */
        }
        RC_ASSERT(expected == (renewing           ? objects().renew_lock(key_, ticket)
                               : detail_ % 3 == 1 ? objects().update(key_, ticket, true, false, {})
                                                  : objects().unlock(key_, ticket)));
        if (expected == OMRALIB_RET_SUCCESS && renewing) {
            object_->locked_until = clock_.now() + lease;
        } else if (expected == OMRALIB_RET_SUCCESS) {
            object_->ticket = 0;
            object_->bytes.resize(detail_ % 3 == 1 ? 0 : object_->bytes.size());
        }
    }

    void touch() {
        const int expected = object_ ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_OBJ_NOT_FOUND;
        RC_ASSERT(expected == objects().exists(key_) && expected == objects().touch(key_));
        if (object_) {
            use(true);
        }
    }

    void copy() {
        ModelObject *const source = object_;
        const Key from = key_;
        choose(some_key(1));
        if (!source && object_) {
            return; /* either is wrong */
        }
        const unsigned int timeout_m = (detail_ >> 4) % 4;
        const int expected = !source                          ? OMRALIB_ERR_OBJ_NOT_FOUND
                             : object_                        ? OMRALIB_ERR_OBJ_EXISTS
                             : !fits(source->bytes.size(), 0) ? OMRALIB_ERR_NO_SPACE
                                                              : OMRALIB_RET_SUCCESS;
        RC_ASSERT(expected == objects().copy(from, key_, timeout_m));
        if (expected == OMRALIB_RET_SUCCESS) {
            put({source->bytes, timeout_m, {}});
            choose(from);
            use(true);
        }
    }

    /* What becomes of each when there is not room for all is the engine's choice. */
    void create_many() {
        std::vector<store::NewObject> fresh;
        const std::string bytes = some_bytes();
        for (unsigned int i = 0; i < 3; ++i) {
            fresh.push_back({some_key(i), {std::as_bytes(std::span(bytes)), detail_ % 3, {}}});
        }
        store::Status statuses[3];
        const store::Status status = objects().create_many(fresh, statuses);
        bool all = true;
        for (unsigned int i = 0; i < 3; ++i) {
            choose(fresh[i].key);
            const bool may_be_full = !object_ && limit_ != store::no_memory_limit;
            RC_ASSERT(statuses[i] == (object_ ? OMRALIB_ERR_OBJ_EXISTS
                                      : may_be_full && statuses[i] != OMRALIB_RET_SUCCESS
                                          ? OMRALIB_ERR_NO_SPACE
                                          : OMRALIB_RET_SUCCESS));
            if (statuses[i] == OMRALIB_RET_SUCCESS) {
                RC_ASSERT(fits(bytes.size(), 0));
                put({bytes, detail_ % 3, {}});
            }
            all = all && statuses[i] == OMRALIB_RET_SUCCESS;
        }
        RC_ASSERT((status == OMRALIB_RET_SUCCESS) == all);
    }

    void remove_many() {
        const Key keys[] = {some_key(0), some_key(1), some_key(2)};
        store::Status statuses[3];
        objects().remove_many(keys, statuses);
        for (unsigned int i = 0; i < 3; ++i) {
            choose(keys[i]);
            RC_ASSERT(statuses[i] == (object_ ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_OBJ_NOT_FOUND));
            objects_.erase(keys[i]);
        }
    }

    void remove() {
        RC_ASSERT((object_ ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_OBJ_NOT_FOUND) ==
                  Omralib_remove_obj(handle_->hdl, 0, given_key()));
        objects_.erase(key_);
    }

    void find() {
        const auto index = static_cast<USHORT>(detail_ % 2);
        const unsigned int value = (detail_ >> 1) % num_values;
        check_keys(find_value(key_.app_id, index, value),
                   [&](const Key &key, const ModelObject &object) {
                       return key.app_id == key_.app_id &&
                              std::ranges::any_of(object.values, [&](const OMRA_OBJ_INDEX &its) {
                                  return its.index == index && its.value.u64_comp[0] == value;
                              });
                   });
    }

    template <typename Matches>
    void check_keys(const std::vector<Key> &keys, Matches matches) {
        std::vector<Key> expected;
        for (const auto &[key, object] : objects_) {
            if (matches(key, object)) {
                expected.push_back(key);
            }
        }
        RC_ASSERT(
            std::equal(keys.begin(), keys.end(), expected.begin(), expected.end(),
                       [](const Key &a, const Key &b) { return store::order_of(a, b) == 0; }));
    }

    void list() {
        std::vector<Key> keys;
        const auto append = [](const OMRA_OBJKEY *pkey, void *parg) {
            static_cast<std::vector<Key> *>(parg)->push_back(*pkey);
            return 0;
        };
        RC_ASSERT(OMRALIB_RET_SUCCESS ==
                  Omralib_list_objs(hdl_, OMRALIB_ALL_APP_IDS, append, &keys));
        check_keys(keys, [](const Key &, const ModelObject &) { return true; });
        OMRALIB_STATS stats;
        OMRALIB_APP_STATS app_stats;
        RC_ASSERT(OMRALIB_RET_SUCCESS == Omralib_get_stats(&stats));
        RC_ASSERT(OMRALIB_RET_SUCCESS == Omralib_get_app_stats(1, &app_stats));
        for (const auto &[key, object] : objects_) {
            stats.num_bytes -= object.bytes.size();
            app_stats.num_bytes -= key.app_id == 1 ? object.bytes.size() : 0;
            app_stats.num_objects -= key.app_id == 1 ? 1 : 0;
        }
        RC_ASSERT(stats.num_objects == objects_.size() && stats.num_bytes == 0);
        RC_ASSERT(app_stats.num_objects == 0 && app_stats.num_bytes == 0);
    }

    void close() {
        RC_ASSERT(OMRALIB_RET_SUCCESS == Omralib_close(handle_->hdl));
        for (const auto &[key, ticket] : handle_->locks) {
            const auto found = objects_.find(key);
            if (found != objects_.end() && found->second.ticket == ticket) {
                found->second.ticket = 0;
            }
        }
        *handle_ = {};
        handle_->hdl = Omralib_open_ext(nullptr);
    }

    void let_expire() {
        std::erase_if(objects_, [&](const auto &entry) {
            const bool expired = entry.second.expires_at <= clock_.now();
            num_expired_ += expired;
            num_events_ += expired && entry.first.app_id == 1;
            return expired;
        });
    }

    void turn_clock() {
        clock_.advance(static_cast<Millis>(detail_ % 80) * millis_per_second);
        let_expire();
        if (limit_ != store::no_memory_limit) {
            list(); /* until then it is the sweeper's matter when there is room again */
        }
    }

    static inline std::optional<std::counting_semaphore<>> events;

    const std::uint64_t limit_;
    std::map<Key, ModelObject, store::KeyLess> objects_;
    ModelHandle handles_[num_handles];
    std::set<int> tickets_;
    std::pair<Key, int> dead_{make_key(1, 1), 0};
    unsigned int serial_ = 0;
    unsigned int num_expired_ = 0;
    unsigned int num_events_ = 0;

    /* Of the command that is executed. */
    Key key_{};
    ModelHandle *handle_ = nullptr;
    ModelObject *object_ = nullptr;
    unsigned int number_ = 0;
    unsigned int detail_ = 0;
};

const std::vector<ModelRun::Operation> ModelRun::operations = {
    {"store", &ModelRun::store_object},
    {"replace", &ModelRun::replace},
    {"read", &ModelRun::read},
    {"fetch", &ModelRun::fetch_pending},
    {"lock", &ModelRun::lock},
    {"lock and die", &ModelRun::lock_and_die},
    {"use the dead's ticket", &ModelRun::use_dead_ticket},
    {"update", &ModelRun::update_locked},
    {"unlock", &ModelRun::unlock},
    {"remove", &ModelRun::remove},
    {"touch", &ModelRun::touch},
    {"copy", &ModelRun::copy},
    {"create many", &ModelRun::create_many},
    {"remove many", &ModelRun::remove_many},
    {"find", &ModelRun::find},
    {"list", &ModelRun::list},
    {"close", &ModelRun::close},
    {"turn the clock", &ModelRun::turn_clock},
};

std::ostream &operator<<(std::ostream &out, const Command &command) {
    return out << ModelRun::operations[command.op].name << " object " << command.object
               << " handle " << command.handle << " detail " << command.detail;
}

rc::Gen<Command> any_command() {
    return rc::gen::map(rc::gen::inRange<std::uint32_t>(0, 1u << 24), [](std::uint32_t bits) {
        const auto num_operations = static_cast<unsigned int>(ModelRun::operations.size());
        return Command{bits % num_operations, (bits >> 4) % num_objects, (bits >> 8) % num_handles,
                       bits >> 10 & 0xFFF};
    });
}

void check_against_model(std::uint64_t memory_limit) {
    const auto commands =
        rc::gen::resize(1000, rc::gen::container<std::vector<Command>>(any_command()));
    std::size_t num_commands = 0;
    setenv("RC_PARAMS", "max_success=250", 0);
    EXPECT_TRUE(rc::check("the store answers as its model", [&] {
        ModelRun run(memory_limit);
        const std::vector<Command> sequence = *commands;
        for (const Command &command : sequence) {
            run.execute(command);
        }
        run.finish();
        num_commands += sequence.size();
    }));
    std::printf("%zu operations\n", num_commands);
}

class Model : public testing::TestWithParam<EngineParam> {};
FOR_ALL_ENGINES(Model);

TEST_P(Model, HoldsWithTimeOuts) {
    check_against_model(store::no_memory_limit);
}

TEST_P(Model, HoldsAtTheMemoryLimit) {
    check_against_model(1500);
}

} // namespace
