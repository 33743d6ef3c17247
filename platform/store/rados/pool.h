/* A namespace of a pool as the engine uses it: buckets, and single operations or many at a time.
 *
 * Answers are librados' own: 0 or a negative errno, -ECANCELED when what an operation compares was
 * not so. status_of() makes of them what the seam promises. */
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <rados/librados.hpp>

#include "engine/keys.h"
#include "engine/types.h"

namespace store {

using BufferList = librados::bufferlist;
using Entries = std::map<std::string, BufferList>; /* of one RADOS object, by name */

BufferList buffer_of(Bytes bytes);
BufferList buffer_of(std::string_view text);
std::string text_of(const Entries &entries, const std::string &name); /* "" when it is not there */

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
    Pool(std::unique_ptr<librados::Rados> rados, librados::IoCtx io, std::uint32_t num_buckets)
        : rados_(std::move(rados)), io_(std::move(io)), num_buckets_(num_buckets) {}

    std::uint32_t num_buckets() const { return num_buckets_; }
    Bucket bucket_of(const Key &key) const;

    /* The slots that a bucket keeps together. */
    std::uint32_t slots_per_bucket() const;

    /* A number that no other write of any process has. */
    static std::uint64_t fresh_id();

    int write(const std::string &name, librados::ObjectWriteOperation &operation);

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

    librados::IoCtx &io() { return io_; }

    /* Where what holds for the whole namespace is kept. */
    static constexpr const char *meta_name = "store";

private:
    std::unique_ptr<librados::Rados> rados_; /* the connection of io_ */
    librados::IoCtx io_;
    const std::uint32_t num_buckets_;
};

/* Reads on their way at the same time. */
class Reads {
public:
    explicit Reads(Pool &pool) : pool_(pool) {}
    Reads(const Reads &) = delete;
    Reads &operator=(const Reads &) = delete;
    ~Reads() { wait(); }

    /* The named entries; `entries_out` stays until wait() has returned. */
    void get(const std::string &name, const std::set<std::string> &wanted, Entries &entries_out);

    /* Up to 1,024 entries behind `start_after` whose names begin with `prefix`; `more_out` tells
     * whether there may be more. Both stay until wait() has returned. */
    void list(const std::string &name, const std::string &start_after, const std::string &prefix,
              Entries &entries_out, bool &more_out);

    /* 0, or what the first one that failed answered. An object that is not there has no entries. */
    int wait();

private:
    void start(const std::string &name, librados::ObjectReadOperation &operation);

    Pool &pool_;
    std::vector<librados::AioCompletion *> completions_;
};

} // namespace store
