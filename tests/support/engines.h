// The engines that tests run against: the one in memory, and a cluster when the environment
// variable OMRA_TEST_STORE has its URL (scripts/cluster prints it).
#pragma once

#include "engine/engine.h"

#include <ostream>
#include <string>
#include <vector>

struct TestEngine {
    std::string url;

    // It has a memory limit, and outlives memory that runs out anywhere in it.
    bool is_embedded() const { return url == "embedded:"; }

    // How many of `num` objects a test takes, whose calls may go over a network.
    unsigned int scaled(unsigned int num) const { return is_embedded() ? num : num / 20; }

    // A fresh one, without any objects.
    store::Engine make(store::Clock &clock, store::Configuration configuration) const;

    friend void PrintTo(const TestEngine &engine, std::ostream *out) {
        *out << (engine.is_embedded() ? "embedded" : "cluster");
    }
};

std::vector<TestEngine> test_engines();
