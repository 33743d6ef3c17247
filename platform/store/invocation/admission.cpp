/* Places are taken and given back under one lock; the mailroom wakes whose turn it is. */
#include "invocation/admission.h"

#include <algorithm>

namespace store {

Admission::Place::Place(Admission &admission, Mailbox &box) : admission_(admission), box_(box) {
    const Guard guard(admission_.lock_);
    admission_.waiting_.push_back(this);
    admission_.admit_next();
}

Admission::Place::~Place() {
    const Guard guard(admission_.lock_);
    if (admitted_) {
        --admission_.num_inside_;
    } else {
        std::erase(admission_.waiting_, this);
    }
    admission_.admit_next();
}

bool Admission::Place::is_admitted() const {
    const Guard guard(admission_.lock_);
    return admitted_;
}

/* Places are taken and given back one by one, so that at most one can be free. */
void Admission::admit_next() {
    if (num_inside_ == max_places_ || waiting_.empty()) {
        return;
    }
    Place &next = *waiting_.front();
    waiting_.pop_front();
    ++num_inside_;
    next.admission_.lock_.assert_held(); /* it waits here */
    next.admitted_ = true;
    mailroom_.nudge(next.box_);
}

} // namespace store
