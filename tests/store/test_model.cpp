/* The object side of the store against a model of it: random sequences of operations must answer as
 * a std::map of objects does. In every fourth operation memory runs out: it may answer that there
 * is no space, and then nothing has happened.
 *
 * A failure prints the shortest sequence that was found to fail and the string that replays it:
 *   RC_PARAMS="reproduce=..." or RC_PARAMS="seed=..." test_store --gtest_filter='*Model*' */
#include <cstdio>
#include <cstdlib>
#include <semaphore>
#include <set>

#include <rapidcheck.h>

#include "query/request.h"
#include "query_maker.h"
#include "support/failing_memory.h"

namespace {

using store::Key;
using store::Millis;
using store::millis_per_minute;
using store::millis_per_second;

constexpr unsigned int num_handles = 3;
constexpr int no_ticket = INT32_MAX; /* that no lock of a run can have */
constexpr Millis lease = 60 * millis_per_second;

/* One operation. */
struct Command {
    unsigned int op, object, handle, detail;
};

struct ModelObject {
    std::string bytes;
    unsigned int timeout_m = 0;
    std::vector<OMRA_OBJ_INDEX> values;
    Millis stored_at = 0;
    Millis expires_at = store::never;
    int ticket = 0;
    Millis locked_until = 0; /* `never` while an open handle holds the lock */

    /* As storapp.h says what counts. */
    std::uint64_t cost() const { return bytes.size() + 128 + 128 * values.size(); }
};

struct ModelHandle {
    OMRALIB_HANDLE hdl = Omralib_open_ext(nullptr);
    std::optional<std::string> pending = {};
    std::map<int, Key> locks = {}; /* by ticket */
};

std::optional<std::counting_semaphore<>> event_came;
unsigned int num_ran_out = 0; /* operations, in all runs */

/* A store and its model, driven together. */
class ModelRun : public StoreTest {
public:
    using Operation = void (ModelRun::*)();

    explicit ModelRun(std::uint64_t memory_limit)
        : StoreTest({.memory_limit = memory_limit}), limit_(memory_limit) {
        OMRALIB_CB cb;
        cb.event_ext_cb = [](OMRA_OBJKEY, const char *, unsigned int) {
            event_came->release();
            return OMRALIB_EVENT_NOT_HANDLED;
        };
        event_came.emplace(0);
        Omralib_register_cb(OMRALIB_CB_EVENT_EXT, cb);
        Omralib_start_app_event_handling(hdl_, 1);
    }

    void execute(const Command &command, Operation operation) {
        handle_ = &handles_[command.handle];
        detail_ = command.detail;
        choose(key_of(command.object));
        (this->*operation)();
        RC_ASSERT(Omralib_handle_ready(handle_->hdl) ==
                  (handle_->pending ? OMRALIB_ERR_OBJ_READING : success));
    }

    /* Every object that had to expire goes, once, and those who have to hear of it do, whether or
     * not anybody uses the store. */
    void finish() {
        clock_.advance(4 * millis_per_minute);
        let_expire();
        for (unsigned int i = 0; i < num_events_; ++i) {
            RC_ASSERT(event_came->try_acquire_for(std::chrono::seconds(60)));
        }
        list();
        store_.cluster().detach();
        RC_ASSERT(!event_came->try_acquire());
        RC_ASSERT(stats().num_expired == num_expired_);
    }

    /* Operations ------------------------------------------------------------------------------ */

    void store_object() {
        put_by(Omralib_store_indexed_obj, object_ ? OMRALIB_ERR_OBJ_EXISTS : success);
    }

    void store_many() {
        for (int i = 0; i < 30; ++i) {
            choose(key_of(++detail_ % 200));
            store_object();
        }
    }

    void replace() {
        put_by(Omralib_replace_obj, !object_      ? not_found
                                    : is_locked() ? OMRALIB_ERR_OBJ_LOCKED
                                                  : success);
    }

    void read() {
        unsigned int len = ~0u;
        int expected = handle_->pending ? OMRALIB_ERR_OBJ_READING : object_ ? success : not_found;
        RC_ASSERT(answers(expected,
                          [&] { return Omralib_read_obj(handle_->hdl, 0, &len, given_key()); }));
        if (expected == success) {
            note_read(len);
        }
    }

    void fetch_pending() {
        if (!handle_->pending) {
            RC_ASSERT(OMRALIB_ERR_NOT_READING == Omralib_flush_read_data(handle_->hdl));
        } else {
            RC_ASSERT(fetch(handle_->hdl, length_of(*handle_->pending)) == *handle_->pending);
            handle_->pending.reset();
        }
    }

    void lock() {
        unsigned int len = ~0u;
        const int ticket =
            ask([&] { return Omralib_read_and_lock_obj(handle_->hdl, 0, 0, &len, given_key()); });
        if (handle_->pending) {
            RC_ASSERT(OMRALIB_ERR_OBJ_READING == ticket);
        } else if (note_lock(ticket, store::never)) {
            handle_->locks[ticket] = key_;
            note_read(len);
        }
    }

    void update_locked() {
        const int ticket = choose_ticket();
        const bool unlocking = detail_ % 3 != 0;
        const std::string data = some_bytes();
        int expected = expect_held(ticket);
        if (expected == success && !fits({data, 0, object_->values})) {
            expected = OMRALIB_ERR_NO_SPACE;
        }
        RC_ASSERT(answers(
            expected, [&] { return update(handle_->hdl, given_key(), ticket, data, unlocking); }));
        if (expected == success) {
            object_->bytes = data;
            use(renews());
        }
        if (expected != OMRALIB_ERR_NO_SPACE && (unlocking || expected != success)) {
            note_unlocked(ticket, expected);
        }
    }

    void unlock() {
        const int ticket = choose_ticket();
        int expected = expect_held(ticket);
        RC_ASSERT(answers(
            expected, [&] { return Omralib_unlock_obj(handle_->hdl, ticket, 0, given_key()); }));
        if (expected != OMRALIB_ERR_NO_SPACE) {
            note_unlocked(ticket, expected);
        }
    }

    void remove() {
        int expected = object_ ? success : not_found;
        RC_ASSERT(
            answers(expected, [&] { return Omralib_remove_obj(handle_->hdl, 0, given_key()); }));
        if (expected == success) {
            objects_.erase(key_);
        }
    }

    void find() {
        QueryMaker random(detail_);
        const ModelQuery query = random.pick(6) == 0 ? random.terms() : random.text();
        const unsigned int app_ids[] = {1, 1, 2, OMRALIB_ALL_APP_IDS};
        OMRA_INDEX_HDR header{};
        header.reserved = OMRALIB_INDEX_OP_INVOKE;
        header.app_id = app_ids[random.pick(4)];
        header.num_index = length_of(query.text) / (query.kind < 2 ? ULONG{36} : 1);
        header.reserved1 = query.kind;
        store::InvokeOrder order;
        std::string why;
        RC_ASSERT(success ==
                  store::parse_request(bytes_in(bytes_of(header) + query.text), order, why));
        std::vector<Key> keys;
        int expected = success;
        RC_ASSERT(answers(expected,
                          [&] { return store::find(engine_, order.selection, nullptr, keys); }));
        if (expected == success) {
            check_keys(keys, query.limit, [&](const auto &entry) {
                return (header.app_id == OMRALIB_ALL_APP_IDS ||
                        header.app_id == entry.first.app_id) &&
                       query.holds(fields_of(entry.second));
            });
        }
    }

    void list() {
        check_keys(StoreTest::find({OMRALIB_ALL_APP_IDS, {}}), SIZE_MAX,
                   [](const auto &) { return true; });
        OMRALIB_STATS all = stats();
        OMRALIB_APP_STATS apps[2];
        for (unsigned int i = 0; i < 2; ++i) {
            RC_ASSERT(success == Omralib_get_app_stats(1 + i, &apps[i]));
        }
        for (const auto &[key, object] : objects_) {
            all.num_bytes -= object.bytes.size();
            apps[key.app_id - 1].num_bytes -= object.bytes.size();
        }
        RC_ASSERT(all.num_objects == objects_.size() && all.num_bytes == 0);
        RC_ASSERT(apps[0].num_objects + apps[1].num_objects == objects_.size());
        RC_ASSERT(apps[0].num_bytes == 0 && apps[1].num_bytes == 0);
    }

    void close() {
        int expected = success;
        RC_ASSERT(answers(expected, [&] { return Omralib_close(handle_->hdl); }));
        if (expected != success) {
            return;
        }
        for (const auto &[ticket, key] : handle_->locks) {
            choose(key);
            if (expect_lock(ticket) == success) {
                object_->ticket = 0;
            }
        }
        *handle_ = {};
    }

    void turn_clock() {
        clock_.advance(static_cast<Millis>(detail_ % 80) * millis_per_second);
        let_expire();
        if (limit_ != store::no_memory_limit) {
            list(); /* until then it is the sweeper's matter when there is room again */
        }
    }

    /* Other hosts and the invocation: what only the engine sees -------------------------------- */

    /* Locks, and renews no lease. */
    void lock_and_die() {
        store::Content content;
        int ticket = 0;
        const int status =
            ask([&] { return engine_.read_and_lock(key_, renews(), 0, ticket, content); });
        if (note_lock(status == success ? ticket : status, clock_.now() + lease)) {
            RC_ASSERT(std::ranges::equal(content.bytes(), bytes_in(object_->bytes)));
            dead_ = {key_, ticket};
            use(renews());
        }
    }

    /* Its ticket is good as long as its lease, and as the object. */
    void use_dead_ticket() {
        choose(dead_.first);
        const int ticket = dead_.second;
        int expected = expect_lock(ticket);
        const bool renewing = detail_ % 3 == 2;
        const bool updating = detail_ % 3 == 1;
        if (renewing && object_ && object_->ticket == ticket && !is_locked() && ticket != 0) {
            return; /* whether a lease that is over comes back is the engine's matter */
        }
        RC_ASSERT(answers(expected, [&] {
            return renewing   ? engine_.renew_lock(key_, ticket)
                   : updating ? engine_.update(key_, ticket, true, false, {})
                              : engine_.unlock(key_, ticket);
        }));
        if (expected == success && renewing) {
            object_->locked_until = clock_.now() + lease;
        } else if (expected == success) {
            object_->ticket = 0;
            object_->bytes.resize(updating ? 0 : object_->bytes.size());
        }
    }

    void touch() {
        const int expected = object_ ? success : not_found;
        RC_ASSERT(expected == engine_.exists(key_) && expected == engine_.touch(key_));
        use(true);
    }

    void copy() {
        const Key from = key_;
        const ModelObject *const source = object_;
        choose(key_of(detail_ % 8));
        if (!source && object_) {
            return; /* either is wrong */
        }
        const ModelObject fresh{source ? source->bytes : "", (detail_ >> 4) % 4, {}};
        int expected = !source        ? not_found
                       : object_      ? OMRALIB_ERR_OBJ_EXISTS
                       : !fits(fresh) ? OMRALIB_ERR_NO_SPACE
                                      : success;
        RC_ASSERT(answers(expected, [&] { return engine_.copy(from, key_, fresh.timeout_m); }));
        if (expected == success) {
            put(fresh);
            choose(from);
            use(true);
        }
    }

private:
    void TestBody() override {}

    /* What the store answers; std::bad_alloc counts as that there is no space. */
    template <typename Call>
    int ask(Call call) {
        const unsigned int choice = detail_ * 0x9E3779B1u >> 16;
        failing_memory::arm(choice % 4 == 0 ? 1 + choice / 4 % 12 : 0, choice / 64 % 2 == 0);
        int status = OMRALIB_ERR_NO_SPACE;
        try {
            const failing_memory::Exposure exposure(true);
            status = call();
        } catch (const std::bad_alloc &) {
            /* as the conventions of the seam allow */
        }
        ran_out_ = failing_memory::disarm() != 0 && status == OMRALIB_ERR_NO_SPACE;
        num_ran_out += ran_out_ ? 1 : 0;
        return status;
    }

    /* Whether the store answers as it must, or else has run out of memory. */
    template <typename Call>
    bool answers(int &expected, Call call) {
        const int status = ask(call);
        expected = ran_out_ ? int{OMRALIB_ERR_NO_SPACE} : expected;
        return status == expected;
    }

    static Key key_of(unsigned int number) { return make_key(1 + number % 2, number); }

    void choose(const Key &key) {
        key_ = key;
        const auto found = objects_.find(key_);
        object_ = found == objects_.end() ? nullptr : &found->second;
    }

    static store::Bytes bytes_in(const std::string &text) { return std::as_bytes(std::span(text)); }

    std::string some_bytes() {
        const unsigned int length = detail_ % 5 == 0 ? 0 : detail_ % 300;
        return length == 0 ? "" : std::string(length, 'x') + std::to_string(++serial_);
    }

    bool renews() const { return detail_ % 2 == 0; }
    Key given_key() const { return renews() ? key_ : marked(key_); }
    bool is_locked() const { return object_->ticket != 0 && clock_.now() < object_->locked_until; }

    void use(bool renew) {
        if (renew && object_ && object_->timeout_m != 0) {
            object_->expires_at = clock_.now() + object_->timeout_m * millis_per_minute;
        }
    }

    /* In the place of the object, if there is one. */
    bool fits(const ModelObject &fresh) const {
        const std::uint64_t old = object_ ? object_->cost() : 0;
        std::uint64_t sum = fresh.cost() - old;
        for (const auto &[key, object] : objects_) {
            sum += object.cost();
        }
        return fresh.cost() <= old || sum <= limit_;
    }

    /* What storing or replacing leaves. */
    void put(const ModelObject &fresh) {
        object_ = &(objects_[key_] = fresh);
        object_->stored_at = clock_.now();
        use(true);
    }

    template <typename PutOperation>
    void put_by(PutOperation operation, int expected) {
        ModelObject fresh{some_bytes(), (detail_ >> 4) % 4, {}};
        QueryMaker random(detail_);
        for (const USHORT index : used_indexes) {
            if (random.pick(3) != 0) {
                fresh.values.push_back({index, {}, as_index_value(random.literal().value)});
            }
        }
        if (expected == success && !fits(fresh)) {
            expected = OMRALIB_ERR_NO_SPACE;
        }
        RC_ASSERT(answers(expected, [&] {
            return operation(handle_->hdl, fresh.bytes.data(), length_of(fresh.bytes),
                             fresh.timeout_m, fresh.values.data(), length_of(fresh.values),
                             given_key());
        }));
        if (expected == success) {
            put(fresh);
        }
    }

    /* What a read that has succeeded leaves. */
    void note_read(unsigned int len) {
        RC_ASSERT(len == object_->bytes.size());
        if (len != 0) {
            handle_->pending = object_->bytes;
        }
        use(renews());
    }

    /* What a lock answers, and what it leaves. */
    bool note_lock(int ticket, Millis until) {
        if (ran_out_) {
            return false;
        }
        if (!object_ || is_locked()) {
            RC_ASSERT(ticket == (object_ ? OMRALIB_ERR_OBJ_LOCKED : not_found));
            return false;
        }
        RC_ASSERT(ticket > 0);
        RC_ASSERT(tickets_.insert(ticket).second);
        object_->ticket = ticket;
        object_->locked_until = until;
        return true;
    }

    /* What an operation under a lock has to answer. */
    int expect_lock(int ticket) const {
        return !object_                                    ? not_found
               : object_->ticket != ticket || !is_locked() ? OMRALIB_ERR_LOCK_LOST
                                                           : success;
    }

    /* Mostly that of one of the handle's locks; else one that is worth nothing: its own of another
     * object, another handle's, or nobody's. */
    int choose_ticket() {
        const auto &locks = detail_ % 8 == 7 ? handles_[0].locks : handle_->locks;
        if (locks.empty()) {
            return no_ticket;
        }
        const auto [ticket, key] = *std::next(locks.begin(), detail_ % locks.size());
        choose(detail_ % 8 == 6 ? key_ : key);
        return ticket;
    }

    bool is_held(int ticket) const {
        const auto held = handle_->locks.find(ticket);
        return held != handle_->locks.end() && is_same(held->second, key_);
    }

    int expect_held(int ticket) const {
        return is_held(ticket) ? expect_lock(ticket) : OMRALIB_ERR_LOCK_LOST;
    }

    void note_unlocked(int ticket, int status) {
        if (status == success) {
            object_->ticket = 0;
        }
        if (is_held(ticket)) {
            handle_->locks.erase(ticket);
        }
    }

    /* What a query can ask for. */
    Fields fields_of(const ModelObject &object) const {
        const Millis age = (clock_.now() - object.stored_at) / millis_per_second;
        Fields fields = {{size_field, value_of(object.bytes.size())},
                         {age_field, value_of(static_cast<ULONGLONG>(age))}};
        for (const OMRA_OBJ_INDEX &its : object.values) {
            fields[its.index] = bytes_of(its.value);
        }
        return fields;
    }

    /* The keys of just the first of those objects. */
    template <typename Matches>
    void check_keys(const std::vector<Key> &keys, std::size_t limit, Matches matches) {
        std::vector<Key> expected;
        for (const auto &entry : objects_) {
            if (expected.size() < limit && matches(entry)) {
                expected.push_back(entry.first);
            }
        }
        RC_ASSERT(std::ranges::equal(keys, expected, is_same));
    }

    void let_expire() {
        std::erase_if(objects_, [&](const auto &entry) {
            const bool expired = entry.second.expires_at <= clock_.now();
            num_expired_ += expired;
            num_events_ += expired && entry.first.app_id == 1;
            return expired;
        });
    }

    const std::uint64_t limit_;
    store::Objects &engine_ = store_.objects();
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
    bool ran_out_ = false;
};

constexpr std::pair<const char *, ModelRun::Operation> operations[] = {
    {"store", &ModelRun::store_object},
    {"store many", &ModelRun::store_many},
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
    {"find", &ModelRun::find},
    {"list", &ModelRun::list},
    {"close", &ModelRun::close},
    {"turn the clock", &ModelRun::turn_clock},
};

std::ostream &operator<<(std::ostream &out, const Command &command) {
    return out << operations[command.op].first << " object " << command.object << " handle "
               << command.handle << " detail " << command.detail;
}

/* Mostly of a few objects. */
rc::Gen<Command> any_command() {
    return rc::gen::map(rc::gen::inRange<std::uint32_t>(0, 1u << 30), [](std::uint32_t bits) {
        return Command{bits % std::uint32_t{std::size(operations)},
                       (bits >> 5) % ((bits >> 10) % 3 == 0 ? 40 : 8), (bits >> 12) % num_handles,
                       bits >> 14};
    });
}

void check_against_model(std::uint64_t memory_limit) {
    setenv("RC_PARAMS", "max_success=250", 0);
    EXPECT_TRUE(rc::check("the store answers as its model", [&] {
        ModelRun run(memory_limit);
        const auto sequence =
            *rc::gen::resize(1000, rc::gen::container<std::vector<Command>>(any_command()));
        for (const Command &command : sequence) {
            run.execute(command, operations[command.op].second);
        }
        run.finish();
    }));
    std::printf("memory ran out in %u operations\n", num_ran_out);
}

class Model : public testing::TestWithParam<TestEngine> {};
FOR_ALL_ENGINES(Model);

TEST_P(Model, HoldsWithTimeOuts) {
    check_against_model(store::no_memory_limit);
}

TEST_P(Model, HoldsAtTheMemoryLimit) {
    SKIP_WITHOUT_MEMORY_LIMIT();
    check_against_model(1500);
}

} // namespace
