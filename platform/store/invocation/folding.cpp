#include "invocation/folding.h"

#include <algorithm>

namespace store {

void Folding::start() {
    while (free_.size() >= 2) {
        Fold &fold = folds_.emplace_back(Fold{{}, free_[0], free_[1]});
        fold.task.target = fold.target.key;
        fold.task.source = fold.source.key;
        delivery_.add(fold.task);
        free_.erase(free_.begin(), free_.begin() + 2);
    }
}

bool Folding::settle(const Task &task) {
    const auto fold = std::find_if(folds_.begin(), folds_.end(),
                                   [&](const Fold &each) { return &each.task == &task; });
    const bool done = task.state == Task::State::completed;
    /* A host counts a merge as done although the user's function failed; its exception tells. */
    const bool left_exceptions = done && room_.objects.exists(task.exceptions_key);
    if (done && task.num_failed == 0 && !left_exceptions) {
        room_.objects.remove(fold->target.key);
        room_.objects.remove(fold->source.key);
        add(task.results_key, fold->target.num_successful + fold->source.num_successful);
        ++room_.figures.num_folds;
    } else {
        room_.objects.remove(task.results_key);
        const bool target_is_gone = !done && !room_.objects.exists(fold->target.key);
        lose(target_is_gone ? fold->target : fold->source);
        keep(target_is_gone ? fold->source : fold->target);
    }
    folds_.erase(fold);
    return left_exceptions;
}

void Folding::lose(const Partial &partial) {
    room_.objects.remove(partial.key);
    num_lost_ += partial.num_successful;
}

/* Lets what could not be folded go on, unless it has gone itself. */
void Folding::keep(const Partial &partial) {
    if (room_.objects.exists(partial.key)) {
        free_.push_front(partial);
    } else {
        lose(partial);
    }
}

void Folding::renew() {
    for (const Partial &partial : free_) {
        room_.objects.renew(partial.key);
    }
    for (const Fold &fold : folds_) {
        room_.objects.renew(fold.target.key);
        room_.objects.renew(fold.source.key);
    }
}

Key Folding::finish() {
    Key key{};
    if (!free_.empty()) {
        const Partial last = free_.front();
        free_.clear();
        if (room_.objects.exists(last.key)) {
            key = last.key;
        } else {
            lose(last);
        }
    }
    return key;
}

void Folding::discard() {
    for (const Fold &fold : folds_) {
        lose(fold.target);
        lose(fold.source);
    }
    folds_.clear();
    for (const Partial &partial : free_) {
        lose(partial);
    }
    free_.clear();
}

} // namespace store
