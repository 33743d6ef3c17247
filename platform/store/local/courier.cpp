/* The courier's thread. */
#include "local/courier.h"

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

void Courier::add(Errand errand) {
    {
        const Guard guard(lock_);
        if (!thread_.joinable()) {
            thread_ = std::thread(&Courier::run, this);
        }
        waiting_.push_back(std::move(errand));
    }
    wake_.notify_one();
}

void Courier::send(Request request) {
    Reply refusal = refusal_of(request);
    try {
        add(std::move(request));
    } catch (const std::system_error &) {
        refusal.refusal = OMRALIB_ERR_NO_WORKER; /* nor will there be a thread in a moment */
        sink_.on_reply(refusal);
    } catch (const std::bad_alloc &) {
        sink_.on_reply(refusal);
    }
}

void Courier::call_back(const HostId &sender, RequestId request) {
    add(CallBack{sender, request});
}

bool Courier::take_back(RequestId request) {
    const Guard guard(lock_);
    return std::erase_if(waiting_, [&](const Errand &errand) {
               const Request *waiting = std::get_if<Request>(&errand);
               return waiting != nullptr && waiting->id == request;
           }) > 0;
}

void Courier::run() {
    for (;;) {
        Errand errand;
        {
            MutexLock lock(lock_);
            while (!ending_ && waiting_.empty()) {
                wake_.wait(lock.native());
            }
            if (ending_) {
                return;
            }
            errand = std::move(waiting_.front());
            waiting_.pop_front();
        }
        carry_out(std::move(errand));
    }
}

void Courier::carry_out(Errand errand) {
    if (Request *request = std::get_if<Request>(&errand)) {
        hand_over(std::move(*request));
    } else {
        const CallBack &call = std::get<CallBack>(errand);
        receiver_.go_on(call.sender, call.request);
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
