/* The time that processes on several machines share: milliseconds since 1970, which go on as the
 * clock of this process does. */
#pragma once

#include <chrono>

#include "engine/types.h"

namespace store {

class Wall {
public:
    explicit Wall(Clock &clock) : clock_(clock), ahead_(system_now() - clock.now()) {}

    Millis now() const { return clock_.now() + ahead_; }

    /* A moment of the clock; `never` stays that. */
    Millis on_clock(Millis moment) const { return moment == never ? never : moment - ahead_; }

private:
    static Millis system_now() {
        using namespace std::chrono;
        return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    }

    const Clock &clock_;
    const Millis ahead_;
};

} // namespace store
