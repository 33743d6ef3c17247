// What stands between the store and an engine in tests: objects and a cluster whose calls can fail,
// or lose their answers, as a test wants, and which say what went through them.
#pragma once

#include "engine/engine.h"

#include <condition_variable>
#include <functional>
#include <optional>
#include <set>
#include <string_view>

// What becomes of a call of the seam. With `answer_lost` it is carried out, but nobody hears of it.
struct Fate {
    bool carried_out = true;
    bool answer_lost = false;
    store::Status refusal = OMRALIB_RET_SUCCESS; // when it is not carried out
};
inline constexpr Fate as_usual{};
inline constexpr Fate lost{true, true};                              // done, and not known
inline constexpr Fate never_left{false, false, OMRALIB_ERR_UNKNOWN}; // not done, and not known

// Called with the operation's name, by any thread. None: everything goes as usual.
using Fates = std::function<Fate(std::string_view operation)>;

class DecoratedObjects final : public store::Objects {
public:
    explicit DecoratedObjects(std::unique_ptr<store::Objects> inner) : inner_(std::move(inner)) {}

    Fates fates;
    // At most; more than none is for tests that turn the clock while somebody waits.
    store::Millis patience = 0;
    store::Status create(const store::Key &key, const store::ObjectSpec &spec) override;
    store::Status read(const store::Key &key, bool renew, store::Content &content_out) override;
    store::Status read_and_lock(const store::Key &key, bool renew, store::Millis its_patience,
                                int &ticket_out, store::Content &content_out) override;
    store::Status renew_lock(const store::Key &key, int ticket) override;
    store::Status update(const store::Key &key, int ticket, bool unlock, bool renew,
                         store::Bytes bytes) override;
    store::Status unlock(const store::Key &key, int ticket) override;
    store::Status replace(const store::Key &key, const store::ObjectSpec &spec) override;
    store::Status remove(const store::Key &key) override;
    store::Status exists(const store::Key &key) override;
    store::Status touch(const store::Key &key) override;
    store::Status copy(const store::Key &from, const store::Key &to,
                       std::uint32_t timeout_m) override;
    store::Status scan(const store::Selection &selection, const store::Part *part,
                       std::unique_ptr<store::Scan> &scan_out) override;
    store::Status explain(const store::Selection &selection,
                          store::Explanation &explanation_out) override;
    store::Status totals_of(std::uint32_t app_id, store::Totals &totals_out) override;
    store::Status totals(store::Totals &totals_out) override;
    store::Status activity(store::Activity &activity_out) override;

private:
    const std::unique_ptr<store::Objects> inner_;
};

class DecoratedCluster final : public store::Cluster {
public:
    explicit DecoratedCluster(std::unique_ptr<store::Cluster> inner) : inner_(std::move(inner)) {}

    Fates fates;
    // send() returns when the host has answered to the request, so that a test orders all steps.
    bool in_order = false;
    // Called before the request reaches its host.
    std::function<void(const store::Request &request)> on_receive;
    void attach(store::RequestReceiver &receiver, store::ReplySink &sink,
                store::EventReceiver &events) override;
    void detach() override { inner_->detach(); }
    store::HostId this_host() const override { return inner_->this_host(); }
    store::Status bind_name(std::string_view name, std::uint32_t &app_id_out) override;
    store::Status announce(std::uint32_t app_id, bool serving) override;
    store::Status hosts_serving(std::uint32_t app_id,
                                std::vector<store::HostId> &hosts_out) override;
    store::Status hosts_serving_any(std::vector<store::HostId> &hosts_out) override;
    store::Status plan(const store::Selection &selection, std::span<const store::HostId> hosts,
                       std::vector<store::Share> &shares_out) override;
    store::Status send(store::Request request) override;
    store::Status withdraw(const store::HostId &host, store::RequestId request) override;
    store::Status progress_of(const store::HostId &host, store::RequestId request,
                              store::RequestProgress &progress_out) override;
    store::Status reply(const store::Reply &reply) override;
    store::Status declare_gone(std::uint32_t host_number) override;

private:
    // What the engine calls.
    struct Upwards final : store::RequestReceiver, store::ReplySink {
        explicit Upwards(DecoratedCluster &its_cluster) : cluster(its_cluster) {}
        void receive(store::Request request) override;
        void withdraw(const store::HostId &sender, store::RequestId request) override {
            receiver->withdraw(sender, request);
        }
        store::RequestProgress progress_of(const store::HostId &sender,
                                           store::RequestId request) override {
            return receiver->progress_of(sender, request);
        }
        store::Status on_reply(const store::Reply &reply) override;

        DecoratedCluster &cluster;
        store::RequestReceiver *receiver = nullptr;
        store::ReplySink *sink = nullptr;
    };

    void note_answered(store::RequestId request);

    const std::unique_ptr<store::Cluster> inner_;
    Upwards upwards_{*this};

    store::Mutex lock_;
    std::condition_variable answered_;
    std::set<store::RequestId> waited_for_ ABSL_GUARDED_BY(lock_);
};

// An engine behind decorators, and the decorators of a store that was made with one.
store::Engine decorated(store::Engine engine);
inline DecoratedObjects &decorator_of(store::Objects &objects) {
    return static_cast<DecoratedObjects &>(objects);
}
inline DecoratedCluster &decorator_of(store::Cluster &cluster) {
    return static_cast<DecoratedCluster &>(cluster);
}
