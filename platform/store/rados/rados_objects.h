/* Objects in a Ceph cluster: replicated, and shared by all processes that open the same namespace.
 *
 *   key -> slot -> bucket (one RADOS object of an app id) -> entries of its sorted map (record.h)
 *
 * Whatever changes a record is one write of its bucket, which all replicas apply or none, together
 * with its index entries, its place in the queue of the time-outs and the bucket's totals. The
 * write compares what it was made from and is refused when that has changed: it is made anew then.
 * So no lock is ever held while the cluster is asked.
 *
 * A write whose answer never came is looked for afterwards by its number, which stands in the
 * header; only if that cannot be read, or if the write may still be on its way, does the caller
 * hear OMRALIB_ERR_UNKNOWN. */
#pragma once

#include <atomic>
#include <set>

#include "engine/local_objects.h"
#include "engine/options.h"
#include "rados/pool.h"
#include "rados/rados_sweeper.h"
#include "rados/record.h"
#include "rados/stored_record.h"
#include "rados/write_marks.h"

namespace store {

class RadosObjects final : public LocalObjects {
public:
    /* `clock` outlives the objects. */
    RadosObjects(Clock &clock, const Configuration &configuration, Pool pool);

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
    template <typename Make>
    Status change(const Key &key, bool with_data, Make make);
    Status note_app_id(std::uint32_t app_id);
    Status list_app_ids(std::uint32_t app_id, std::vector<std::uint32_t> &app_ids_out);
    Status add_totals(std::span<const std::uint32_t> app_ids, Totals &totals_out);
    void renew(RecordHeader &header) const;
    RecordHeader header_of(const ObjectSpec &spec, std::uint64_t write_id) const;

    /* Constant after set-up. */
    Clock &clock_;
    const Millis lock_lease_;

    /* Self-synchronised. */
    Pool pool_;
    const Wall wall_;
    WriteMarks marks_;
    std::atomic<std::uint64_t> num_lock_waits_{0};

    Mutex lock_;                                           /* a leaf */
    std::set<std::uint32_t> noted_ ABSL_GUARDED_BY(lock_); /* app ids that the pool lists */

    RadosSweeper sweeper_; /* the last member: its thread uses the others */
};

} // namespace store
