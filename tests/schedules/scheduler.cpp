#include "scheduler.h"

#include <algorithm>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace schedules {

namespace {

constexpr std::size_t stack_len = 256 * 1024;
constexpr std::uint64_t middle = 1ull << 62; // priorities start above it and drop below
constexpr unsigned int max_drops = 5;

} // namespace

Scheduler &scheduler = *new Scheduler;

Scheduler::~Scheduler() = default;

bool Scheduler::run(std::uint64_t seed, const std::vector<std::function<void()>> &bodies,
                    unsigned int num_steps) {
    random_.seed(seed);
    walks_ = random(4) == 0;
    step_ = 0;
    lowest_ = middle;
    drops_.assign(random(max_drops + 1), 0);
    for (std::uint64_t &drop : drops_) {
        drop = 1 + random(num_steps);
    }
    for (const auto &fiber : fibers_) {
        fiber->priority = middle + random(middle);
    }
    const std::size_t num_before = fibers_.size();
    for (const auto &body : bodies) {
        start(body);
    }
    while (Fiber *fiber = next()) {
        switch_to(fiber);
    }
    const auto first = fibers_.begin() + static_cast<std::ptrdiff_t>(num_before);
    const auto last = first + static_cast<std::ptrdiff_t>(bodies.size());
    const bool all_ended = std::all_of(first, last, [](const auto &fiber) { return fiber->done; });
    std::erase_if(fibers_, [](const auto &fiber) { return fiber->done; });
    return all_ended;
}

unsigned long Scheduler::start(std::function<void()> body) {
    static unsigned long last_number = 0;
    auto fiber = std::make_unique<Fiber>();
    fiber->number = ++last_number;
    fiber->body = std::move(body);
    fiber->stack = std::make_unique<char[]>(stack_len);
    fiber->priority = middle + random(middle);
    getcontext(&fiber->context);
    fiber->context.uc_stack.ss_sp = fiber->stack.get();
    fiber->context.uc_stack.ss_size = stack_len;
    fiber->context.uc_link = nullptr;
    makecontext(&fiber->context, enter, 0);
    fibers_.push_back(std::move(fiber));
    return last_number;
}

void Scheduler::enter() {
    scheduler.note_arrival(nullptr);
    scheduler.current_->body();
    scheduler.end();
}

void Scheduler::point() {
    static const std::function<bool()> at_once = [] { return true; };
    wait_until(at_once);
}

void Scheduler::wait_until(const std::function<bool()> &condition) {
    if (current_ == nullptr) {
        condition();
        return;
    }
    ++step_;
    if (std::find(drops_.begin(), drops_.end(), step_) != drops_.end()) {
        current_->priority = --lowest_;
    }
    current_->condition = &condition;
    switch_to(next());
}

void Scheduler::end() {
    current_->done = true;
    switch_to(next());
}

// The fiber that goes on, or nullptr when none can. Conditions may take what they find, so each is
// asked only when its fiber would be next.
Scheduler::Fiber *Scheduler::next() {
    std::vector<Fiber *> candidates;
    for (const auto &fiber : fibers_) {
        if (!fiber->done) {
            candidates.push_back(fiber.get());
        }
    }
    if (walks_) {
        std::shuffle(candidates.begin(), candidates.end(), random_);
    } else {
        std::sort(candidates.begin(), candidates.end(),
                  [](const Fiber *a, const Fiber *b) { return a->priority > b->priority; });
    }
    for (Fiber *fiber : candidates) {
        if (fiber->condition == nullptr || (*fiber->condition)()) {
            fiber->condition = nullptr;
            return fiber;
        }
    }
    return nullptr;
}

// nullptr stands for the caller of run().
void Scheduler::switch_to(Fiber *fiber) {
    Fiber *const from = current_;
    if (fiber == from) {
        return;
    }
    current_ = fiber;
    note_switch(from, fiber);
    swapcontext(from ? &from->context : &main_context_, fiber ? &fiber->context : &main_context_);
    note_arrival(from);
}

// AddressSanitizer wants to know which stack is in use.
#if defined(__SANITIZE_ADDRESS__)
namespace {
const void *main_stack = nullptr;
std::size_t main_stack_len = 0;
} // namespace

void Scheduler::note_switch(Fiber *from, const Fiber *to) {
    void **const save = from ? (from->done ? nullptr : &from->fake_stack) : &main_fake_stack_;
    __sanitizer_start_switch_fiber(save, to ? to->stack.get() : main_stack,
                                   to ? stack_len : main_stack_len);
}

void Scheduler::note_arrival(Fiber *at) const {
    const void *left_stack = nullptr;
    std::size_t left_len = 0;
    __sanitizer_finish_switch_fiber(at         ? at->fake_stack
                                    : current_ ? nullptr
                                               : main_fake_stack_,
                                    &left_stack, &left_len);
    if (main_stack == nullptr) { // the first switch leaves it
        main_stack = left_stack;
        main_stack_len = left_len;
    }
}
#else
void Scheduler::note_switch(Fiber *, const Fiber *) {}
void Scheduler::note_arrival(Fiber *) const {}
#endif

} // namespace schedules
