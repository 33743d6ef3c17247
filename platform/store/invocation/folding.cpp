/* Pairs are made of what is free, and what comes of them is free again. */
#include "invocation/folding.h"

#include <algorithm>

namespace store {

void Folding::start() {
    while (free_.size() >= 2) {
        delivery_.add(Task(Fold{free_[0], free_[1]}));
        free_.erase(free_.begin(), free_.begin() + 2);
    }
}

Status Folding::settle(const Task &task, bool &left_exceptions_out) {
    const Fold &fold = task.fold;
    const bool done = task.state == Task::State::completed;
    const Presence exceptions =
        done ? shared_.temp_objects.look_for(task.exceptions_key) : Presence::gone;
    if (exceptions == Presence::unknown) {
        discard(task);
        return OMRALIB_ERR_UNKNOWN;
    }
    left_exceptions_out = exceptions == Presence::there;
    if (done && task.num_failed == 0 && !left_exceptions_out) {
        shared_.temp_objects.remove({fold.target.key, fold.source.key});
        add({task.results_key, fold.target.num_successful + fold.source.num_successful});
        ++shared_.figures.num_folds;
        return OMRALIB_RET_SUCCESS;
    }
    shared_.temp_objects.remove({task.results_key});
    const bool target_is_gone =
        !done && shared_.temp_objects.look_for(fold.target.key) == Presence::gone;
    lose(target_is_gone ? fold.target : fold.source);
    return keep(target_is_gone ? fold.source : fold.target);
}

void Folding::lose(const Partial &partial) {
    shared_.temp_objects.remove({partial.key});
    num_lost_ += partial.num_successful;
}

/* Lets what could not be folded go on, unless it has gone itself. */
Status Folding::keep(const Partial &partial) {
    switch (shared_.temp_objects.look_for(partial.key)) {
    case Presence::there:
        free_.insert(free_.begin(), partial);
        return OMRALIB_RET_SUCCESS;
    case Presence::gone:
        lose(partial);
        return OMRALIB_RET_SUCCESS;
    case Presence::unknown:
        break;
    }
    lose(partial);
    return OMRALIB_ERR_UNKNOWN;
}

void Folding::renew() {
    for (const Partial &partial : free_) {
        shared_.temp_objects.renew(partial.key);
    }
    for (const Task &task : delivery_.tasks()) {
        if (task.is_fold) {
            shared_.temp_objects.renew(task.fold.target.key);
            shared_.temp_objects.renew(task.fold.source.key);
            shared_.temp_objects.renew(task.results_key);
        }
    }
}

Status Folding::finish(Key &key_out) {
    if (free_.empty()) {
        return OMRALIB_RET_SUCCESS;
    }
    const Partial last = free_.front();
    free_.clear();
    const Status status = keep(last);
    if (!free_.empty()) {
        key_out = last.key;
    }
    return status;
}

void Folding::discard(const Task &task) {
    const Fold &fold = task.fold;
    lose(fold.target);
    lose(fold.source);
}

void Folding::discard() {
    for (const Partial &partial : free_) {
        lose(partial);
    }
    free_.clear();
}

} // namespace store
