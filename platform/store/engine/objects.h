/* The seam, first half: objects under keys, and sets of objects.
 *
 * The rooms above know what keeps the objects only through this header. They assume neither that it
 * shares their memory nor that a call is cheap, so an engine may answer from this process's memory
 * (embedded/) or over a network. The other half, hosts and requests, is cluster.h.
 *
 * Conventions, which hold for both halves:
 *  1. A Status is OMRALIB_RET_SUCCESS or a negative code of storlib.h.
 *  2. OMRALIB_ERR_UNKNOWN: the call left and its answer never came, so what it asks for may have
 *     happened, may happen yet, or never. Who gets it looks what became of it, uses a fresh key, or
 *     passes the code on. After any other failure outputs are untouched and the objects are as they
 *     were.
 *  3. Keys are plain and not null. Engines are called by many threads at once.
 *  4. What stores or changes an object answers OMRALIB_ERR_NO_SPACE beyond the memory limit.
 *  5. std::bad_alloc may leave any operation that stores or lists; rule 2 holds for it too. */
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "engine/content.h"
#include "engine/keys.h"
#include "engine/selection.h"
#include "engine/types.h"

namespace store {

/* What an object is made of, besides its key. */
struct ObjectSpec {
    Bytes bytes;
    std::uint32_t timeout_m = 0;            /* minutes after its last use; 0: none */
    std::span<const OMRA_OBJ_INDEX> values; /* of its indexes; each index at most once */
};

struct NewObject {
    Key key;
    ObjectSpec spec;
};

/* What is stored now. */
struct Totals {
    std::uint64_t num_objects = 0;
    std::uint64_t num_bytes = 0;
};

/* What an engine has done since it was made. */
struct Activity {
    std::uint64_t num_expired = 0;    /* objects */
    std::uint64_t num_lock_waits = 0; /* calls of read_and_lock that had to wait */
};

/* The objects of some keys, so that reading them needs no looking up. Used by any number of threads
 * at once. */
class AtHand {
public:
    AtHand() = default;
    AtHand(const AtHand &) = delete;
    AtHand &operator=(const AtHand &) = delete;
    virtual ~AtHand() = default;

    /* A use of the object of the key at `place`: what Objects::read() would answer now. False when
     * it has to be asked. The content is to go before this does. */
    virtual bool read(std::size_t place, Content &content_out) = 0;
};

/* What a scan gives at a time. */
struct ScanPiece {
    std::vector<Key> keys;
    std::unique_ptr<AtHand> at_hand; /* of these keys, if the engine has them */
    bool is_last = false;
};

/* A selection given piece by piece. Every object that is there all the time is given once; one that
 * comes or goes meanwhile, once or not at all. Used by one thread at a time; its objects outlive
 * it. */
class Scan {
public:
    Scan() = default;
    Scan(const Scan &) = delete;
    Scan &operator=(const Scan &) = delete;
    virtual ~Scan() = default;

    /* How many keys are still to come, as far as can be told for nothing; a help for making room.
     */
    virtual std::uint64_t expected() const = 0;

    /* Appends up to `max_keys` keys to the piece; there may be none, and it takes about a
     * millisecond at most where a query is costly. With `hold` the piece, which is empty before,
     * may have its objects at hand and its keys are then in key order; else they are in none. */
    virtual Status next(std::size_t max_keys, bool hold, ScanPiece &piece) = 0;

    /* Records and index values looked at so far: what the scan costs. */
    virtual std::uint64_t num_examined() const = 0;
};

class Objects {
public:
    Objects() = default;
    Objects(const Objects &) = delete;
    Objects &operator=(const Objects &) = delete;
    virtual ~Objects() = default;

    /* One object ------------------------------------------------------------------------------ */

    /* OMRALIB_ERR_OBJ_EXISTS when the key is taken. */
    virtual Status create(const Key &key, const ObjectSpec &spec) = 0;

    /* `renew` is false for a use that leaves the object's time-out running. */
    virtual Status read(const Key &key, bool renew, Content &content_out) = 0;

    /* Reads and locks. The ticket is positive and unlike that of any other lock of this object.
     * OMRALIB_ERR_OBJ_LOCKED when it is locked and stays so for `patience`.
     *
     * The lock has a lease. When that is over, the lock is free for the next and its ticket worth
     * nothing; who holds it keeps it with renew_lock. */
    virtual Status read_and_lock(const Key &key, bool renew, Millis patience, int &ticket_out,
                                 Content &content_out) = 0;

    /* The lease of the lock `ticket` starts anew. OMRALIB_ERR_LOCK_LOST when the object is there
     * but that lock is not. */
    virtual Status renew_lock(const Key &key, int ticket) = 0;

    /* New bytes under the lock `ticket`, which ends on success if `unlock`. OMRALIB_ERR_LOCK_LOST
     * when the object is there but that lock is not. */
    virtual Status update(const Key &key, int ticket, bool unlock, bool renew, Bytes bytes) = 0;
    virtual Status unlock(const Key &key, int ticket) = 0;

    /* Everything of an existing object at once. OMRALIB_ERR_OBJ_LOCKED while it is locked. */
    virtual Status replace(const Key &key, const ObjectSpec &spec) = 0;

    /* Removes the object, locked or not; its lock is gone with it. */
    virtual Status remove(const Key &key) = 0;

    /* Success or OMRALIB_ERR_OBJ_NOT_FOUND; not a use of the object. */
    virtual Status exists(const Key &key) = 0;

    /* A use of the object that reads nothing: its time-out starts anew. */
    virtual Status touch(const Key &key) = 0;

    /* Creates `to` with the bytes of `from`, which is a use of that, and no index values.
     * OMRALIB_ERR_OBJ_EXISTS when `to` is taken. */
    virtual Status copy(const Key &from, const Key &to, std::uint32_t timeout_m) = 0;

    /* Sets of objects ------------------------------------------------------------------------- */

    /* Each as create() and remove(), in any order, with what became of it in `statuses_out` (as
     * long as the first argument). Success when all of them succeeded, else what one that failed
     * answered. */
    virtual Status create_many(std::span<const NewObject> objects, std::span<Status> statuses_out);
    virtual Status remove_many(std::span<const Key> keys, std::span<Status> statuses_out);

    /* Begins to give the selected objects, or those of them in `part` (nullptr: all); not a use of
     * them. The selection's limit is not minded. `selection` and `part` outlive the scan. */
    virtual Status scan(const Selection &selection, const Part *part,
                        std::unique_ptr<Scan> &scan_out) = 0;

    /* How a scan would go about it now. */
    virtual Status explain(const Selection &selection, Explanation &explanation_out) = 0;

    /* Of the objects of an app id, of all ordinary ones (OMRALIB_ALL_APP_IDS), and of all. */
    virtual Status totals_of(std::uint32_t app_id, Totals &totals_out) = 0;
    virtual Status totals(Totals &totals_out) = 0;

    virtual Status activity(Activity &activity_out) = 0;
};

/* Minutes that the objects of an invocation stay after their last use: its own time-out, if it has
 * one, and a minute. */
inline std::uint32_t temp_timeout_m(std::uint32_t invoke_timeout_s) {
    constexpr std::uint64_t grace_s = 60;
    constexpr std::uint64_t max_m = 0xFFFF;
    return static_cast<std::uint32_t>(std::min((invoke_timeout_s + grace_s + 59) / 60, max_m));
}

/* All keys of a selection, or of a part of it, in key order, and no more than the selection's
 * limit; or what `check` answers after some pieces, if that is no success. */
Status find(Objects &objects, const Selection &selection, const Part *part,
            std::vector<Key> &keys_out, const SearchCheck &check = nullptr);

} // namespace store
