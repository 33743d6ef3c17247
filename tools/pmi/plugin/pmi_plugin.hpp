// Plug-ins in C++: user functions over bytes, with exceptions stopped at the border.
//
//     std::string count(const pmi::Object &object);                                  // eval
//     std::string add(std::string_view into, std::string_view from);                 // merge
//     std::string print(const pmi::Result &result);                                  // printer
//
//     PMI_PLUGIN(plugin) {
//         plugin.eval<count>(0, "count", "Counts the bytes of an object");
//         plugin.merge<add>(1, "add", "Adds counts");
//         plugin.printer<print>();
//     }
//
// Results are std::string, std::vector<std::byte> or another contiguous range of bytes; an empty
// one is no result. A function fails by throwing: pmi::Failure carries the failure's code, anything
// else becomes PMI_CODE_EXCEPTION. Nothing thrown ever reaches the module.
#pragma once

#include <algorithm>
#include <concepts>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <optional>
#include <ranges>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "pmi_plugin.h"

namespace pmi {

// Thrown by a user function: its object, or its merge, fails with this code. Use positive codes
// below 1000000; a code of 0 would mean success and is reported as PMI_CODE_EXCEPTION.
class Failure : public std::exception {
public:
    explicit Failure(int code) noexcept : code_(code == 0 ? int{PMI_CODE_EXCEPTION} : code) {}
    int code() const noexcept { return code_; }
    const char *what() const noexcept override { return "a user function failed"; }

private:
    int code_;
};

// The object that an eval function is called for; its views live as long as the call. An
// invoke-once function gets no data and a null key.
struct Object {
    std::string_view data;
    std::string_view params;

    std::span<const std::byte> bytes() const { return std::as_bytes(std::span(data)); }
    // As Omrapmi_get_key gives it, with the mark that it may carry.
    OMRA_OBJKEY key() const {
        OMRA_OBJKEY key{};
        Omrapmi_get_key(&key);
        return key;
    }
};

// A key whose bytes, compared from the first on, are in key order, as the rows of a table that are
// named by keys have to be; and such a key as it was again.
inline OMRA_OBJKEY sortable(OMRA_OBJKEY key) {
    auto *const bytes = reinterpret_cast<char *>(&key);
    const std::pair<int, int> numbers[] = {{0, 4}, {6, 8}, {8, 16}, {16, 24}, {24, 32}, {32, 40}};
    for (const auto &[begin, end] : numbers) {
        std::reverse(bytes + begin, bytes + end);
    }
    return key;
}

// The merged result that a printer is called for.
class Result {
public:
    explicit Result(const PMI_RESULT &raw) : raw_(raw) {}
    bool json() const { return raw_.format == PMI_FORMAT_JSON; }
    std::string_view data() const { return {raw_.pdata, raw_.data_len}; }
    std::string_view params() const { return {raw_.pparams, raw_.params_len}; }
    std::string_view object_name(const OMRA_OBJKEY &key) const {
        const char *name = raw_.object_name(raw_.pprogram, &key);
        return name == nullptr ? std::string_view("(unknown object)") : name;
    }

private:
    const PMI_RESULT &raw_;
};

// The parameters turned into a T (constructed from a string_view): once a thread, not once an
// object.
template <class T>
const T &parsed(std::string_view params) {
    thread_local std::optional<std::pair<std::string, T>> last;
    if (!last || last->first != params) {
        last.reset();
        last.emplace(std::string(params), T(params));
    }
    return last->second;
}

namespace detail {

template <class R>
concept Bytes = std::ranges::contiguous_range<R> && std::ranges::sized_range<R> &&
                sizeof(std::ranges::range_value_t<R>) == 1;

template <class T>
inline constexpr bool is_optional = false;
template <class T>
inline constexpr bool is_optional<std::optional<T>> = true;

// Runs `body`, which returns a failure code or 0, and turns what it throws into a code.
template <class Body>
int stop_exceptions(Body body) noexcept {
    try {
        return body();
    } catch (const Failure &failure) {
        return failure.code();
    } catch (const std::bad_alloc &) {
        return PMI_CODE_NO_MEMORY;
    } catch (...) {
        return PMI_CODE_EXCEPTION;
    }
}

// Hands a copy of `bytes` to the module; NULL and 0 when there are none.
template <Bytes R>
int give(const R &bytes, char **ppresult_out, unsigned int *presult_len_out) {
    const std::size_t len = std::ranges::size(bytes);
    if (len == 0) {
        return 0;
    }
    if (len > std::numeric_limits<unsigned int>::max()) {
        return PMI_CODE_RESULT_TOO_LONG;
    }
    void *pblock = Omrapmi_malloc(len);
    if (pblock == nullptr) {
        return PMI_CODE_NO_MEMORY;
    }
    std::memcpy(pblock, std::ranges::data(bytes), len);
    *ppresult_out = static_cast<char *>(pblock);
    *presult_len_out = static_cast<unsigned int>(len);
    return 0;
}

template <auto Func>
int eval_border(const char *pdata, unsigned int data_len, const char *pparams,
                unsigned int params_len, char **ppresult_out, unsigned int *presult_len_out) {
    return stop_exceptions([&] {
        const Object object{{pdata, data_len}, {pparams, params_len}};
        using R = std::invoke_result_t<decltype(Func), const Object &>;
        if constexpr (std::is_void_v<R>) {
            Func(object);
            return 0;
        } else if constexpr (is_optional<R>) {
            const R result = Func(object);
            return result ? give(*result, ppresult_out, presult_len_out) : 0;
        } else {
            return give(Func(object), ppresult_out, presult_len_out);
        }
    });
}

template <auto Func>
int merge_border(char *pdst, unsigned int dst_len, const char *psrc, unsigned int src_len,
                 char **ppmerged_out, unsigned int *pmerged_len_out) {
    return stop_exceptions([&] {
        const std::span<char> into(pdst, dst_len);
        const std::string_view from(psrc, src_len);
        const auto in_place = [&] {
            *ppmerged_out = pdst;
            *pmerged_len_out = dst_len;
            return 0;
        };
        const auto anew = [&](const auto &bytes) {
            return std::ranges::empty(bytes) ? int{PMI_CODE_EMPTY_MERGE}
                                             : give(bytes, ppmerged_out, pmerged_len_out);
        };
        if constexpr (std::invocable<decltype(Func), std::string_view, std::string_view>) {
            return anew(Func(std::string_view(pdst, dst_len), from));
        } else {
            using R = std::invoke_result_t<decltype(Func), std::span<char>, std::string_view>;
            if constexpr (std::is_void_v<R>) {
                Func(into, from);
                return in_place();
            } else {
                static_assert(is_optional<R>, "a merge in place returns nothing or an optional");
                const R merged = Func(into, from);
                return merged ? anew(*merged) : in_place();
            }
        }
    });
}

template <auto Func>
int print_border(const PMI_RESULT *presult) {
    return stop_exceptions([&] {
        const std::string text = Func(Result(*presult));
        presult->write(presult->pprogram, text.data(), text.size());
        return 0;
    });
}

} // namespace detail

// What PMI_PLUGIN hands to its body.
class Plugin {
public:
    explicit Plugin(PMI_REGISTRAR &registrar) : registrar_(registrar) {}

    // Func(const Object &) returns bytes, an optional of bytes, or nothing.
    template <auto Func>
    void eval(unsigned int id, const char *name, const char *description) {
        registrar_.add_eval(&registrar_, id, name, description, detail::eval_border<Func>);
    }
    template <auto Func>
    void invoke_once(unsigned int id, const char *name, const char *description) {
        registrar_.add_invoke_once(&registrar_, id, name, description, detail::eval_border<Func>);
    }

    // Func(std::string_view into, std::string_view from) returns new bytes, at least one. Or
    // Func(std::span<char> into, std::string_view from) changes `into` in place and returns
    // nothing, or an optional: no value when it did so, else new bytes.
    template <auto Func>
    void merge(unsigned int id, const char *name, const char *description) {
        registrar_.add_merge(&registrar_, id, name, description, detail::merge_border<Func>);
    }

    // Func(const Result &) returns the text to print; it throws when it cannot print in this
    // format.
    template <auto Func>
    void printer() {
        registrar_.set_printer(&registrar_, detail::print_border<Func>);
    }

    // Func(int code) returns the text of one of the plug-in's codes, or NULL; it throws nothing.
    void code_text(PMI_CODE_TEXT_FUNCP func) { registrar_.set_code_text(&registrar_, func); }

private:
    PMI_REGISTRAR &registrar_;
};

} // namespace pmi

// Defines the plug-in's exported function; a body that registers the functions follows.
#define PMI_PLUGIN(plugin)                                                                         \
    static void pmi_describe_plugin(pmi::Plugin &plugin);                                          \
    int pmi_plugin_register(PMI_REGISTRAR *preg) {                                                 \
        if (preg->abi_version == PMI_PLUGIN_ABI) {                                                 \
            pmi::Plugin described(*preg);                                                          \
            pmi_describe_plugin(described);                                                        \
        }                                                                                          \
        return int{PMI_PLUGIN_ABI};                                                                \
    }                                                                                              \
    static void pmi_describe_plugin(pmi::Plugin &plugin)
