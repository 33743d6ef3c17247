/* Registers of requests and contexts, and the cursors of those who read. */
#include "serving/open_chunks.h"

#include <algorithm>
#include <new>

namespace store {

namespace {

/* More than can be on their way to one process at a time. */
constexpr std::size_t max_withdrawn_early = 4096;

} // namespace

/* Some requests may never have been finished. */
OpenChunks::~OpenChunks() {
    for (const auto &request : requests_) {
        request->drop_put_back();
    }
}

/* Requests ------------------------------------------------------------------------------------ */

bool OpenChunks::add(const std::shared_ptr<ServedRequest> &request) {
    const Guard guard(lock_);
    if (withdrawn_early_.erase({request->request.sender, request->request.id}) != 0) {
        return false;
    }
    requests_.push_back(request);
    return true;
}

void OpenChunks::remove(const ServedRequest &request) {
    const Guard guard(lock_);
    std::erase_if(requests_, [&](const auto &open) { return open.get() == &request; });
}

std::shared_ptr<ServedRequest> OpenChunks::find(const HostId &sender, RequestId id) {
    const Guard guard(lock_);
    const auto found = std::find_if(requests_.begin(), requests_.end(),
                                    [&](const auto &request) { return request->is(sender, id); });
    return found != requests_.end() ? *found : nullptr;
}

std::shared_ptr<ServedRequest> OpenChunks::withdraw_one() {
    const Guard guard(lock_);
    const auto found = std::find_if(requests_.begin(), requests_.end(),
                                    [](const auto &request) { return !request->withdrawn; });
    if (found == requests_.end()) {
        return nullptr;
    }
    (*found)->withdrawn = true;
    return *found;
}

void OpenChunks::withdraw(const HostId &sender, RequestId id) {
    const Guard guard(lock_);
    for (const auto &request : requests_) {
        if (request->is(sender, id)) {
            request->withdrawn = true;
            return;
        }
    }
    try {
        withdrawn_early_.emplace(sender, id);
    } catch (const std::bad_alloc &) {
        /* Its work is done for nobody. */
    }
    if (withdrawn_early_.size() > max_withdrawn_early) {
        withdrawn_early_.erase(withdrawn_early_.begin());
    }
}

RequestProgress OpenChunks::progress_of(const HostId &sender, RequestId id) {
    const std::shared_ptr<ServedRequest> request = find(sender, id);
    if (request == nullptr) {
        return {};
    }
    RequestProgress progress = request->progress();
    const Guard guard(lock_);
    for (const auto &[context, chunk] : contexts_) {
        progress.num_begun += chunk->request == request ? chunk->num_begun() : 0;
    }
    return progress;
}

/* Chunks -------------------------------------------------------------------------------------- */

std::uint32_t OpenChunks::hand_out(const std::shared_ptr<Chunk> &chunk) {
    const Guard guard(lock_);
    do {
        ++last_context_;
    } while (last_context_ == 0 || contexts_.contains(last_context_));
    contexts_.emplace(last_context_, chunk);
    num_out_.store(contexts_.size(), std::memory_order_relaxed);
    return last_context_;
}

std::shared_ptr<Chunk> OpenChunks::take(std::uint32_t context) {
    const Guard guard(lock_);
    const auto found = contexts_.find(context);
    if (found == contexts_.end()) {
        return nullptr;
    }
    std::shared_ptr<Chunk> chunk = std::move(found->second);
    contexts_.erase(found);
    num_out_.store(contexts_.size(), std::memory_order_relaxed);
    return chunk;
}

std::shared_ptr<Chunk> OpenChunks::find(std::uint32_t context) {
    const Guard guard(lock_);
    const auto found = contexts_.find(context);
    return found != contexts_.end() ? found->second : nullptr;
}

void OpenChunks::note_update(const Key &key) {
    const Guard guard(lock_);
    for (const auto &[context, chunk] : contexts_) {
        if (chunk->merges() && order_of(chunk->results_key, key) == 0) {
            chunk->has_merged = true;
        }
    }
}

void OpenChunks::note_no_room(const Key &key) {
    const Guard guard(lock_);
    for (const auto &[context, chunk] : contexts_) {
        if (order_of(chunk->results_key, key) == 0 || order_of(chunk->exceptions_key, key) == 0) {
            chunk->request->lacks_room = true;
        }
    }
}

/* Reads --------------------------------------------------------------------------------------- */

namespace {

/* Where `key` is among `keys`, or their number. */
std::size_t place_of(const Key &key, const std::vector<Key> &keys) {
    if (keys.empty() || order_of(key, keys.front()) < 0 || order_of(key, keys.back()) > 0) {
        return keys.size();
    }
    const auto found = std::lower_bound(keys.begin(), keys.end(), key, KeyLess());
    return order_of(*found, key) == 0 ? static_cast<std::size_t>(found - keys.begin())
                                      : keys.size();
}

bool is_marked(const Chunk &chunk, std::size_t place) {
    return chunk.begun != nullptr && chunk.begun[place].load(std::memory_order_relaxed);
}

void mark(Chunk &chunk, std::size_t place) {
    if (chunk.begun != nullptr) {
        chunk.begun[place].store(true, std::memory_order_relaxed);
    }
}

bool is_withdrawn(const Chunk &chunk) {
    return chunk.request->withdrawn.load(std::memory_order_relaxed);
}

} // namespace

OpenChunks::Found OpenChunks::read_here(ReadCursor &cursor, Content &content_out) {
    const SomeKeys &keys = cursor.chunk_->keys;
    const std::size_t place = cursor.place_++;
    return keys.at_hand != nullptr && keys.at_hand->read(keys.first + place, content_out)
               ? Found::at_hand
               : Found::nothing;
}

OpenChunks::Found OpenChunks::read(const Guid &guid, const Key &key, ReadCursor &cursor,
                                   Content &content_out) {
    if (num_out_.load(std::memory_order_relaxed) == 0) {
        cursor.leave();
        return Found::nothing;
    }
    if (Chunk *chunk = cursor.chunk_.get()) {
        const std::vector<Key> &keys = chunk->keys.keys;
        if (cursor.place_ >= keys.size() || order_of(keys[cursor.place_], key) != 0) {
            cursor.place_ = place_of(key, keys);
        }
        if (cursor.place_ < keys.size() && !is_withdrawn(*chunk) &&
            !is_marked(*chunk, cursor.place_)) {
            mark(*chunk, cursor.place_);
            return read_here(cursor, content_out);
        }
    }
    return read_elsewhere(guid, key, cursor, content_out);
}

/* Whoever serves several hosts may read an object for a withdrawn request and for the one that has
 * taken its place: the first read is taken for that of the withdrawn one, which came first. */
OpenChunks::Found OpenChunks::read_elsewhere(const Guid &guid, const Key &key, ReadCursor &cursor,
                                             Content &content_out) {
    bool is_asked_for_in_vain = false;
    std::pair<Chunk *, std::size_t> to_mark{};
    cursor.leave();
    {
        const Guard guard(lock_);
        for (const auto &[context, chunk] : contexts_) {
            const std::size_t place = place_of(key, chunk->keys.keys);
            if (place == chunk->keys.keys.size() || chunk->request->guid != guid) {
                continue;
            }
            const bool in_vain = is_withdrawn(*chunk);
            if (!is_marked(*chunk, place) && (to_mark.first == nullptr || in_vain)) {
                to_mark = {chunk.get(), place};
            }
            if (in_vain) {
                is_asked_for_in_vain = true;
            } else if (cursor.chunk_ == nullptr) {
                cursor.chunk_ = chunk;
                cursor.place_ = place;
            }
        }
        if (to_mark.first != nullptr) {
            mark(*to_mark.first, to_mark.second);
        }
    }
    if (cursor.chunk_ == nullptr) {
        return is_asked_for_in_vain ? Found::withdrawn : Found::nothing;
    }
    if (!cursor.is_counted_) {
        cursor.is_counted_ = true;
        ++num_readers_;
    }
    return read_here(cursor, content_out);
}

void OpenChunks::forget(ReadCursor &cursor) {
    cursor.leave();
    num_readers_ -= std::exchange(cursor.is_counted_, false) ? 1 : 0;
}

} // namespace store
