#include "embedded/courier.h"

#include <algorithm>
#include <exception>
#include <new>

namespace store {

Courier::~Courier() {
    {
        const std::lock_guard guard(lock_);
        ending_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Courier::send(const RequestPtr &request) {
    try {
        const std::lock_guard guard(lock_);
        if (!thread_.joinable()) {
            thread_ = std::thread(&Courier::run, this);
        }
        waiting_.push_back(request);
    } catch (const std::exception &) {
        refuse(*request);
        return;
    }
    wake_.notify_one();
}

bool Courier::take_back(RequestId request) {
    const std::lock_guard guard(lock_);
    return std::erase_if(waiting_, [&](const RequestPtr &it) { return it->id == request; }) > 0;
}

void Courier::run() {
    std::unique_lock lock(lock_);
    for (;;) {
        wake_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
        if (ending_) {
            return;
        }
        RequestPtr request = std::move(waiting_.front());
        waiting_.pop_front();
        lock.unlock();
        hand_over(request);
        request.reset();
        lock.lock();
    }
}

void Courier::hand_over(const RequestPtr &request) {
    try {
        receiver_.receive(request);
    } catch (const std::bad_alloc &) {
        refuse(*request);
    }
}

void Courier::refuse(const Request &request) {
    Reply reply;
    reply.request = request.id;
    reply.to = request.sender;
    reply.kind = Reply::Kind::refused;
    reply.refusal = OMRALIB_INVOKE_NO_MEMORY;
    sink_.on_reply(reply);
}

} // namespace store
