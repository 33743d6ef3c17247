/* The courier's thread. */
#include "embedded/courier.h"

#include <exception>
#include <new>
#include <system_error>
#include <utility>

namespace store {

namespace {

Reply refusal_of(const Request &request) {
    Reply reply;
    reply.request = request.id;
    reply.to = request.sender;
    reply.from = request.share.host;
    reply.kind = Reply::Kind::refused;
    reply.refusal = OMRALIB_INVOKE_NO_MEMORY;
    return reply;
}

} // namespace

Courier::~Courier() {
    {
        const Guard guard(lock_);
        ending_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

void Courier::send(Request request) {
    Reply refusal = refusal_of(request);
    try {
        const Guard guard(lock_);
        if (!thread_.joinable()) {
            thread_ = std::thread(&Courier::run, this);
        }
        waiting_.push_back(std::move(request));
    } catch (const std::system_error &) {
        refusal.refusal = OMRALIB_ERR_NO_WORKER; /* nor will there be a thread in a moment */
        sink_.on_reply(refusal);
        return;
    } catch (const std::bad_alloc &) {
        sink_.on_reply(refusal);
        return;
    }
    wake_.notify_one();
}

bool Courier::take_back(RequestId request) {
    const Guard guard(lock_);
    return std::erase_if(waiting_, [&](const Request &it) { return it.id == request; }) > 0;
}

void Courier::run() {
    for (;;) {
        Request request;
        {
            MutexLock lock(lock_);
            while (!ending_ && waiting_.empty()) {
                wake_.wait(lock.native());
            }
            if (ending_) {
                return;
            }
            request = std::move(waiting_.front());
            waiting_.pop_front();
        }
        hand_over(std::move(request));
    }
}

void Courier::hand_over(Request request) {
    const Reply refusal = refusal_of(request);
    try {
        receiver_.receive(std::move(request));
    } catch (const std::exception &) {
        sink_.on_reply(refusal);
    }
}

} // namespace store
