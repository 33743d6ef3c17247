/* Mail comes in under the lock of the mailroom; waiting for it looks out for a moment first. */
#include "invocation/mailroom.h"

#include <utility>

#include "common/spin_wait.h"

namespace store {

Mailbox::Mailbox(Mailroom &room) : room_(room) {
    const Guard guard(room_.lock_);
    room_.boxes_.insert(this);
}

Mailbox::~Mailbox() {
    const Guard guard(room_.lock_);
    room_.boxes_.erase(this);
}

Mailroom::Mailroom(Clock &clock) : clock_(clock) {
    clock_.add_listener([this] {
        const Guard guard(lock_);
        for (Mailbox *box : boxes_) {
            box->wake_.notify_all();
        }
    });
}

void Mailroom::expect(RequestId request, Mailbox &box) {
    const Guard guard(lock_);
    /* Room for the reply is made here, where running out of memory can still be told. */
    box.replies_.reserve(box.replies_.size() + box.num_expected_ + 1);
    expected_.emplace(request, &box);
    ++box.num_expected_;
}

bool Mailroom::forget(RequestId request) {
    const Guard guard(lock_);
    const auto found = expected_.find(request);
    if (found == expected_.end()) {
        return false;
    }
    --found->second->num_expected_;
    expected_.erase(found);
    return true;
}

Status Mailroom::deliver(const Reply &reply) {
    const Guard guard(lock_);
    const auto found = expected_.find(reply.request);
    if (found == expected_.end()) {
        return OMRALIB_ERR_BAD_ARGS;
    }
    Mailbox &box = *found->second;
    expected_.erase(found);
    --box.num_expected_;
    box.replies_.push_back(reply);
    box.has_mail_.store(true, std::memory_order_relaxed);
    box.wake_.notify_all();
    return OMRALIB_RET_SUCCESS;
}

std::vector<Reply> Mailroom::take(Mailbox &box) {
    std::vector<Reply> replies;
    const Guard guard(lock_);
    if (!box.replies_.empty()) {
        replies.reserve(box.num_expected_); /* what is expected still has its room */
        replies.swap(box.replies_);
    }
    return replies;
}

void Mailroom::wait(Mailbox &box, Millis until) {
    platform::look_out_for([&] { return box.has_mail_.load(std::memory_order_relaxed); });
    MutexLock lock(lock_);
    box.has_mail_.store(false, std::memory_order_relaxed);
    if (box.replies_.empty() && !box.nudged_ && !box.cancelled_ && clock_.now() < until) {
        clock_.wait(lock.native(), box.wake_, until);
    }
    box.nudged_ = false;
}

void Mailroom::nudge(Mailbox &box) {
    const Guard guard(lock_);
    box.nudged_ = true;
    box.has_mail_.store(true, std::memory_order_relaxed);
    box.wake_.notify_all();
}

void Mailroom::cancel(Mailbox &box) {
    const Guard guard(lock_);
    box.cancelled_ = true;
    box.has_mail_.store(true, std::memory_order_relaxed);
    box.wake_.notify_all();
}

bool Mailroom::is_cancelled(const Mailbox &box) {
    const Guard guard(lock_);
    return box.cancelled_;
}

} // namespace store
