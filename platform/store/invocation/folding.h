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
#include <vector>

#include "invocation/delivery.h"

namespace store {

class Folding {
public:
    Folding(Shared &shared, Delivery &delivery) : shared_(shared), delivery_(delivery) {}
    Folding(const Folding &) = delete;
    Folding &operator=(const Folding &) = delete;

    /* There will be no more than so many at a time: from now on adding needs no memory. */
    void expect(std::size_t num_partials) { free_.reserve(num_partials); }

    void add(const Partial &partial) { free_.push_back(partial); }

    /* Gives the delivery folds to do. */
    void start();

    /* One of them is over: completed or lost. `left_exceptions_out` says whether there is an object
     * at its exceptions key. OMRALIB_ERR_UNKNOWN when it cannot be known what became of it. */
    Status settle(const Task &task, bool &left_exceptions_out);

    /* Keeps the time-outs of what waits from passing. */
    void renew();

    /* The one result that is left when nothing is being folded any more, which is still to be
     * discarded unless it is handed on; a null key when there is none. OMRALIB_ERR_UNKNOWN when it
     * cannot be known whether it is there. */
    Status finish(Key &key_out);

    /* Removes all that is left, after the delivery has been stopped. */
    void discard();
    void discard(const Task &task);

    /* Objects that were evaluated but whose result is lost. */
    std::uint64_t num_lost() const { return num_lost_; }

private:
    void lose(const Partial &partial);
    Status keep(const Partial &partial);

    Shared &shared_;
    Delivery &delivery_;
    std::vector<Partial>
        free_; /* the oldest first; the others are in folds, which the delivery has */
    std::uint64_t num_lost_ = 0;
};

} // namespace store
