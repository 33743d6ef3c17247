#include "scheduler.h"

#include <algorithm>
#include <memory>
#include <random>
#include <utility>

#include <ucontext.h>

namespace schedules {

namespace {

constexpr std::size_t stack_len = 256ul * 1024;
constexpr std::uint64_t middle = 1ull << 62; // priorities start above it and drop below
constexpr unsigned int max_drops = 5;

struct Fiber {
    unsigned long number = 0;
    std::function<void()> body;
    std::unique_ptr<char[]> stack;
    ucontext_t context{};
    const std::function<bool()> *condition = nullptr; // what it waits for
    std::uint64_t priority = 0;
    bool done = false;
    void *datap = nullptr;
};

auto &fibers = *new std::vector<std::unique_ptr<Fiber>>; // by number
Fiber *running = nullptr;
Fiber main_fiber; // the caller of run()

// Of the present run.
std::mt19937_64 random_bits;
bool walks = false;
std::uint64_t step = 0, lowest = 0;
std::vector<std::uint64_t> drops; // the steps at which the running fiber drops

std::uint64_t random(std::uint64_t bound) {
    return random_bits() % bound;
}

// The fiber that goes on, or nullptr when none can. Conditions may take what they find, so each is
// asked only when its fiber would be next.
Fiber *next() {
    std::vector<Fiber *> candidates;
    for (const auto &fiber : fibers) {
        if (!fiber->done) {
            candidates.push_back(fiber.get());
        }
    }
    if (walks) {
        std::ranges::shuffle(candidates, random_bits);
    } else {
        std::ranges::sort(candidates, std::greater(), &Fiber::priority);
    }
    for (Fiber *fiber : candidates) {
        if (fiber->condition == nullptr || (*fiber->condition)()) {
            fiber->condition = nullptr;
            return fiber;
        }
    }
    return nullptr;
}

// nullptr stands for the caller of run(). AddressSanitizer forgets what it knows of a stack that is
// switched to, and judges the heap.
void switch_to(Fiber *fiber) {
    if (fiber == running) {
        return;
    }
    Fiber &from = running ? *running : main_fiber, &to = fiber ? *fiber : main_fiber;
    running = fiber;
    swapcontext(&from.context, &to.context);
}

void enter() {
    running->body();
    end();
}

} // namespace

bool run(std::uint64_t seed, const std::vector<std::function<void()>> &bodies,
         unsigned int num_steps) {
    random_bits.seed(seed);
    walks = random(4) == 0;
    step = 0;
    lowest = middle;
    drops.resize(random(max_drops + 1));
    std::ranges::generate(drops, [=] { return 1 + random(num_steps); });
    for (const auto &fiber : fibers) {
        fiber->priority = middle + random(middle);
    }
    const auto num_before = static_cast<std::ptrdiff_t>(fibers.size());
    std::ranges::for_each(bodies, start);
    while (Fiber *fiber = next()) {
        switch_to(fiber);
    }
    const auto first = fibers.begin() + num_before;
    const bool all_ended = std::all_of(first, first + std::ssize(bodies),
                                       [](const auto &fiber) { return fiber->done; });
    std::erase_if(fibers, [](const auto &fiber) { return fiber->done; });
    return all_ended;
}

unsigned long start(std::function<void()> body) {
    static unsigned long last_number = 0;
    auto fiber = std::make_unique<Fiber>();
    fiber->number = ++last_number;
    fiber->body = std::move(body);
    fiber->stack = std::make_unique<char[]>(stack_len);
    fiber->priority = middle + random(middle);
    getcontext(&fiber->context);
    fiber->context.uc_stack.ss_sp = fiber->stack.get();
    fiber->context.uc_stack.ss_size = stack_len;
    makecontext(&fiber->context, enter, 0);
    fibers.push_back(std::move(fiber));
    return last_number;
}

void point() {
    static const std::function<bool()> at_once = [] { return true; };
    wait_until(at_once);
}

void wait_until(const std::function<bool()> &condition) {
    if (running == nullptr) {
        condition();
        return;
    }
    if (std::ranges::count(drops, ++step) != 0) {
        running->priority = --lowest;
    }
    running->condition = &condition;
    switch_to(next());
}

void end() {
    running->done = true;
    switch_to(next());
}

unsigned long current() {
    return running ? running->number : 0;
}

void *&datap() {
    return (running ? *running : main_fiber).datap;
}

} // namespace schedules
