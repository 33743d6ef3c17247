/* Operations on a pool. */
#include "rados/pool.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <random>

#include "engine/slots.h"
#include "rados/record.h"

namespace store {

namespace {

/* One RADOS object of a long object's bytes; those of a pool hold 128 MiB by default. */
constexpr std::uint64_t piece_length = std::uint64_t{32} << 20;

std::string piece_name(const std::string &name, std::uint64_t number) {
    return name + "." + std::to_string(number);
}

std::string app_id_name(std::uint32_t app_id) {
    char text[16];
    std::snprintf(text, sizeof text, "a%08x", app_id);
    return text;
}

} // namespace

BufferList buffer_of(Bytes bytes) {
    BufferList list;
    list.append(reinterpret_cast<const char *>(bytes.data()), static_cast<unsigned>(bytes.size()));
    return list;
}

BufferList buffer_of(std::string_view text) {
    return buffer_of(std::as_bytes(std::span(text)));
}

std::string text_of(const Entries &entries, const std::string &name) {
    const auto found = entries.find(name);
    return found != entries.end() ? found->second.to_str() : std::string();
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

int Pool::write(const std::string &name, librados::ObjectWriteOperation &operation) {
    return io_.operate(name, &operation);
}

int Pool::get(const std::string &name, const std::set<std::string> &wanted, Entries &entries_out) {
    Reads reads(*this);
    reads.get(name, wanted, entries_out);
    return reads.wait();
}

/* App ids ---------------------------------------------------------------------------------------
 */

int Pool::add_app_id(std::uint32_t app_id) {
    librados::ObjectWriteOperation operation;
    operation.omap_set({{app_id_name(app_id), BufferList()}});
    return write(meta_name, operation);
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
        operation.write_full(buffer_of(piece));
        if (const int answer = write(piece_name(name, at / piece_length), operation); answer != 0) {
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
        const int length = io_.read(piece_name(name, at / piece_length), list, piece.size(), 0);
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
        io_.remove(piece_name(name, at / piece_length));
    }
}

/* Reads at the same time ------------------------------------------------------------------------
 */

void Reads::start(const std::string &name, librados::ObjectReadOperation &operation) {
    librados::AioCompletion *completion = librados::Rados::aio_create_completion();
    completions_.push_back(completion);
    pool_.io().aio_operate(name, completion, &operation, nullptr);
}

void Reads::get(const std::string &name, const std::set<std::string> &wanted,
                Entries &entries_out) {
    librados::ObjectReadOperation operation;
    operation.omap_get_vals_by_keys(wanted, &entries_out, nullptr);
    start(name, operation);
}

void Reads::list(const std::string &name, const std::string &start_after, const std::string &prefix,
                 Entries &entries_out, bool &more_out) {
    constexpr std::uint64_t page = 1024; /* what an OSD gives at most */
    more_out = false;
    librados::ObjectReadOperation operation;
    operation.omap_get_vals2(start_after, prefix, page, &entries_out, &more_out, nullptr);
    start(name, operation);
}

int Reads::wait() {
    int first_failure = 0;
    bool one_is_missing = false;
    for (librados::AioCompletion *completion : completions_) {
        completion->wait_for_complete();
        const int answer = completion->get_return_value();
        completion->release();
        one_is_missing |= answer == -ENOENT;
        if (first_failure == 0 && answer < 0 && answer != -ENOENT) {
            first_failure = answer;
        }
    }
    completions_.clear();
    /* A pool that is gone answers as an object that is not there. */
    if (first_failure == 0 && one_is_missing) {
        first_failure = pool_.io().stat(Pool::meta_name, nullptr, nullptr);
    }
    return first_failure;
}

} // namespace store
