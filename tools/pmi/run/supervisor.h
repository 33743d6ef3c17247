// What the program does while an invocation runs: it shows how far that is, cancels it after an
// interrupt, and declares the host gone that --lose-host names.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli/interrupt.h"
#include "cli/options.h"
#include "cli/progress.h"
#include "storapp.h"
#include "store/store.h"

namespace pmi_cli {

// Attends to the invocations on a handle as long as it lives. Used by the invoking thread, on which
// the store calls it, too.
class InvocationSupervisor {
public:
    InvocationSupervisor(const StoreHandle &handle, const std::optional<LostHost> &lost_host);
    InvocationSupervisor(const InvocationSupervisor &) = delete;
    InvocationSupervisor &operator=(const InvocationSupervisor &) = delete;
    ~InvocationSupervisor();

    // How far the invocation is; of a cancelled one, how far it was then.
    const OMRALIB_PROGRESS &progress() const { return progress_; }
    // "1234 of 60000 objects"
    std::string objects_done() const;
    // What became of --lose-host, nothing without it.
    std::string lost_host_text() const;

private:
    void take(const OMRALIB_PROGRESS &progress);
    void lose_host();
    std::string text() const;

    const StoreHandle &handle_;
    const std::optional<LostHost> &lost_host_;
    const InterruptNote interrupt_;
    ProgressLine line_;
    OMRALIB_PROGRESS progress_{};
    bool cancelled_ = false;
    std::string lost_after_; // objects_done() when the host was declared gone
};

} // namespace pmi_cli
