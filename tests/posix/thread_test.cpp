// Threads and processors.
#include <semaphore>

#include <sched.h>

#include <gtest/gtest.h>

#include "sys_util.h"

namespace {

std::binary_semaphore done(0);
THREADID own_id = NULLTHREADID;

void *look_around(void *arg) {
    own_id = Thread_myid();
    EXPECT_EQ(Thread_datap_get(), nullptr);
    EXPECT_EQ(Thread_datap_set(arg), 1);
    // Released by a destructor: ending a thread leaves nothing behind.
    const struct Announce {
        ~Announce() { done.release(); }
    } announce;
    Thread_end();
    ADD_FAILURE() << "ran on";
    return nullptr;
}

TEST(Thread, RunsWithItsOwnIdAndData) {
    int own_data = 0;
    EXPECT_EQ(Thread_datap_set(&own_data), 1);
    const THREADID id = Thread_fork(look_around, &own_id);
    done.acquire();
    EXPECT_EQ(own_id, id);
    EXPECT_NE(id, Thread_myid());
    EXPECT_NE(id, NULLTHREADID);
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
