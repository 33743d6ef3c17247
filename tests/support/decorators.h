// What stands between the store and an engine in tests: objects and a cluster whose calls can fail,
// or lose their answers, as a test wants, and which say what went through them.
#pragma once

#include "engine/engine.h"

#include <algorithm>
#include <atomic>
#include <functional>

namespace store {

// What becomes of a call of the seam: unless it is as usual, nobody hears an answer.
enum class Fate { as_usual, answer_lost, never_left };

template <typename Seam>
class Decorator : public Seam {
public:
    explicit Decorator(std::unique_ptr<Seam> inner) : inner_(std::move(inner)) {}

    // Called for every call, by any thread. None: everything goes as usual.
    std::function<Fate()> fates;

protected:
    template <typename Operation, typename... Args>
    Status pass(Operation operation, Args &&...args) {
        const Fate fate = fates ? fates() : Fate::as_usual;
        if (fate == Fate::never_left) {
            return OMRALIB_ERR_UNKNOWN;
        }
        const Status status = std::invoke(operation, *inner_, std::forward<Args>(args)...);
        return fate == Fate::answer_lost ? OMRALIB_ERR_UNKNOWN : status;
    }

    const std::unique_ptr<Seam> inner_;
};

class DecoratedObjects final : public Decorator<Objects> {
public:
    using Decorator::Decorator;

    // At most; more than none is for tests that turn the clock while somebody waits.
    Millis patience = 0;

    Status create(const Key &key, const ObjectSpec &spec) override {
        return pass(&Objects::create, key, spec);
    }
    Status read(const Key &key, bool renew, Content &content_out) override {
        return pass(&Objects::read, key, renew, content_out);
    }
    Status read_and_lock(const Key &key, bool renew, Millis its_patience, int &ticket_out,
                         Content &content_out) override {
        return pass(&Objects::read_and_lock, key, renew, std::min(its_patience, patience),
                    ticket_out, content_out);
    }
    Status renew_lock(const Key &key, int ticket) override {
        return pass(&Objects::renew_lock, key, ticket);
    }
    Status update(const Key &key, int ticket, bool unlock, bool renew, Bytes bytes) override {
        return pass(&Objects::update, key, ticket, unlock, renew, bytes);
    }
    Status unlock(const Key &key, int ticket) override {
        return pass(&Objects::unlock, key, ticket);
    }
    Status replace(const Key &key, const ObjectSpec &spec) override {
        return pass(&Objects::replace, key, spec);
    }
    Status remove(const Key &key) override { return pass(&Objects::remove, key); }
    Status exists(const Key &key) override { return pass(&Objects::exists, key); }
    Status touch(const Key &key) override { return pass(&Objects::touch, key); }
    Status copy(const Key &from, const Key &to, std::uint32_t timeout_m) override {
        return pass(&Objects::copy, from, to, timeout_m);
    }
    Status scan(const Selection &selection, const Part *part,
                std::unique_ptr<Scan> &scan_out) override {
        return pass(&Objects::scan, selection, part, scan_out);
    }
    Status explain(const Selection &selection, Explanation &explanation_out) override {
        return pass(&Objects::explain, selection, explanation_out);
    }
    Status totals_of(std::uint32_t app_id, Totals &totals_out) override {
        return pass(&Objects::totals_of, app_id, totals_out);
    }
    Status totals(Totals &totals_out) override { return pass(&Objects::totals, totals_out); }
    Status activity(Activity &activity_out) override { return inner_->activity(activity_out); }
};

class DecoratedCluster final : public Decorator<Cluster> {
public:
    using Decorator::Decorator;

    // send() returns when the host has answered to the request, so that a test orders all steps;
    // for one thread that sends.
    bool in_order = false;
    // Called before a request reaches its host, and in order before the host goes on with one.
    std::function<void(const HostId &host)> on_receive;

    void attach(RequestReceiver &receiver, ReplySink &sink, EventReceiver &events) override;
    void detach() override { inner_->detach(); }
    HostId this_host() const override { return inner_->this_host(); }
    Status bind_name(std::string_view name, std::uint32_t &app_id_out) override {
        return pass(&Cluster::bind_name, name, app_id_out);
    }
    Status announce(std::uint32_t app_id, bool serving) override {
        return pass(&Cluster::announce, app_id, serving);
    }
    Status hosts_serving(std::uint32_t app_id, std::vector<HostId> &hosts_out) override {
        return pass(&Cluster::hosts_serving, app_id, hosts_out);
    }
    Status hosts_serving_any(std::vector<HostId> &hosts_out) override {
        return pass(&Cluster::hosts_serving_any, hosts_out);
    }
    Status plan(const Selection &selection, std::span<const HostId> hosts, const SearchCheck &check,
                std::vector<Share> &shares_out) override {
        return pass(&Cluster::plan, selection, hosts, check, shares_out);
    }
    Status send(Request request) override;
    Status withdraw(const HostId &host, RequestId request) override {
        return pass(&Cluster::withdraw, host, request);
    }
    Status progress_of(const HostId &host, RequestId request,
                       RequestProgress &progress_out) override {
        return pass(&Cluster::progress_of, host, request, progress_out);
    }
    Status renew(const HostId &host, RequestId request) override {
        return pass(&Cluster::renew, host, request);
    }
    Status call_back(const HostId &host, const HostId &sender, RequestId request) override;
    Status reply(const Reply &reply) override { return pass(&Cluster::reply, reply); }
    Status declare_gone(std::uint32_t host_number) override {
        return inner_->declare_gone(host_number);
    }

private:
    // What the engine calls.
    struct Upwards final : RequestReceiver, ReplySink {
        explicit Upwards(DecoratedCluster &its_cluster) : cluster(its_cluster) {}
        void receive(Request request) override;
        void withdraw(const HostId &sender, RequestId request) override {
            receiver->withdraw(sender, request);
        }
        RequestProgress progress_of(const HostId &sender, RequestId request) override {
            return receiver->progress_of(sender, request);
        }
        void renew(const HostId &sender, RequestId request) override {
            receiver->renew(sender, request);
        }
        void go_on(const HostId &sender, RequestId request) override {
            receiver->go_on(sender, request);
        }
        Status on_reply(const Reply &reply) override;

        DecoratedCluster &cluster;
        RequestReceiver *receiver = nullptr;
        ReplySink *sink = nullptr;
    };

    void note_answered(RequestId request);

    Upwards upwards_{*this};
    std::atomic<RequestId> waited_for_{0}; // 0: none
};

} // namespace store

// An engine behind decorators, and the decorators of a store that was made with one.
store::Engine decorated(store::Engine engine);
inline store::DecoratedObjects &decorator_of(store::Objects &objects) {
    return static_cast<store::DecoratedObjects &>(objects);
}
inline store::DecoratedCluster &decorator_of(store::Cluster &cluster) {
    return static_cast<store::DecoratedCluster &>(cluster);
}
