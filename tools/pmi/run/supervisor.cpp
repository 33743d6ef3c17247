// The store reports progress on the invoking thread; every report is the occasion to look at the
// interrupt note and at --lose-host, and to draw the line. Nothing here has a thread of its own.
#include "run/supervisor.h"

#include <fmt/format.h>

namespace pmi_cli {

InvocationSupervisor::InvocationSupervisor(const StoreHandle &handle,
                                           const std::optional<LostHost> &lost_host)
    : handle_(handle), lost_host_(lost_host) {
    const auto take_progress = [](const OMRALIB_PROGRESS *progress, void *supervisor) {
        static_cast<InvocationSupervisor *>(supervisor)->take(*progress);
    };
    check_status(Omralib_set_progress_func(handle_.get(), take_progress, this),
                 "the progress cannot be watched");
}

InvocationSupervisor::~InvocationSupervisor() {
    Omralib_set_progress_func(handle_.get(), nullptr, nullptr);
    line_.finish(text(), progress_.num_done);
}

void InvocationSupervisor::take(const OMRALIB_PROGRESS &progress) {
    if (cancelled_) {
        return; // what hosts drop now has not been done
    }
    progress_ = progress;
    lose_host();
    if (interrupt_.is_interrupted()) {
        cancelled_ = true;
        Omralib_cancel_invoke(handle_.get());
    }
    if (line_.is_due()) {
        line_.draw(text(), progress_.num_done);
    }
}

void InvocationSupervisor::lose_host() {
    const bool running = progress_.num_hosts_done < progress_.num_hosts;
    if (lost_host_ && lost_after_.empty() && running &&
        progress_.num_done * 100 >= progress_.num_matched * lost_host_->percent) {
        Omralib_declare_host_gone(lost_host_->host);
        lost_after_ = objects_done();
    }
}

std::string InvocationSupervisor::objects_done() const {
    return fmt::format("{} of {} objects", progress_.num_done, progress_.num_matched);
}

std::string InvocationSupervisor::text() const {
    return fmt::format("evaluated {}, {} failed, {} of {} hosts", objects_done(),
                       progress_.num_failed, progress_.num_hosts_done, progress_.num_hosts);
}

std::string InvocationSupervisor::lost_host_text() const {
    if (!lost_host_) {
        return "";
    }
    if (lost_after_.empty()) {
        return fmt::format("host {} was not lost: the invocation was over too soon",
                           lost_host_->host);
    }
    return fmt::format("host {} was declared gone after {}", lost_host_->host, lost_after_);
}

} // namespace pmi_cli
