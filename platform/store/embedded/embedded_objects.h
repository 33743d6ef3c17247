/* Objects in this process's memory: the default engine's.
 *
 *   EmbeddedObjects -> Shard (by hash of the key) -> Section (one per app id) -> Record
 *                   -> RecordList (one per app id) ------------------------------^
 *
 * A shard has a lock of its own, so that threads which use different objects rarely meet. The key
 * space falls into slots by the top bits of the hash, several to a shard. Whoever goes through all
 * objects of an app id goes along its list, whoever has a query through the shards. */
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "embedded/shard.h"
#include "embedded/sweeper.h"
#include "engine/local_objects.h"
#include "engine/options.h"

namespace store {

class EmbeddedObjects final : public LocalObjects {
public:
    /* `clock` outlives the objects. */
    EmbeddedObjects(Clock &clock, const Configuration &configuration);

    Status create(const Key &key, const ObjectSpec &spec) override;
    Status read(const Key &key, bool renew, Content &content_out) override;
    Status read_and_lock(const Key &key, bool renew, Millis patience, int &ticket_out,
                         Content &content_out) override;
    Status renew_lock(const Key &key, int ticket) override;
    Status update(const Key &key, int ticket, bool unlock, bool renew, Bytes bytes) override;
    Status unlock(const Key &key, int ticket) override;
    Status replace(const Key &key, const ObjectSpec &spec) override;
    Status remove(const Key &key) override;
    Status exists(const Key &key) override;
    Status touch(const Key &key) override;
    Status copy(const Key &from, const Key &to, std::uint32_t timeout_m) override;

    Status scan(const Selection &selection, const Part *part,
                std::unique_ptr<Scan> &scan_out) override;
    Status explain(const Selection &selection, Explanation &explanation_out) override;
    Status totals_of(std::uint32_t app_id, Totals &totals_out) override;
    Status totals(Totals &totals_out) override;
    Status activity(Activity &activity_out) override;

    Status num_records(std::uint32_t app_id, std::uint64_t &num_out) override;
    void attach_events(EventReceiver &events) override { sweeper_.attach(events); }
    void want_events(std::uint32_t app_id, bool wanted) override {
        sweeper_.want_events(app_id, wanted);
    }
    void detach_events() override { sweeper_.stop(); }

private:
    Shard &shard_of(std::uint64_t hash) { return shards_[shard_of_slot(slot_of(hash))]; }
    std::vector<std::uint32_t> app_ids_of(std::uint32_t app_id);
    std::vector<std::shared_ptr<RecordList>> lists_of(std::uint32_t app_id);
    int next_ticket();

    /* Constant after set-up. */
    const ShardContext context_;

    /* Self-synchronised. */
    MemoryBudget budget_;
    LockWaiters waiters_;
    RecordLists lists_;
    Shards shards_;
    Sweeper sweeper_;
    std::atomic<std::uint32_t> last_ticket_{0};
};

} // namespace store
