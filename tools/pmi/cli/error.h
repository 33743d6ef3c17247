// The program's errors, each of which ends it with an exit code of its own.
#pragma once

#include <stdexcept>

namespace pmi_cli {

enum ExitCode {
    kExitSuccess = 0,
    kExitObjectsFailed = 1, // the result is printed, but some objects are not in it
    kExitUsage = 2,         // arguments, plug-in or input are at fault; nothing was invoked
    kExitFailed = 3,        // the invocation itself failed, or standard output could not be written
};

// What the user gave is at fault.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The store or the module refused, or standard output did.
struct RunError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The user cancelled the invocation; the program ends as by the signal.
struct Cancelled : std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace pmi_cli
