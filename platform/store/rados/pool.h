/* A namespace of a pool as the engine uses it: buckets, and single operations or many at a time.
 *
 * Only pool.cpp and opening.cpp know librados. Answers are its own: 0 or a negative errno,
 * -ECANCELED when what an operation compares was not so. status_of() makes of them what the seam
 * promises. */
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <rados/librados_fwd.hpp>

#include "engine/keys.h"
#include "engine/types.h"

namespace store {

using Entries = std::map<std::string, std::string>; /* of one RADOS object, by name */

const std::string &text_of(const Entries &entries, const std::string &name); /* "": none is there */

/* One write of a RADOS object, which is made if it is not there. All of it happens, or, when an
 * entry is not as expected, nothing: -ECANCELED. */
struct Write {
    Entries expected; /* "": there is none */
    Entries set;
    std::set<std::string> removed;
    std::map<std::string, std::int64_t> added; /* to entries that are numbers */
};

/* What became of an operation, in the words of the seam: success, no space, or unknown. */
Status status_of(int answer);

/* Where a key's record is. */
struct Bucket {
    std::uint32_t app_id;
    std::uint32_t number;

    std::string name() const;
};

class Pool {
public:
    /* `rados` is the connection of `io`. */
    Pool(std::unique_ptr<librados::Rados> rados, std::unique_ptr<librados::IoCtx> io);
    Pool(Pool &&) noexcept;
    ~Pool();

    /* How many buckets an app id has: `wanted` in a namespace without objects, else what has been
     * settled by its first user. Before anything that asks for buckets. */
    int settle_buckets(std::uint32_t wanted);

    std::uint32_t num_buckets() const { return num_buckets_; }
    Bucket bucket_of(const Key &key) const;

    /* The slots that a bucket keeps together. */
    std::uint32_t slots_per_bucket() const;

    /* A number that no other write of any process has. */
    static std::uint64_t fresh_id();

    int write(const std::string &name, const Write &write);

    /* The named entries of a RADOS object, those of them that are there. An object that is not
     * there has none. */
    int get(const std::string &name, const std::set<std::string> &wanted, Entries &entries_out);

    /* App ids that objects have been stored under. */
    int add_app_id(std::uint32_t app_id);
    int app_ids(std::vector<std::uint32_t> &app_ids_out);

    /* Bytes that are too long for a bucket: in RADOS objects of their own. */
    int write_pieces(const std::string &name, Bytes bytes);
    int read_pieces(const std::string &name, std::span<std::byte> bytes);
    void remove_pieces(const std::string &name, std::uint64_t length);

private:
    friend class Reads;

    std::unique_ptr<librados::Rados> rados_; /* outlives io_ */
    std::unique_ptr<librados::IoCtx> io_;
    std::uint32_t num_buckets_ = 0;
};

/* Reads on their way at the same time. */
class Reads {
public:
    explicit Reads(Pool &pool);
    Reads(const Reads &) = delete;
    Reads &operator=(const Reads &) = delete;
    ~Reads();

    /* The named entries; `entries_out` stays until wait() has returned. */
    void get(const std::string &name, const std::set<std::string> &wanted, Entries &entries_out);

    /* Up to 1,024 entries behind `start_after` whose names begin with `prefix`; `more_out` tells
     * whether there may be more. Both stay until wait() has returned. */
    void list(const std::string &name, const std::string &start_after, const std::string &prefix,
              Entries &entries_out, bool &more_out);

    /* 0, or what the first one that failed answered. An object that is not there has no entries. */
    int wait();

private:
    struct Read;

    Read &start(Entries &entries_out);

    Pool &pool_;
    std::vector<std::unique_ptr<Read>> reads_;
};

} // namespace store
