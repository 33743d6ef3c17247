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

#include "embedded/memory_budget.h"
#include "store_test.h"

namespace {

using store::Key;
using store::Millis;
using store::millis_per_minute;
using store::millis_per_second;

enum class Op : int {
    store,
    replace,
    read,
    fetch,
    lock,
    lock_and_die,
    update,
    update_dead,
    unlock,
    remove,
    find,
    list,
    close,
    turn_clock,
    num_ops
};

constexpr const char *op_names[] = {"store",        "replace", "read",        "fetch",     "lock",
                                    "lock_and_die", "update",  "update_dead", "unlock",    "remove",
                                    "find",         "list",    "close",       "turn_clock"};

constexpr unsigned int num_objects = 10; /* in two app ids */
constexpr unsigned int num_handles = 3;
constexpr unsigned int num_values = 3; /* of each of the two indexes */
constexpr int no_ticket = INT32_MAX;   /* that no lock of a run can have */
constexpr Millis lease = 60 * millis_per_second;

/* One operation; every number counts modulo what it chooses from. */
struct Command {
    Op op;
    unsigned int object;
    unsigned int handle;
    unsigned int detail;
};

std::ostream &operator<<(std::ostream &out, const Command &command) {
    return out << op_names[static_cast<int>(command.op)] << " object " << command.object
               << " handle " << command.handle << " detail " << command.detail;
}

rc::Gen<Command> any_command() {
    return rc::gen::map(rc::gen::inRange<std::uint32_t>(0, 1u << 24), [](std::uint32_t bits) {
        return Command{static_cast<Op>(bits % static_cast<int>(Op::num_ops)),
                       (bits >> 4) % num_objects, (bits >> 8) % num_handles, bits >> 10 & 0xFFF};
    });
}

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

/* The store and its model, driven together. */
class Run {
public:
    explicit Run(const store::Configuration &configuration)
        : limit_(configuration.memory_limit),
          store_(all_engines().front().make(clock_, configuration), clock_, configuration) {
        OMRALIB_CB cb;
        cb.event_ext_cb = [](OMRA_OBJKEY, const char *, unsigned int) {
            events->release();
            return OMRALIB_EVENT_NOT_HANDLED;
        };
        events.emplace(0);
        Omralib_register_cb(OMRALIB_CB_EVENT_EXT, cb);
        for (ModelHandle &handle : handles_) {
            handle.hdl = Omralib_open_ext(nullptr);
        }
        Omralib_start_app_event_handling(handles_[0].hdl, 1);
    }

    void execute(const Command &command) {
        key_ = make_key(1 + command.object % 2, command.object);
        handle_ = &handles_[command.handle];
        detail_ = command.detail;
        const auto found = objects_.find(key_);
        object_ = found == objects_.end() ? nullptr : &found->second;
        switch (command.op) {
        case Op::store:
            return store_object();
        case Op::replace:
            return replace();
        case Op::read:
            return read();
        case Op::fetch:
            return fetch_pending();
        case Op::lock:
            return lock();
        case Op::lock_and_die:
            return lock_and_die();
        case Op::update:
            return update_locked();
        case Op::update_dead:
            return update_dead();
        case Op::unlock:
            return unlock();
        case Op::remove:
            return remove();
        case Op::find:
            return find();
        case Op::list:
            return list();
        case Op::close:
            return close();
        default:
            return turn_clock();
        }
    }

    /* Every object that had to expire has gone, once, and those who had to hear of it have. */
    void finish() {
        list();
        store::Activity activity;
        store_.objects().activity(activity);
        RC_ASSERT(activity.num_expired == num_expired_);
        for (unsigned int i = 0; i < num_events_; ++i) {
            RC_ASSERT(events->try_acquire_for(std::chrono::seconds(60)));
        }
        store_.cluster().detach();
        RC_ASSERT(!events->try_acquire());
    }

private:
    std::uint64_t cost() const {
        std::uint64_t sum = 0;
        for (const auto &[key, object] : objects_) {
            sum += store::cost_of(object.bytes.size(), object.values.size());
        }
        return sum;
    }

    bool fits(std::size_t length, std::size_t num_index_values) const {
        const std::uint64_t old =
            object_ ? store::cost_of(object_->bytes.size(), object_->values.size()) : 0;
        const std::uint64_t fresh = store::cost_of(length, num_index_values);
        return fresh <= old || limit_ == store::no_memory_limit || cost() - old + fresh <= limit_;
    }

    bool is_locked() const { return object_->ticket != 0 && clock_.now() < object_->locked_until; }

    /* Time-outs would make it the sweeper's matter when there is room again. */
    unsigned int some_timeout() const { return limit_ == store::no_memory_limit ? detail_ % 4 : 0; }

    std::string some_bytes() {
        return std::string(detail_ % 5 == 0 ? 0 : detail_ % 300, 'x') + std::to_string(++serial_);
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
        fresh.timeout_m = some_timeout();
        fresh.values = some_values();
        if (expected == OMRALIB_RET_SUCCESS && !fits(fresh.bytes.size(), fresh.values.size())) {
            expected = OMRALIB_ERR_NO_SPACE;
        }
        RC_ASSERT(expected == operation(handle_->hdl, fresh.bytes.data(),
                                        static_cast<unsigned int>(fresh.bytes.size()),
                                        fresh.timeout_m, fresh.values.data(),
                                        static_cast<unsigned int>(fresh.values.size()), key_));
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

    Key given_key(bool renew) const { return renew ? key_ : marked(key_); }

    void read() {
        const bool renew = detail_ % 2 == 0;
        unsigned int len = ~0u;
        const int expected = handle_->pending ? OMRALIB_ERR_OBJ_READING
                             : object_        ? OMRALIB_RET_SUCCESS
                                              : OMRALIB_ERR_OBJ_NOT_FOUND;
        RC_ASSERT(expected == Omralib_read_obj(handle_->hdl, 0, &len, given_key(renew)));
        if (expected == OMRALIB_RET_SUCCESS) {
            RC_ASSERT(len == object_->bytes.size());
            handle_->pending = object_->bytes;
            use(renew);
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

    void note_ticket(int ticket, Millis until) {
        RC_ASSERT(ticket > 0);
        RC_ASSERT(tickets_.insert(ticket).second);
        object_->ticket = ticket;
        object_->locked_until = until;
        use(true);
    }

    void lock() {
        unsigned int len = ~0u;
        const int ticket = Omralib_read_and_lock_obj(handle_->hdl, 0, 0, &len, key_);
        if (handle_->pending) {
            RC_ASSERT(OMRALIB_ERR_OBJ_READING == ticket);
        } else if (!object_) {
            RC_ASSERT(OMRALIB_ERR_OBJ_NOT_FOUND == ticket);
        } else if (is_locked()) {
            RC_ASSERT(OMRALIB_ERR_OBJ_LOCKED == ticket);
        } else {
            note_ticket(ticket, store::never);
            RC_ASSERT(len == object_->bytes.size());
            handle_->pending = object_->bytes;
            handle_->locks.emplace_back(key_, ticket);
        }
    }

    /* By a holder that renews no lease. */
    void lock_and_die() {
        store::Content content;
        int ticket = 0;
        const int status = store_.objects().read_and_lock(key_, true, 0, ticket, content);
        ticket = status == OMRALIB_RET_SUCCESS ? ticket : status;
        if (!object_) {
            RC_ASSERT(OMRALIB_ERR_OBJ_NOT_FOUND == ticket);
        } else if (is_locked()) {
            RC_ASSERT(OMRALIB_ERR_OBJ_LOCKED == ticket);
        } else {
            note_ticket(ticket, clock_.now() + lease);
            dead_ = {key_, ticket};
        }
    }

    /* What an operation under a lock has to answer. */
    int expect_lock(int ticket) const {
        return !object_                                    ? OMRALIB_ERR_OBJ_NOT_FOUND
               : object_->ticket != ticket || !is_locked() ? OMRALIB_ERR_LOCK_LOST
                                                           : OMRALIB_RET_SUCCESS;
    }

    /* The dead holder's ticket, as long as its lease is not over. */
    void update_dead() {
        key_ = dead_.first;
        const auto found = objects_.find(key_);
        object_ = found == objects_.end() ? nullptr : &found->second;
        const int expected = expect_lock(dead_.second);
        RC_ASSERT(expected == store_.objects().unlock(key_, dead_.second));
        if (expected == OMRALIB_RET_SUCCESS) {
            object_->ticket = 0;
        }
    }

    /* One of the handle's locks, or a ticket that it has not got. */
    std::vector<std::pair<Key, int>>::iterator choose_lock() {
        auto &locks = handle_->locks;
        if (locks.empty() || detail_ % 8 == 7) {
            return locks.end();
        }
        const auto chosen = locks.begin() + static_cast<std::ptrdiff_t>(detail_ % locks.size());
        key_ = chosen->first;
        const auto found = objects_.find(key_);
        object_ = found == objects_.end() ? nullptr : &found->second;
        return chosen;
    }

    void update_locked() {
        const auto chosen = choose_lock();
        const bool known = chosen != handle_->locks.end();
        const int ticket = known ? chosen->second : no_ticket;
        const bool unlocking = detail_ % 3 != 0;
        const bool renew = detail_ % 2 == 0;
        const std::string data = some_bytes();
        int expected = known ? expect_lock(ticket) : OMRALIB_ERR_LOCK_LOST;
        if (expected == OMRALIB_RET_SUCCESS && !fits(data.size(), object_->values.size())) {
            expected = OMRALIB_ERR_NO_SPACE;
        }
        RC_ASSERT(expected == update(handle_->hdl, given_key(renew), ticket, data, unlocking));
        if (expected == OMRALIB_RET_SUCCESS) {
            object_->bytes = data;
            object_->ticket = unlocking ? 0 : ticket;
            use(renew);
        }
        if (known && expected != OMRALIB_ERR_NO_SPACE &&
            (unlocking || expected != OMRALIB_RET_SUCCESS)) {
            handle_->locks.erase(chosen);
        }
    }

    void unlock() {
        const auto chosen = choose_lock();
        const bool known = chosen != handle_->locks.end();
        const int ticket = known ? chosen->second : no_ticket;
        const int expected = known ? expect_lock(ticket) : OMRALIB_ERR_LOCK_LOST;
        RC_ASSERT(expected == Omralib_unlock_obj(handle_->hdl, ticket, 0, key_));
        if (expected == OMRALIB_RET_SUCCESS) {
            object_->ticket = 0;
        }
        if (known) {
            handle_->locks.erase(chosen);
        }
    }

    void remove() {
        RC_ASSERT((object_ ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_OBJ_NOT_FOUND) ==
                  Omralib_remove_obj(handle_->hdl, 0, key_));
        objects_.erase(key_);
    }

    void find() {
        const auto index = static_cast<USHORT>(detail_ % 2);
        const bool negated = (detail_ & 2) != 0;
        const OMRA_INDEX_VALUE value = make_value((detail_ >> 2) % num_values);
        const store::Term term[] = {{index, negated, value}};
        std::vector<Key> keys;
        RC_ASSERT(OMRALIB_RET_SUCCESS ==
                  store::find(store_.objects(), store::select_by_terms(key_.app_id, true, term), nullptr, keys));
        check_keys(keys, [&](const Key &key, const ModelObject &object) {
            bool has = false;
            for (const OMRA_OBJ_INDEX &its : object.values) {
                has |= its.index == index && its.value.u64_comp[0] == value.u64_comp[0];
            }
            return key.app_id == key_.app_id && has != negated;
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
                  Omralib_list_objs(handles_[0].hdl, OMRALIB_ALL_APP_IDS, append, &keys));
        check_keys(keys, [](const Key &, const ModelObject &) { return true; });
        OMRALIB_STATS stats;
        RC_ASSERT(OMRALIB_RET_SUCCESS == Omralib_get_stats(&stats));
        std::uint64_t num_bytes = 0;
        for (const auto &[key, object] : objects_) {
            num_bytes += object.bytes.size();
        }
        RC_ASSERT(stats.num_objects == objects_.size());
        RC_ASSERT(stats.num_bytes == num_bytes);
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

    void turn_clock() {
        clock_.advance(static_cast<Millis>(detail_ % 80) * millis_per_second);
        std::erase_if(objects_, [&](const auto &entry) {
            const bool expired = entry.second.expires_at <= clock_.now();
            num_expired_ += expired;
            num_events_ += expired && entry.first.app_id == 1;
            return expired;
        });
    }

    static inline std::optional<std::counting_semaphore<>> events;

    const std::uint64_t limit_;
    TestClock clock_;
    store::Store store_;

    std::map<Key, ModelObject, store::KeyLess> objects_;
    ModelHandle handles_[num_handles];
    std::set<int> tickets_;
    std::pair<Key, int> dead_{make_key(1, 1), 1};
    unsigned int serial_ = 0;
    unsigned int num_expired_ = 0;
    unsigned int num_events_ = 0;

    /* Of the command that is executed. */
    Key key_{};
    ModelHandle *handle_ = nullptr;
    ModelObject *object_ = nullptr;
    unsigned int detail_ = 0;
};

void check_against_model(std::uint64_t memory_limit) {
    const auto commands =
        rc::gen::resize(1000, rc::gen::container<std::vector<Command>>(any_command()));
    std::size_t num_commands = 0;
    setenv("RC_PARAMS", "max_success=250", 0);
    EXPECT_TRUE(rc::check("the store answers as its model", [&] {
        store::Configuration configuration;
        configuration.memory_limit = memory_limit;
            Run run(configuration);
        const std::vector<Command> sequence = *commands;
        for (const Command &command : sequence) {
            run.execute(command);
        }
        run.finish();
        num_commands += sequence.size();
    }));
    std::printf("%zu operations\n", num_commands);
}

TEST(Model, HoldsWithTimeOuts) {
    check_against_model(store::no_memory_limit);
}

TEST(Model, HoldsAtTheMemoryLimit) {
    check_against_model(1500);
}

} // namespace
