// Trace lines and assertion reports: sys_trace_level, Sys_trace_int, Sys_set_trace_func,
// Sys_log_assert, Sys_get_assert_count.
//
// On standard error a line is preceded by the time and the kernel's id of the thread, and goes out
// with one system call, so that lines of several threads and processes do not mix:
//
//     2025-03-31T08:15:30.012345Z [4711] Omrapmi worker: starting.
//
// A trace function gets the line without these. Nothing here needs memory to succeed: a line that
// is longer than the buffer on the stack is cut off when no memory is left for it.
//
// The environment is read once, when the library is loaded, before any other code can ask.
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <span>
#include <string_view>
#include <sys/uio.h>
#include <unistd.h>

#include "exported.h"

constinit int sys_trace_level = -1;

namespace {

constinit std::atomic<SYS_TRACE_FUNC> trace_func{nullptr};
constinit std::atomic<std::size_t> assert_count{0};
constinit bool abort_on_assert = false; // constant after load

// A caller that reports an error keeps the errno it is reporting.
class ErrnoKeeper {
public:
    ErrnoKeeper() = default;
    ~ErrnoKeeper() { errno = kept_; }
    ErrnoKeeper(const ErrnoKeeper &) = delete;
    ErrnoKeeper &operator=(const ErrnoKeeper &) = delete;

private:
    int kept_ = errno;
};

// A formatted line that ends with a newline.
class Line {
public:
    __attribute__((format(printf, 2, 0))) Line(const char *format, va_list args) {
        va_list args_again;
        va_copy(args_again, args);
        const int len = std::vsnprintf(short_.data(), kShortRoom, format, args);
        if (len >= static_cast<int>(kShortRoom))
            take_long(format, args_again, static_cast<std::size_t>(len));
        else
            len_ = len < 0 ? 0 : static_cast<std::size_t>(len);
        va_end(args_again);
        end_with_newline();
    }

    const char *c_str() const { return text_; }
    std::size_t size() const { return len_; }

private:
    struct Release {
        void operator()(char *ptr) const { std::free(ptr); }
    };

    static constexpr std::size_t kShortSize = 1024;
    static constexpr std::size_t kShortRoom = kShortSize - 1; // keeps a byte for the newline

    __attribute__((format(printf, 2, 0))) void take_long(const char *format, va_list args,
                                                         std::size_t len) {
        const std::size_t room = len + 1;
        long_.reset(static_cast<char *>(std::malloc(room + 1)));
        if (long_ == nullptr) {
            len_ = kShortRoom - 1;
            return;
        }
        std::vsnprintf(long_.get(), room, format, args);
        text_ = long_.get();
        len_ = len;
    }

    void end_with_newline() {
        if (len_ > 0 && text_[len_ - 1] == '\n')
            return;
        text_[len_++] = '\n';
        text_[len_] = '\0';
    }

    std::array<char, kShortSize> short_;
    std::unique_ptr<char, Release> long_;
    char *text_ = short_.data();
    std::size_t len_ = 0;
};

// One system call, unless the kernel takes only a part.
void write_to_stderr(std::span<iovec> parts) {
    while (!parts.empty()) {
        const ssize_t ret = writev(STDERR_FILENO, parts.data(), static_cast<int>(parts.size()));
        if (ret < 0 && errno == EINTR)
            continue;
        if (ret <= 0)
            return; // nobody is left to be told
        auto written = static_cast<std::size_t>(ret);
        while (!parts.empty() && written >= parts.front().iov_len) {
            written -= parts.front().iov_len;
            parts = parts.subspan(1);
        }
        if (!parts.empty()) {
            parts.front().iov_base = static_cast<char *>(parts.front().iov_base) + written;
            parts.front().iov_len -= written;
        }
    }
}

// "2025-03-31T08:15:30.012345Z [4711] "; what it returns is the length.
std::size_t format_origin(std::span<char> buf) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    const std::size_t len = std::strftime(buf.data(), buf.size(), "%FT%T", &utc);
    const int rest = std::snprintf(buf.data() + len, buf.size() - len, ".%06ldZ [%d] ",
                                   now.tv_nsec / 1000, static_cast<int>(gettid()));
    return len + static_cast<std::size_t>(rest);
}

void print(const Line &line) {
    std::array<char, 80> origin{};
    const std::size_t origin_len = format_origin(origin);
    std::array<iovec, 2> parts{
        {{origin.data(), origin_len}, {const_cast<char *>(line.c_str()), line.size()}}};
    write_to_stderr(parts);
}

__attribute__((format(printf, 1, 2))) void print(const char *format, ...) {
    va_list args;
    va_start(args, format);
    print(Line(format, args));
    va_end(args);
}

void read_trace_level(const char *value) {
    int level = 0;
    const char *end = value + std::strlen(value);
    const auto [rest, error] = std::from_chars(value, end, level);
    if (error == std::errc() && rest == end)
        sys_trace_level = level;
    else
        print("SYS_TRACE_LEVEL is \"%s\" and is ignored: it must be a whole number from %d to %d.",
              value, INT_MIN, INT_MAX);
}

void read_assert_abort(std::string_view value) {
    if (value == "1")
        abort_on_assert = true;
    else if (value != "0")
        print("SYS_ASSERT_ABORT is \"%s\" and is ignored: it must be 0 or 1.", value.data());
}

// Ahead of all other constructors of a program into which this library is linked statically.
__attribute__((constructor(101))) void read_environment() {
    if (const char *value = std::getenv("SYS_TRACE_LEVEL"))
        read_trace_level(value);
    if (const char *value = std::getenv("SYS_ASSERT_ABORT"))
        read_assert_abort(value);
}

} // namespace

void Sys_trace_int(const char *format, ...) {
    const ErrnoKeeper errno_keeper;
    va_list args;
    va_start(args, format);
    const Line line(format, args);
    va_end(args);
    if (const SYS_TRACE_FUNC func = trace_func.load(std::memory_order_acquire))
        func(line.c_str());
    else
        print(line);
}

void Sys_set_trace_func(SYS_TRACE_FUNC pfunc) {
    trace_func.store(pfunc, std::memory_order_release);
}

void Sys_log_assert(const char *file, int line, const char *expression) {
    const ErrnoKeeper errno_keeper;
    assert_count.fetch_add(1, std::memory_order_relaxed);
    print("Assertion failed: %s:%d: %s", file, line, expression);
    if (abort_on_assert)
        std::abort();
}

size_t Sys_get_assert_count(void) {
    return assert_count.load(std::memory_order_relaxed);
}
