// What all of these tests need.
#pragma once

#include <atomic>
#include <fstream>
#include <thread>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "sys_util.h"
#include "sysapp.h"

// A new thread, once the kernel shows it asleep.
template <class Run>
std::jthread start_asleep(Run run) {
    std::atomic<pid_t> tid{0};
    std::jthread thread([&tid, run] {
        tid = gettid();
        run();
    });
    for (std::string id, name, state; state != "S"; std::this_thread::yield())
        std::ifstream("/proc/self/task/" + std::to_string(tid) + "/stat") >> id >> name >> state;
    return thread;
}
