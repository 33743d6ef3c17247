/* Operations on a pool. */
#include "rados/pool.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

#include <rados/librados.hpp>

#include "engine/slots.h"
#include "rados/record.h"

namespace store {

namespace {

/* Where what holds for the whole namespace is kept, and the entry with the number of buckets. */
const std::string meta_name = "store";
const std::string buckets_name = "buckets";

/* One RADOS object of a long object's bytes; those of a pool hold 128 MiB by default. */
constexpr std::uint64_t piece_length = std::uint64_t{32} << 20;

std::string piece_name(const std::string &name, std::uint64_t number) {
    return name + "." + std::to_string(number);
}

using BufferList = librados::bufferlist;

BufferList buffer_of(const void *bytes, std::size_t length) {
    BufferList list;
    list.append(static_cast<const char *>(bytes), static_cast<unsigned>(length));
    return list;
}

BufferList buffer_of(const std::string &text) {
    return buffer_of(text.data(), text.size());
}

/* The class numops adds to numbers that are not there as to 0. It wants its arguments with their
 * lengths in front. */
void add(librados::ObjectWriteOperation &operation, const std::string &name, std::int64_t number) {
    BufferList arguments;
    for (const std::string &argument : {name, std::to_string(number)}) {
        const auto length = static_cast<std::uint32_t>(argument.size());
        arguments.append(reinterpret_cast<const char *>(&length), sizeof length);
        arguments.append(argument);
    }
    operation.exec("numops", "add", arguments);
}

std::string app_id_name(std::uint32_t app_id) {
    char text[16];
    std::snprintf(text, sizeof text, "a%08x", app_id);
    return text;
}

} // namespace

const std::string &text_of(const Entries &entries, const std::string &name) {
    static const std::string none;
    const auto found = entries.find(name);
    return found != entries.end() ? found->second : none;
}

Status status_of(int answer) {
    switch (answer) {
    case 0:
        return OMRALIB_RET_SUCCESS;
    case -ENOSPC:
    case -EDQUOT:
    case -ENOMEM:
        return OMRALIB_ERR_NO_SPACE;
    default:
        return OMRALIB_ERR_UNKNOWN;
    }
}

std::string Bucket::name() const {
    char text[32];
    std::snprintf(text, sizeof text, "b.%08x.%02x", app_id, number);
    return text;
}

std::uint32_t Pool::slots_per_bucket() const {
    return num_slots / num_buckets_;
}

Bucket Pool::bucket_of(const Key &key) const {
    return {key.app_id, slot_of(hash_of(key)) / slots_per_bucket()};
}

std::uint64_t Pool::fresh_id() {
    static thread_local std::mt19937_64 random{[] {
        std::random_device device;
        return (std::uint64_t{device()} << 32) ^ device();
    }()};
    return random();
}

Pool::Pool(std::unique_ptr<librados::Rados> rados, std::unique_ptr<librados::IoCtx> io)
    : rados_(std::move(rados)), io_(std::move(io)) {}

Pool::Pool(Pool &&) noexcept = default;
Pool::~Pool() = default;

int Pool::settle_buckets(std::uint32_t wanted) {
    int answer = write(meta_name, {.expected = {{buckets_name, ""}},
                                   .set = {{buckets_name, std::to_string(wanted)}},
                                   .removed = {},
                                   .added = {}});
    if (answer != 0 && answer != -ECANCELED) {
        return answer;
    }
    Entries entries;
    answer = get(meta_name, {buckets_name}, entries);
    if (answer == 0) {
        num_buckets_ = static_cast<std::uint32_t>(
            std::strtoul(text_of(entries, buckets_name).c_str(), nullptr, 10));
    }
    return answer == 0 && num_buckets_ == 0 ? -EBADMSG : answer;
}

int Pool::write(const std::string &name, const Write &write) {
    librados::ObjectWriteOperation operation;
    operation.create(false); /* before what compares, which refuses an object that is not there */
    if (!write.expected.empty()) {
        std::map<std::string, std::pair<BufferList, int>> expected;
        for (const auto &[entry, value] : write.expected) {
            expected[entry] = {buffer_of(value), LIBRADOS_CMPXATTR_OP_EQ};
        }
        operation.omap_cmp(expected, nullptr);
    }
    if (!write.removed.empty()) {
        operation.omap_rm_keys(write.removed);
    }
    if (!write.set.empty()) {
        std::map<std::string, BufferList> set;
        for (const auto &[entry, value] : write.set) {
            set[entry] = buffer_of(value);
        }
        operation.omap_set(set);
    }
    for (const auto &[entry, number] : write.added) {
        add(operation, entry, number);
    }
    return io_->operate(name, &operation);
}

int Pool::get(const std::string &name, const std::set<std::string> &wanted, Entries &entries_out) {
    Reads reads(*this);
    reads.get(name, wanted, entries_out);
    return reads.wait();
}

/* App ids ---------------------------------------------------------------------------------------
 */

int Pool::add_app_id(std::uint32_t app_id) {
    return write(meta_name,
                 {.expected = {}, .set = {{app_id_name(app_id), ""}}, .removed = {}, .added = {}});
}

int Pool::app_ids(std::vector<std::uint32_t> &app_ids_out) {
    std::string last;
    bool more = true;
    while (more) {
        Entries entries;
        Reads reads(*this);
        reads.list(meta_name, last, "a", entries, more);
        if (const int answer = reads.wait(); answer != 0) {
            return answer;
        }
        for (const auto &[name, value] : entries) {
            app_ids_out.push_back(
                static_cast<std::uint32_t>(std::stoul(name.substr(1), nullptr, 16)));
            last = name;
        }
    }
    return 0;
}

/* Long objects ----------------------------------------------------------------------------------
 */

int Pool::write_pieces(const std::string &name, Bytes bytes) {
    for (std::uint64_t at = 0; at < bytes.size(); at += piece_length) {
        const Bytes piece = bytes.subspan(at, std::min(piece_length, bytes.size() - at));
        librados::ObjectWriteOperation operation;
        operation.write_full(buffer_of(piece.data(), piece.size()));
        const int answer = io_->operate(piece_name(name, at / piece_length), &operation);
        if (answer != 0) {
            remove_pieces(name, at + 1);
            return answer;
        }
    }
    return 0;
}

int Pool::read_pieces(const std::string &name, std::span<std::byte> bytes) {
    for (std::uint64_t at = 0; at < bytes.size(); at += piece_length) {
        const auto piece = bytes.subspan(at, std::min(piece_length, bytes.size() - at));
        BufferList list;
        const int length = io_->read(piece_name(name, at / piece_length), list, piece.size(), 0);
        if (length < 0) {
            return length;
        }
        if (static_cast<std::size_t>(length) != piece.size()) {
            return -ENOENT;
        }
        std::memcpy(piece.data(), list.c_str(), piece.size());
    }
    return 0;
}

void Pool::remove_pieces(const std::string &name, std::uint64_t length) {
    for (std::uint64_t at = 0; at < length; at += piece_length) {
        io_->remove(piece_name(name, at / piece_length));
    }
}

/* Reads at the same time ------------------------------------------------------------------------
 */

struct Reads::Read {
    Entries &entries_out;
    librados::ObjectReadOperation operation = {};
    librados::AioCompletion *completion = librados::Rados::aio_create_completion();
    std::map<std::string, BufferList> entries = {};
};

Reads::Reads(Pool &pool) : pool_(pool) {}

Reads::~Reads() {
    wait();
}

Reads::Read &Reads::start(Entries &entries_out) {
    return *reads_.emplace_back(new Read{entries_out});
}

void Reads::get(const std::string &name, const std::set<std::string> &wanted,
                Entries &entries_out) {
    Read &read = start(entries_out);
    read.operation.omap_get_vals_by_keys(wanted, &read.entries, nullptr);
    pool_.io_->aio_operate(name, read.completion, &read.operation, nullptr);
}

void Reads::list(const std::string &name, const std::string &start_after, const std::string &prefix,
                 Entries &entries_out, bool &more_out) {
    constexpr std::uint64_t page = 1024; /* what an OSD gives at most */
    more_out = false;
    Read &read = start(entries_out);
    read.operation.omap_get_vals2(start_after, prefix, page, &read.entries, &more_out, nullptr);
    pool_.io_->aio_operate(name, read.completion, &read.operation, nullptr);
}

int Reads::wait() {
    int first_failure = 0;
    bool one_is_missing = false;
    for (const auto &read : reads_) {
        read->completion->wait_for_complete();
        const int answer = read->completion->get_return_value();
        read->completion->release();
        one_is_missing |= answer == -ENOENT;
        if (first_failure == 0 && answer < 0 && answer != -ENOENT) {
            first_failure = answer;
        }
        for (auto &[name, value] : read->entries) {
            read->entries_out.emplace_hint(read->entries_out.end(), name, value.to_str());
        }
    }
    reads_.clear();
    /* A pool that is gone answers as an object that is not there. */
    if (first_failure == 0 && one_is_missing) {
        first_failure = pool_.io_->stat(meta_name, nullptr, nullptr);
    }
    return first_failure;
}

} // namespace store
