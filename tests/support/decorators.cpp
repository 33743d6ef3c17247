// Every call is the inner one's, with the fate that the test has chosen for it.
#include "support/decorators.h"

#include <algorithm>

namespace {

// Runs `call(out)`, which fills `out` on success, and hands that over unless its answer gets lost.
template <typename Out, typename Call>
store::Status with_fate(const Fates &fates, std::string_view operation, Out &out, Call call) {
    const Fate fate = fates ? fates(operation) : as_usual;
    if (!fate.carried_out) {
        return fate.refusal;
    }
    Out mine{};
    const store::Status status = call(mine);
    if (fate.answer_lost) {
        return OMRALIB_ERR_UNKNOWN;
    }
    if (status == OMRALIB_RET_SUCCESS) {
        out = std::move(mine);
    }
    return status;
}

template <typename Call>
store::Status with_fate(const Fates &fates, std::string_view operation, Call call) {
    int nothing = 0;
    return with_fate(fates, operation, nothing, [&](int &) { return call(); });
}

} // namespace

// Objects -----------------------------------------------------------------------------------------

store::Status DecoratedObjects::create(const store::Key &key, const store::ObjectSpec &spec) {
    return with_fate(fates, "create", [&] { return inner_->create(key, spec); });
}

store::Status DecoratedObjects::read(const store::Key &key, bool renew,
                                     store::Content &content_out) {
    return with_fate(fates, "read", content_out,
                     [&](store::Content &content) { return inner_->read(key, renew, content); });
}

store::Status DecoratedObjects::read_and_lock(const store::Key &key, bool renew,
                                              store::Millis its_patience, int &ticket_out,
                                              store::Content &content_out) {
    return with_fate(fates, "read_and_lock", ticket_out, [&](int &ticket) {
        return inner_->read_and_lock(key, renew, std::min(its_patience, patience), ticket,
                                     content_out);
    });
}

store::Status DecoratedObjects::renew_lock(const store::Key &key, int ticket) {
    return with_fate(fates, "renew_lock", [&] { return inner_->renew_lock(key, ticket); });
}

store::Status DecoratedObjects::update(const store::Key &key, int ticket, bool unlock, bool renew,
                                       store::Bytes bytes) {
    return with_fate(fates, "update",
                     [&] { return inner_->update(key, ticket, unlock, renew, bytes); });
}

store::Status DecoratedObjects::unlock(const store::Key &key, int ticket) {
    return with_fate(fates, "unlock", [&] { return inner_->unlock(key, ticket); });
}

store::Status DecoratedObjects::replace(const store::Key &key, const store::ObjectSpec &spec) {
    return with_fate(fates, "replace", [&] { return inner_->replace(key, spec); });
}

store::Status DecoratedObjects::remove(const store::Key &key) {
    return with_fate(fates, "remove", [&] { return inner_->remove(key); });
}

store::Status DecoratedObjects::exists(const store::Key &key) {
    return with_fate(fates, "exists", [&] { return inner_->exists(key); });
}

store::Status DecoratedObjects::touch(const store::Key &key) {
    return with_fate(fates, "touch", [&] { return inner_->touch(key); });
}

store::Status DecoratedObjects::copy(const store::Key &from, const store::Key &to,
                                     std::uint32_t timeout_m) {
    return with_fate(fates, "copy", [&] { return inner_->copy(from, to, timeout_m); });
}

store::Status DecoratedObjects::scan(const store::Selection &selection, const store::Part *part,
                                     std::unique_ptr<store::Scan> &scan_out) {
    return with_fate(fates, "scan", scan_out, [&](std::unique_ptr<store::Scan> &scan) {
        return inner_->scan(selection, part, scan);
    });
}

store::Status DecoratedObjects::explain(const store::Selection &selection,
                                        store::Explanation &explanation_out) {
    return with_fate(fates, "explain", [&] { return inner_->explain(selection, explanation_out); });
}

store::Status DecoratedObjects::totals_of(std::uint32_t app_id, store::Totals &totals_out) {
    return with_fate(fates, "totals_of", totals_out,
                     [&](store::Totals &totals) { return inner_->totals_of(app_id, totals); });
}

store::Status DecoratedObjects::totals(store::Totals &totals_out) {
    return with_fate(fates, "totals", totals_out,
                     [&](store::Totals &totals) { return inner_->totals(totals); });
}

store::Status DecoratedObjects::activity(store::Activity &activity_out) {
    return inner_->activity(activity_out);
}

// The cluster -------------------------------------------------------------------------------------

void DecoratedCluster::attach(store::RequestReceiver &receiver, store::ReplySink &sink,
                              store::EventReceiver &events) {
    upwards_.receiver = &receiver;
    upwards_.sink = &sink;
    inner_->attach(upwards_, upwards_, events);
}

store::Status DecoratedCluster::bind_name(std::string_view name, std::uint32_t &app_id_out) {
    return with_fate(fates, "bind_name", app_id_out,
                     [&](std::uint32_t &app_id) { return inner_->bind_name(name, app_id); });
}

store::Status DecoratedCluster::announce(std::uint32_t app_id, bool serving) {
    return with_fate(fates, "announce", [&] { return inner_->announce(app_id, serving); });
}

store::Status DecoratedCluster::hosts_serving(std::uint32_t app_id,
                                              std::vector<store::HostId> &hosts_out) {
    return with_fate(fates, "hosts_serving", hosts_out, [&](std::vector<store::HostId> &hosts) {
        return inner_->hosts_serving(app_id, hosts);
    });
}

store::Status DecoratedCluster::hosts_serving_any(std::vector<store::HostId> &hosts_out) {
    return with_fate(fates, "hosts_serving_any", hosts_out, [&](std::vector<store::HostId> &hosts) {
        return inner_->hosts_serving_any(hosts);
    });
}

store::Status DecoratedCluster::plan(const store::Selection &selection,
                                     std::span<const store::HostId> hosts,
                                     std::vector<store::Share> &shares_out) {
    return with_fate(fates, "plan", shares_out, [&](std::vector<store::Share> &shares) {
        return inner_->plan(selection, hosts, shares);
    });
}

store::Status DecoratedCluster::send(store::Request request) {
    const store::RequestId id = request.id;
    const bool waits = in_order;
    return with_fate(fates, "send", [&] {
        if (waits) {
            const store::Guard guard(lock_);
            waited_for_.insert(id);
        }
        const store::Status status = inner_->send(std::move(request));
        if (waits) {
            store::MutexLock lock(lock_);
            while (status == OMRALIB_RET_SUCCESS && waited_for_.contains(id)) {
                answered_.wait(lock.native());
            }
            waited_for_.erase(id);
        }
        return status;
    });
}

store::Status DecoratedCluster::withdraw(const store::HostId &host, store::RequestId request) {
    return with_fate(fates, "withdraw", [&] { return inner_->withdraw(host, request); });
}

store::Status DecoratedCluster::progress_of(const store::HostId &host, store::RequestId request,
                                            store::RequestProgress &progress_out) {
    return with_fate(fates, "progress_of", progress_out, [&](store::RequestProgress &progress) {
        return inner_->progress_of(host, request, progress);
    });
}

store::Status DecoratedCluster::reply(const store::Reply &reply) {
    return with_fate(fates, "reply", [&] { return inner_->reply(reply); });
}

store::Status DecoratedCluster::declare_gone(std::uint32_t host_number) {
    return inner_->declare_gone(host_number);
}

void DecoratedCluster::note_answered(store::RequestId request) {
    {
        const store::Guard guard(lock_);
        waited_for_.erase(request);
    }
    answered_.notify_all();
}

void DecoratedCluster::Upwards::receive(store::Request request) {
    const store::RequestId id = request.id;
    if (cluster.on_receive) {
        cluster.on_receive(request);
    }
    receiver->receive(std::move(request));
    cluster.note_answered(id);
}

store::Status DecoratedCluster::Upwards::on_reply(const store::Reply &reply) {
    const store::Status status = sink->on_reply(reply);
    if (reply.kind != store::Reply::Kind::completed) {
        cluster.note_answered(reply.request);
    }
    return status;
}

store::Engine decorated(store::Engine engine) {
    return {std::make_unique<DecoratedObjects>(std::move(engine.objects)),
            std::make_unique<DecoratedCluster>(std::move(engine.cluster))};
}
