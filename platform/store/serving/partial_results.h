/* The results objects of one request on this host, of which one is left in the end.
 *
 * Chunks merge their results into one object, one after the other. Where results grow with what is
 * merged into them, that would copy what is there again and again; so an object that has grown
 * large is closed, and the next chunks begin another. Closed objects are merged two by two, those
 * of equal level first, so that nothing is copied more often than there are levels:
 *
 *   chunks --> open --has grown--> closed, level 0 --+
 *                                  closed, level 0 --+--> closed, level 1 --...
 *
 * Always the younger is merged into the older, and the first one is the request's own.
 *
 * Left to others: what merges, and the objects themselves. */
#pragma once

#include <cstdint>
#include <list>
#include <optional>

#include "engine/keys.h"

namespace store {

/* Used by one thread at a time. */
class PartialResults {
public:
    struct Partial {
        Key key{};
        std::uint64_t num_successful = 0; /* objects behind it */
        std::uint64_t length = 0;         /* bytes; 0 while it may not be there */
        std::size_t num_users = 0;        /* chunks, or a merge */
        unsigned int level = 0;
        bool is_closed = false;
    };

    /* The source, which is the next younger one, is to be merged into the target. */
    struct Merge {
        Partial *target = nullptr;
        Partial *source = nullptr;
    };

    /* `key` is the request's own. */
    explicit PartialResults(const Key &key) { partials_.push_back({key}); }

    /* That of the next chunk, which uses it until end_chunk(). Throws std::bad_alloc. */
    Partial &begin_chunk();

    /* `length` is that of the object by now, or 0 when it is not known. */
    void end_chunk(Partial &partial, std::uint64_t num_successful, std::uint64_t length);

    /* A merge to be done now, until end_merge(). With `all`, no more chunks will come. */
    std::optional<Merge> begin_merge(bool all);

    bool can_merge(bool all) const;

    /* The source's object is to go. How many objects have been lost with it, if the merge has not
     * happened. */
    std::uint64_t end_merge(const Merge &merge, bool happened);

    /* Once no more chunks will come: whether one is left, and nobody uses it. */
    bool is_one() const { return partials_.size() == 1 && partials_.front().num_users == 0; }

    std::uint64_t num_successful() const;

    /* `visit(key)` for each of them. */
    template <typename Visit>
    void for_each_key(Visit visit) const {
        for (const Partial &partial : partials_) {
            visit(partial.key);
        }
    }

private:
    static bool are_mergeable(const Partial &target, const Partial &source, bool all);

    std::list<Partial> partials_; /* oldest first; the last one may be open */
    std::uint64_t last_number_ = 0;
    std::uint64_t first_length_ = 0; /* of a chunk's results alone */
};

} // namespace store
