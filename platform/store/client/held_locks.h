/* The object locks that have been taken through one handle and not given back.
 *
 * Only the call that has the handle changes the list, so it reads it without the lock. */
#pragma once

#include <algorithm>
#include <vector>

#include "engine/keys.h"
#include "engine/types.h"

namespace store {

struct HeldLock {
    Key key;
    int ticket;
};

class HeldLocks {
public:
    /* Of the call that has the handle ---------------------------------------------------------- */

    /* Makes room, so that the next add() cannot fail. Throws std::bad_alloc. */
    void prepare() {
        const Guard guard(lock_);
        if (locks_.size() == locks_.capacity()) {
            locks_.reserve(2 * locks_.size() + 1);
        }
    }

    void add(const HeldLock &held) {
        const Guard guard(lock_);
        locks_.push_back(held);
    }

    void drop(const Key &key, int ticket) {
        const Guard guard(lock_);
        std::erase_if(locks_, [&](const HeldLock &held) { return is(held, key, ticket); });
    }

    void clear() {
        const Guard guard(lock_);
        locks_ = {};
    }

    bool contains(const Key &key, int ticket) const {
        return std::any_of(locks_.begin(), locks_.end(),
                           [&](const HeldLock &held) { return is(held, key, ticket); });
    }

    /* Whether a lock of this object is among them. */
    bool contains(const Key &key) const {
        return std::any_of(locks_.begin(), locks_.end(),
                           [&](const HeldLock &held) { return order_of(held.key, key) == 0; });
    }

    const std::vector<HeldLock> &all() const { return locks_; }

    /* Of anyone -------------------------------------------------------------------------------- */

    void append_to(std::vector<HeldLock> &list) const {
        const Guard guard(lock_);
        list.insert(list.end(), locks_.begin(), locks_.end());
    }

private:
    static bool is(const HeldLock &held, const Key &key, int ticket) {
        return held.ticket == ticket && order_of(held.key, key) == 0;
    }

    mutable WordLock lock_;
    std::vector<HeldLock> locks_; /* changed under lock_ */
};

} // namespace store
