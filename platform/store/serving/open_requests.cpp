/* Contexts, and the notes of those who read. */
#include "serving/open_requests.h"

#include <algorithm>
#include <new>

namespace store {

namespace {

/* More than can be on their way to one process at a time. */
constexpr std::size_t max_withdrawn_early = 4096;

} // namespace

OpenRequest::OpenRequest(Request its_request, std::vector<Key> its_keys, const Guid &its_guid)
    : request(std::move(its_request)), keys(std::move(its_keys)), guid(its_guid),
      begun(request.progress_is_wanted ? std::make_unique<std::atomic<bool>[]>(keys.size())
                                       : nullptr) {}

std::uint64_t OpenRequest::num_begun() const {
    std::uint64_t num = 0;
    for (std::size_t i = 0; begun != nullptr && i < keys.size(); ++i) {
        num += begun[i].load(std::memory_order_relaxed) ? 1 : 0;
    }
    return num;
}

/* Contexts ------------------------------------------------------------------------------------ */

std::uint32_t OpenRequests::add(const std::shared_ptr<OpenRequest> &request) {
    const Guard guard(lock_);
    if (withdrawn_early_.erase({request->request.sender, request->request.id}) != 0) {
        return 0;
    }
    do {
        ++last_context_;
    } while (last_context_ == 0 || contexts_.contains(last_context_));
    const bool noticed = request->is_noticed();
    contexts_.emplace(last_context_, request);
    num_noticed_ += noticed ? 1 : 0;
    ++version_;
    return last_context_;
}

std::shared_ptr<OpenRequest> OpenRequests::take(std::uint32_t context) {
    const Guard guard(lock_);
    const auto found = contexts_.find(context);
    if (found == contexts_.end()) {
        return nullptr;
    }
    std::shared_ptr<OpenRequest> request = std::move(found->second);
    contexts_.erase(found);
    num_noticed_ -= request->is_noticed() ? 1 : 0;
    ++version_;
    return request;
}

std::shared_ptr<OpenRequest> OpenRequests::find(std::uint32_t context) {
    const Guard guard(lock_);
    const auto found = contexts_.find(context);
    return found != contexts_.end() ? found->second : nullptr;
}

std::shared_ptr<OpenRequest> OpenRequests::find(const HostId &sender, RequestId id) {
    const auto found = std::find_if(contexts_.begin(), contexts_.end(), [&](const auto &entry) {
        return entry.second->is(sender, id);
    });
    return found != contexts_.end() ? found->second : nullptr;
}

void OpenRequests::withdraw(OpenRequest &request) {
    num_noticed_ += request.is_noticed() ? 0 : 1;
    request.withdrawn = true;
    ++version_;
}

std::shared_ptr<OpenRequest> OpenRequests::withdraw_one() {
    const Guard guard(lock_);
    const auto found = std::find_if(contexts_.begin(), contexts_.end(),
                                    [](const auto &entry) { return !entry.second->withdrawn; });
    if (found == contexts_.end()) {
        return nullptr;
    }
    withdraw(*found->second);
    return found->second;
}

void OpenRequests::withdraw(const HostId &sender, RequestId id) {
    const Guard guard(lock_);
    if (const std::shared_ptr<OpenRequest> request = find(sender, id)) {
        withdraw(*request);
        return;
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

bool OpenRequests::is_withdrawn(const HostId &sender, RequestId id) {
    const Guard guard(lock_);
    return withdrawn_early_.contains({sender, id});
}

RequestProgress OpenRequests::progress_of(const HostId &sender, RequestId id) {
    std::shared_ptr<OpenRequest> request;
    {
        const Guard guard(lock_);
        request = find(sender, id);
    }
    return request != nullptr ? RequestProgress{request->keys.size(), request->num_begun()}
                              : RequestProgress{};
}

bool OpenRequests::forget_withdrawn(const HostId &sender, RequestId id) {
    const Guard guard(lock_);
    return withdrawn_early_.erase({sender, id}) != 0;
}

void OpenRequests::note_update(const Key &key) {
    const Guard guard(lock_);
    for (const auto &[context, request] : contexts_) {
        if (request->request.is_merge && order_of(request->request.results_key, key) == 0) {
            request->has_merged = true;
        }
    }
}

void OpenRequests::note_no_room(const Key &key) {
    const Guard guard(lock_);
    for (const auto &[context, open] : contexts_) {
        if (order_of(open->request.results_key, key) == 0 ||
            order_of(open->request.exceptions_key, key) == 0) {
            open->lacks_room = true;
        }
    }
}

/* Reads --------------------------------------------------------------------------------------- */

namespace {

/* Where `key` is among `keys`, or their number. Readers go through the keys in their order, so it
 * is mostly at `place` or a little behind. */
std::size_t place_of(const Key &key, const std::vector<Key> &keys, std::size_t place) {
    constexpr std::size_t near = 16;
    auto begin = keys.begin() + static_cast<std::ptrdiff_t>(std::min(place, keys.size()));
    auto end = keys.end();
    if (begin != end && order_of(*begin, key) <= 0) {
        if (static_cast<std::size_t>(end - begin) > near && order_of(begin[near], key) > 0) {
            end = begin + near;
        }
    } else {
        end = begin;
        begin = keys.begin();
    }
    const auto found = std::lower_bound(begin, end, key, KeyLess());
    return found != end && order_of(*found, key) == 0
               ? static_cast<std::size_t>(found - keys.begin())
               : keys.size();
}

} // namespace

void OpenRequests::update(const Guid &guid, ReadNotes &notes) {
    notes.clear();
    const Guard guard(lock_);
    for (const auto &[context, request] : contexts_) {
        if (request->guid == guid && !request->keys.empty()) {
            notes.requests_.push_back({request});
        }
    }
    notes.version_ = version_.load(std::memory_order_relaxed);
}

/* Whoever serves several hosts may read an object for a withdrawn request and for the one that has
 * taken its place: the first read is taken for that of the withdrawn one, which came first. */
bool OpenRequests::note_read(const Guid &guid, const Key &key, ReadNotes &notes) {
    if (guid == Guid{}) {
        return true;
    }
    if (notes.version_ != version_.load(std::memory_order_acquire)) {
        update(guid, notes);
    }
    bool is_withdrawn = false;
    bool is_wanted = false;
    std::atomic<bool> *mark = nullptr;
    for (ReadNotes::Known &known : notes.requests_) {
        const OpenRequest &request = *known.request;
        const std::size_t place = place_of(key, request.keys, known.place);
        if (place == request.keys.size()) {
            continue;
        }
        known.place = place + 1;
        const bool withdrawn = request.withdrawn.load(std::memory_order_relaxed);
        (withdrawn ? is_withdrawn : is_wanted) = true;
        if (request.begun != nullptr && (mark == nullptr || withdrawn) &&
            !request.begun[place].load(std::memory_order_relaxed)) {
            mark = &request.begun[place];
        }
    }
    if (mark != nullptr) {
        mark->store(true, std::memory_order_relaxed);
    }
    return is_wanted || !is_withdrawn;
}

} // namespace store
