// Ctrl-C: it ends the program as the signal would have, so that a shell sees 130, except that the
// first one during an invocation asks for its end.
#pragma once

namespace pmi_cli {

// From now on. Whoever started the program may have had the signal ignored; then it stays so.
void handle_interrupts();

// While one lives, the first interrupt is only noted. There is one at a time.
class InterruptNote {
public:
    InterruptNote();
    InterruptNote(const InterruptNote &) = delete;
    InterruptNote &operator=(const InterruptNote &) = delete;
    ~InterruptNote();

    bool is_interrupted() const;
};

// Ends the program as the signal would have.
[[noreturn]] void end_interrupted();

} // namespace pmi_cli
