/* Bringing the partial results of an invocation together.
 *
 *   completed requests --add--> free --start--> being folded --settle--> free
 *                                ^  two by two, the oldest first        |
 *                                +--------------------------------------+ one in the place of two
 *
 * As soon as two partial results are free, a host is asked to merge one of them, the source, into a
 * copy of the other, the target, while other hosts are still evaluating. With the oldest folded
 * first, n results take about log2(n) rounds. Source and target stay until the fold has counted;
 * one that did not happen is done anew by another host (delivery.h).
 *
 * A fold that cannot be done, because no host takes it or the user's merge function fails, leaves
 * the target a partial result and loses the source: the objects behind it have failed.
 *
 * Left to others: what a merge does to the bytes. */
#pragma once

#include <cstdint>
#include <deque>
#include <list>

#include "invocation/delivery.h"

namespace store {

class Folding {
public:
    Folding(InvocationRoom &room, Delivery &delivery) : room_(room), delivery_(delivery) {}
    Folding(const Folding &) = delete;
    Folding &operator=(const Folding &) = delete;

    /* A results object with so many successful objects behind it. */
    void add(const Key &key, std::uint64_t num_successful) {
        free_.push_back({key, num_successful});
    }

    /* Gives the delivery folds to do. */
    void start();

    /* One of them is over: completed or lost. True when it left exceptions. */
    bool settle(const Task &task);

    /* Keeps the time-outs of what waits from passing. */
    void renew();

    /* The one result that is left when nothing is being folded any more; a null key when there is
     * none. */
    Key finish();

    /* Removes all that is left, after the delivery has been stopped. */
    void discard();

    /* Objects that were evaluated but whose result is lost. */
    std::uint64_t num_lost() const { return num_lost_; }

private:
    struct Partial {
        Key key;
        std::uint64_t num_successful;
    };

    struct Fold {
        Task task;
        Partial target;
        Partial source;
    };

    void lose(const Partial &partial);
    void keep(const Partial &partial);

    InvocationRoom &room_;
    Delivery &delivery_;
    std::deque<Partial> free_; /* the oldest first */
    std::list<Fold> folds_;    /* their tasks are the delivery's until settled */
    std::uint64_t num_lost_ = 0;
};

} // namespace store
