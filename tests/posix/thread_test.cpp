// Threads and processors.
#include <semaphore>

#include <sched.h>

#include <gtest/gtest.h>

#include "sys_util.h"

namespace {

struct Seen {
    std::binary_semaphore done{0};
    THREADID id = NULLTHREADID;
    void *data_at_start = nullptr;
};

void *look_around(void *arg) {
    auto *seen = static_cast<Seen *>(arg);
    seen->id = Thread_myid();
    seen->data_at_start = Thread_datap_get();
    EXPECT_EQ(Thread_datap_set(seen), 1);
    // Released by a destructor: ending a thread leaves nothing behind.
    const struct Announce {
        Seen *seen;
        ~Announce() { seen->done.release(); }
    } announce{seen};
    Thread_end();
    ADD_FAILURE() << "ran on";
    return nullptr;
}

TEST(Thread, RunsWithItsOwnIdAndData) {
    int own_data = 0;
    EXPECT_EQ(Thread_datap_set(&own_data), 1);
    Seen seen;
    const THREADID id = Thread_fork(look_around, &seen);
    ASSERT_NE(id, NULLTHREADID);
    seen.done.acquire();
    EXPECT_EQ(seen.id, id);
    EXPECT_NE(seen.id, Thread_myid());
    EXPECT_EQ(seen.data_at_start, nullptr);
    EXPECT_EQ(Thread_datap_get(), &own_data);
}

TEST(Thread, ProcessorsAreThoseOfTheAffinityMask) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(sched_getcpu(), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof(one), &one), 0);
    EXPECT_EQ(Sys_get_num_lprocs(), 1u);
}

} // namespace
