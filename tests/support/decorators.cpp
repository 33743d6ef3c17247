// The requests of a cluster that is decorated, on their way to a host and back.
#include "support/decorators.h"
#include "support/failing_memory.h"

namespace store {

namespace {

// This thread brings a request to its host, which may reply, again and again, before it is done.
thread_local bool is_bringing = false;

} // namespace

void DecoratedCluster::attach(RequestReceiver &receiver, ReplySink &sink, EventReceiver &events) {
    upwards_.receiver = &receiver;
    upwards_.sink = &sink;
    inner_->attach(upwards_, upwards_, events);
}

Status DecoratedCluster::send(Request request) {
    return pass([&](Cluster &inner) {
        const RequestId id = request.id;
        waited_for_ = in_order ? id : 0;
        const Status status = inner.send(std::move(request));
        if (status == OMRALIB_RET_SUCCESS) {
            waited_for_.wait(id);
        }
        return status;
    });
}

// In order: on the thread that asks, which is in no call of the receiver that this would disturb.
Status DecoratedCluster::call_back(const HostId &host, const HostId &sender, RequestId request) {
    if (in_order) {
        if (on_receive) {
            on_receive(host);
        }
        const failing_memory::Exposure exposure(true);
        upwards_.receiver->go_on(sender, request);
        return OMRALIB_RET_SUCCESS;
    }
    return inner_->call_back(host, sender, request);
}

void DecoratedCluster::note_answered(RequestId request) {
    if (waited_for_.compare_exchange_strong(request, 0)) {
        waited_for_.notify_all();
    }
}

void DecoratedCluster::Upwards::receive(Request request) {
    const RequestId id = request.id;
    if (cluster.on_receive) {
        cluster.on_receive(request.share.host);
    }
    try {
        const failing_memory::Exposure exposure(true);
        is_bringing = true;
        receiver->receive(std::move(request));
        is_bringing = false;
    } catch (...) {
        is_bringing = false; /* whoever hears of it refuses the request */
        throw;
    }
    cluster.note_answered(id);
}

Status DecoratedCluster::Upwards::on_reply(const Reply &reply) {
    const Status status = sink->on_reply(reply);
    if (!is_bringing && reply.kind != Reply::Kind::completed) {
        cluster.note_answered(reply.request);
    }
    return status;
}

} // namespace store

store::Engine decorated(store::Engine engine) {
    return {std::make_unique<store::DecoratedObjects>(std::move(engine.objects)),
            std::make_unique<store::DecoratedCluster>(std::move(engine.cluster))};
}
