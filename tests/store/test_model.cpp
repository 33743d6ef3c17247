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
    Millis expires_at = store::never;
    std::vector<OMRA_OBJ_INDEX> values;
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
        : StoreTest(limited(memory_limit)), limit_(memory_limit) {
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
        choose(make_key(1 + command.object % 2, command.object));
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
        stop_threads();
        RC_ASSERT(!events->try_acquire());
        OMRALIB_STATS stats;
        RC_ASSERT(OMRALIB_RET_SUCCESS == Omralib_get_stats(&stats));
        RC_ASSERT(stats.num_expired == num_expired_);
    }

private:
    static store::Configuration limited(std::uint64_t memory_limit) {
        store::Configuration configuration;
        configuration.memory_limit = memory_limit;
        return configuration;
    }

    void TestBody() override {}

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
        std::string data(handle_->pending->size(), '\0');
        RC_ASSERT(OMRALIB_RET_SUCCESS ==
                  Omralib_get_read_data(handle_->hdl, data.data(),
                                        static_cast<unsigned int>(data.size())));
        RC_ASSERT(data == *handle_->pending);
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

    using Locks = std::vector<std::pair<Key, int>>;

    /* One of the handle's locks; or, with the end of them, a ticket that is worth nothing: its own
     * of another object, another handle's, or nobody's. */
    Locks::iterator choose_lock(int &ticket_out) {
        Locks &mine = handle_->locks;
        Locks &locks = detail_ % 8 == 7 ? handles_[(detail_ >> 3) % num_handles].locks : mine;
        ticket_out = no_ticket;
        if (locks.empty()) {
            return mine.end();
        }
        const auto chosen = locks.begin() + static_cast<std::ptrdiff_t>(detail_ % locks.size());
        ticket_out = chosen->second;
        if (detail_ % 8 == 6 && store::order_of(chosen->first, key_) != 0) {
            return mine.end();
        }
        choose(chosen->first);
        return &locks == &mine ? chosen : mine.end();
    }

    void update_locked() {
        int ticket = 0;
        const auto chosen = choose_lock(ticket);
        const bool known = chosen != handle_->locks.end();
        const bool unlocking = detail_ % 3 != 0;
        const std::string data = some_bytes();
        int expected = known ? expect_lock(ticket) : OMRALIB_ERR_LOCK_LOST;
        if (expected == OMRALIB_RET_SUCCESS && !fits(data.size(), object_->values.size())) {
            expected = OMRALIB_ERR_NO_SPACE;
        }
        RC_ASSERT(expected == update(handle_->hdl, given_key(), ticket, data, unlocking));
        if (expected == OMRALIB_RET_SUCCESS) {
            object_->bytes = data;
            object_->ticket = unlocking ? 0 : ticket;
            use(renews());
        }
        if (known && expected != OMRALIB_ERR_NO_SPACE &&
            (unlocking || expected != OMRALIB_RET_SUCCESS)) {
            handle_->locks.erase(chosen);
        }
    }

    void unlock() {
        int ticket = 0;
        const auto chosen = choose_lock(ticket);
        const bool known = chosen != handle_->locks.end();
        const int expected = known ? expect_lock(ticket) : OMRALIB_ERR_LOCK_LOST;
        RC_ASSERT(expected == Omralib_unlock_obj(handle_->hdl, ticket, 0, given_key()));
        if (expected == OMRALIB_RET_SUCCESS) {
            object_->ticket = 0;
        }
        if (known) {
            handle_->locks.erase(chosen);
        }
    }

    /* Another host's part, which only the engine sees: it locks, and renews no lease. */
    void lock_and_die() {
        store::Content content;
        int ticket = 0;
        const int status = store_.objects().read_and_lock(key_, renews(), 0, ticket, content);
        ticket = status == OMRALIB_RET_SUCCESS ? ticket : status;
        if (note_lock(ticket, clock_.now() + lease)) {
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
        store::Objects &objects = store_.objects();
        RC_ASSERT(expected == (renewing           ? objects.renew_lock(key_, ticket)
                               : detail_ % 3 == 1 ? objects.update(key_, ticket, true, false, {})
                                                  : objects.unlock(key_, ticket)));
        if (expected == OMRALIB_RET_SUCCESS && renewing) {
            object_->locked_until = clock_.now() + lease;
        } else if (expected == OMRALIB_RET_SUCCESS) {
            object_->ticket = 0;
            object_->bytes.resize(detail_ % 3 == 1 ? 0 : object_->bytes.size());
        }
    }

    /* Nothing comes from the store any more. */
    void stop_threads() { store_.cluster().detach(); }

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
