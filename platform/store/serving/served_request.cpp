/* What is handed out next, and what follows from an end. */
#include "serving/served_request.h"

#include <algorithm>
#include <new>
#include <utility>

namespace store {

namespace {

/* Up to so many are handed out at once: dividing them would cost more than it spreads. */
constexpr std::size_t few_keys = 256;

constexpr std::size_t all_keys = SIZE_MAX;

} // namespace

std::uint64_t Chunk::num_begun() const {
    std::uint64_t num = 0;
    for (std::size_t i = 0; begun != nullptr && i < keys.keys.size(); ++i) {
        num += begun[i].load(std::memory_order_relaxed) ? 1 : 0;
    }
    return num;
}

ServedRequest::ServedRequest(Request its_request, Share its_share, const Guid &its_guid,
                             std::uint32_t known_window)
    : request(std::move(its_request)), guid(its_guid), share_(std::move(its_share)),
      pace_(known_window, request.params_length), results_(request.results_key) {}

/* Feeding ------------------------------------------------------------------------------------- */

Status ServedRequest::open(Objects &objects) {
    return request.is_merge ? OMRALIB_RET_SUCCESS : source_.open(objects, share_);
}

Status ServedRequest::search() {
    return source_.look_for(num_wanted_);
}

void ServedRequest::count_out(const Chunk &chunk) {
    ++num_chunks_out_;
    num_keys_out_ += chunk.keys.keys.size();
}

void ServedRequest::count_in(const Chunk &chunk) {
    --num_chunks_out_;
    num_keys_out_ -= chunk.keys.keys.size();
}

std::shared_ptr<Chunk> ServedRequest::make_chunk(SomeKeys keys, bool is_alone) {
    auto chunk = std::make_shared<Chunk>();
    chunk->request = shared_from_this();
    if (request.progress_is_wanted) {
        chunk->begun = std::make_unique<std::atomic<bool>[]>(keys.keys.size());
    }
    chunk->is_alone = is_alone;
    chunk->results = &results_.begin_chunk();
    chunk->results_key = chunk->results->key;
    chunk->exceptions_key = numbered(request.exceptions_key, is_alone ? 0 : ++last_chunk_);
    chunk->source = request.is_merge ? request.params_key : Key{};
    chunk->keys = std::move(keys);
    num_matched_ += chunk->keys.keys.size();
    has_begun_ = true;
    return chunk;
}

/* The next merge of results objects of this host; nullptr when there is none now. */
std::shared_ptr<Chunk> ServedRequest::make_merge() {
    if (!results_.can_merge(has_all_keys_)) {
        return nullptr;
    }
    auto chunk = std::make_shared<Chunk>();
    const auto merge = results_.begin_merge(has_all_keys_);
    if (!merge) {
        return nullptr;
    }
    chunk->request = shared_from_this();
    chunk->merge = *merge;
    chunk->results_key = merge->target->key;
    chunk->source = merge->source->key;
    chunk->exceptions_key = numbered(request.exceptions_key, ++last_chunk_);
    return chunk;
}

/* What can be handed out without looking for keys. */
std::shared_ptr<Chunk> ServedRequest::next_without_keys() {
    if (put_back_ != nullptr) {
        return waits_for_end_ ? nullptr : std::exchange(put_back_, nullptr);
    }
    if (request.is_merge) {
        return std::exchange(has_all_keys_, true) ? nullptr : make_chunk({}, true);
    }
    return make_merge();
}

ServedRequest::Step ServedRequest::next_step(std::size_t num_readers, Millis now,
                                             std::shared_ptr<Chunk> &chunk) {
    const Guard guard(lock_);
    num_readers_ = num_readers;
    if (is_stopped()) {
        return Step::rest;
    }
    chunk = next_without_keys();
    if (chunk == nullptr) {
        if (has_all_keys_ || put_back_ != nullptr || num_keys_out_ >= pace_.window(num_readers)) {
            return Step::rest;
        }
        const std::size_t size = pace_.chunk_size(num_readers);
        num_wanted_ = has_begun_ ? size : request.is_indivisible ? all_keys : few_keys;
        if (!source_.has(num_wanted_)) {
            return Step::search;
        }
        const bool is_alone = !has_begun_ && source_.ends_within(num_wanted_);
        SomeKeys keys = source_.take(is_alone ? num_wanted_ : size);
        has_all_keys_ = source_.is_empty();
        num_expected_ = source_.num_expected();
        if (keys.keys.empty()) {
            return Step::rest;
        }
        pace_.note_begun(now);
        chunk = make_chunk(std::move(keys), is_alone);
    }
    count_out(*chunk);
    return Step::hand_out;
}

void ServedRequest::put_back(std::shared_ptr<Chunk> chunk, int refusal) {
    const Guard guard(lock_);
    count_in(*chunk);
    if (num_chunks_out_ == 0 || !is_for_the_moment(refusal)) {
        has_failed_ = true;
        refusal_ = refusal;
    } else {
        put_back_ = std::move(chunk);
        waits_for_end_ = true;
    }
}

void ServedRequest::drop_put_back() {
    const Guard guard(lock_);
    put_back_ = nullptr;
}

void ServedRequest::fail(int refusal) {
    const Guard guard(lock_);
    has_failed_ = true;
    refusal_ = refusal;
}

/* What follows -------------------------------------------------------------------------------- */

bool ServedRequest::is_done() const {
    return num_chunks_out_ == 0 &&
           (is_stopped() || (has_all_keys_ && put_back_ == nullptr && results_.is_one()));
}

/* Whether the next step would be another one than to rest; not before half of the window is free,
 * so that nobody is called for every chunk. */
bool ServedRequest::can_go_on() const {
    if (is_stopped()) {
        return false;
    }
    if (put_back_ != nullptr) {
        return !waits_for_end_;
    }
    return results_.can_merge(has_all_keys_) ||
           (!has_all_keys_ && num_keys_out_ <= pace_.window(num_readers_) / 2);
}

ServedRequest::After ServedRequest::after_end() {
    is_fed_ = true;
    if (is_done()) {
        put_back_ = nullptr;
        return After::finishing;
    }
    if (can_go_on()) {
        return After::feeding;
    }
    is_fed_ = false;
    return After::nothing;
}

ServedRequest::After ServedRequest::rest() {
    const Guard guard(lock_);
    return after_end();
}

ServedRequest::After ServedRequest::end(const Chunk &chunk, ChunkEnd end, Millis now) {
    const Guard guard(lock_);
    count_in(chunk);
    waits_for_end_ = false;
    num_over_ += chunk.keys.keys.size();
    if (chunk.results != nullptr) {
        num_failed_ += end.num_failed;
        results_.end_chunk(*chunk.results, end.num_successful, end.results_length);
        pace_.note_done(chunk.keys.keys.size(), now);
    } else {
        num_failed_ += results_.end_merge(chunk.merge, end.num_successful != 0);
    }
    try {
        exceptions_.insert(exceptions_.end(), end.exceptions.begin(), end.exceptions.end());
    } catch (const std::bad_alloc &) {
        lacks_room = true;
    }
    return is_fed_ ? After::nothing : after_end();
}

ServedRequest::After ServedRequest::give_up(const Chunk &chunk) {
    const Guard guard(lock_);
    count_in(chunk);
    has_failed_ = true;
    refusal_ = OMRALIB_INVOKE_NO_MEMORY;
    return is_fed_ ? After::nothing : after_end();
}

RequestProgress ServedRequest::progress() {
    const Guard guard(lock_);
    return {std::max(num_expected_, num_matched_), num_over_};
}

ServedRequest::Outcome ServedRequest::take_outcome() {
    const Guard guard(lock_);
    return {refusal_,
            has_failed_,
            num_matched_,
            results_.num_successful(),
            num_failed_,
            static_cast<std::uint32_t>(pace_.window(0)),
            std::move(exceptions_)};
}

} // namespace store
