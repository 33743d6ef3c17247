/* What happens to expired records when they leave their shard.
 *
 * A shard drops them under its lock, which is no place to free memory or to tell anyone. So they
 * are chained together and handed on when the lock has been released. */
#pragma once

#include <cstddef>
#include <utility>

#include "embedded/record.h"

namespace store {

/* Records that have left their shard, chained through the records themselves: it allocates nothing.
 * Holds a reference to each. */
class RecordChain {
public:
    RecordChain() = default;
    RecordChain(RecordChain &&other) noexcept { append(std::move(other)); }
    RecordChain &operator=(RecordChain &&) = delete;
    ~RecordChain() {
        while (!empty()) {
            take_first();
        }
    }

    bool empty() const { return first_ == nullptr; }
    std::size_t size() const { return size_; }
    const Record &first() const { return *first_; }

    void push(RecordRef record) {
        Record *last = record.detach();
        last->next = nullptr;
        *end_ = last;
        end_ = &last->next;
        ++size_;
    }

    RecordRef take_first() {
        Record *record = first_;
        first_ = record->next;
        if (first_ == nullptr) {
            end_ = &first_;
        }
        --size_;
        return RecordRef::adopt(record);
    }

    void append(RecordChain &&other) {
        if (!other.empty()) {
            *end_ = std::exchange(other.first_, nullptr);
            end_ = std::exchange(other.end_, &other.first_);
            size_ += std::exchange(other.size_, 0);
        }
    }

private:
    Record *first_ = nullptr;
    Record **end_ = &first_; /* where the next one is hung */
    std::size_t size_ = 0;
};

/* Who is told about time-outs by the shards of an engine. */
class ExpirySink {
public:
    virtual ~ExpirySink() = default;

    /* A record is due at `moment`. Called under the lock of its shard. */
    virtual void on_due(Millis moment) noexcept = 0;

    /* Records, at least one, have gone because their time was over. Called with no lock held. */
    virtual void on_expired(RecordChain expired) noexcept = 0;
};

/* The expired records that an operation takes out of a shard; declared before its guard, so that
 * they are handed on when the lock has been released. */
class ExpiredRecords {
public:
    explicit ExpiredRecords(ExpirySink &sink) : sink_(sink) {}
    ExpiredRecords(const ExpiredRecords &) = delete;
    ExpiredRecords &operator=(const ExpiredRecords &) = delete;
    ~ExpiredRecords() {
        if (!chain_.empty()) {
            sink_.on_expired(std::move(chain_));
        }
    }

    void push(RecordRef record) { chain_.push(std::move(record)); }

private:
    ExpirySink &sink_;
    RecordChain chain_;
};

} // namespace store
