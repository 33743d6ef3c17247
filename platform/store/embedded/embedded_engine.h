/* The engine in this process's memory: the default.
 *
 *   EmbeddedEngine -> Partition (one per app id) -> Shard (by hash of the key) -> Record
 *
 * Partitions are found without a lock and never go away; a shard has a lock of its own, so that
 * threads which use different objects rarely meet. All hosts are this process; see hosts.h. */
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "embedded/hosts.h"
#include "embedded/partition.h"
#include "embedded/sweeper.h"
#include "engine/engine.h"
#include "engine/options.h"

namespace store {

class EmbeddedEngine final : public Engine {
public:
    /* `clock` outlives the engine. */
    EmbeddedEngine(Clock &clock, const Configuration &configuration);

    void attach(RequestReceiver &receiver, ReplySink &sink, EventReceiver &events) override;
    void detach() override;

    Status create(const Key &key, const ObjectSpec &spec) override;
    Status read(const Key &key, bool renew, ContentRef &content_out) override;
    int read_and_lock(const Key &key, bool renew, Millis patience,
                      ContentRef &content_out) override;
    Status renew_lock(const Key &key, int ticket) override;
    Status update(const Key &key, int ticket, bool unlock, bool renew, Bytes bytes) override;
    Status unlock(const Key &key, int ticket) override;
    Status replace(const Key &key, const ObjectSpec &spec) override;
    Status remove(const Key &key) override;
    Status exists(const Key &key) override;

    Status find(const Selection &selection, std::vector<Key> &keys_out) override;
    Status explain(const Selection &selection, Explanation &explanation_out) override;
    Totals totals_of(std::uint32_t app_id) override;
    Totals totals() override;
    Activity activity() override;

    Status bind_name(std::string_view name, std::uint32_t &app_id_out) override;
    HostId this_host() const override { return Hosts::first; }
    void announce(std::uint32_t app_id, bool serving) override;
    std::vector<HostId> hosts_serving(std::uint32_t app_id) override;
    std::vector<HostId> hosts_serving_any() override;
    std::vector<Share> share_out(std::vector<Key> keys, std::span<const HostId> hosts) override;
    void send(HostId host, std::shared_ptr<const Request> request) override;
    void withdraw(HostId host, RequestId request) override;
    std::uint32_t num_begun(HostId host, RequestId request) override;
    Status reply(const Reply &reply) override;
    Status declare_gone(HostId host) override;

    /* Records and index values that find() has looked at so far: what queries cost. */
    std::uint64_t num_examined() const { return num_examined_.load(std::memory_order_relaxed); }

private:
    std::vector<Partition *> partitions_of(std::uint32_t app_id) const;
    int next_ticket();

    /* Constant after set-up. */
    const ShardContext context_;

    /* Self-synchronised. */
    Hosts hosts_;
    MemoryBudget budget_;
    LockWaiters waiters_;
    PartitionDirectory directory_;
    Sweeper sweeper_;
    std::atomic<std::uint32_t> last_ticket_{0};
    std::atomic<std::uint64_t> num_examined_{0};

    std::mutex names_lock_;                                   /* a leaf */
    std::map<std::string, std::uint32_t, std::less<>> names_; /* guarded by names_lock_ */
};

} // namespace store
