// Storing the objects of a workload with their indexes, and the queries that select some of them.
#include "objects.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>

namespace bench {

namespace {

// Index 0 groups ten objects, index 1 is the object's number.
constexpr std::size_t kGroup = 10;
constexpr USHORT kGroupIndex = 0;
constexpr USHORT kNumberIndex = 1;

OMRA_INDEX_VALUE index_value(std::size_t number) {
    return {{number, 0, 0, 0}};
}

// The middle hundredth of the objects.
Selection middle(std::size_t num_objects) {
    const std::size_t begin = num_objects / 2;
    return {begin, std::min(num_objects, begin + std::max<std::size_t>(1, num_objects / 100))};
}

} // namespace

void fail(const std::string &message) {
    std::fflush(stdout);
    std::fprintf(stderr, "pmi_bench: %s\n", message.c_str());
    std::_Exit(1); // worker threads may be anywhere
}

void check(int status, const char *what) {
    if (status != OMRALIB_RET_SUCCESS) {
        const char *text = Omrapmi_status_text(status);
        fail(fmt::format("{}: {} ({})", what, text == nullptr ? "unknown code" : text, status));
    }
}

StoreHandle::StoreHandle() : handle_(Omralib_open_ext(nullptr)) {
    if (handle_ == OMRALIB_NULL_HANDLE) {
        fail("no handle of the store could be opened");
    }
}

OMRA_OBJKEY make_key(unsigned int app_id, std::size_t number) {
    OMRA_OBJKEY key{};
    key.app_id = app_id;
    key.obj_id.u64_comp[0] = number + 1; // no key is null
    return key;
}

void store_objects(unsigned int app_id, std::size_t count, const Workload &workload) {
    const StoreHandle handle;
    std::vector<char> bytes(workload.object_len);
    for (std::size_t number = 0; number < count; ++number) {
        fill_object(number, bytes);
        const std::array<OMRA_OBJ_INDEX, 2> indexes{
            OMRA_OBJ_INDEX{kGroupIndex, {}, index_value(number / kGroup)},
            OMRA_OBJ_INDEX{kNumberIndex, {}, index_value(number)}};
        check(Omralib_store_indexed_obj(handle.get(), bytes.data(),
                                        static_cast<unsigned int>(bytes.size()), 0,
                                        workload.indexed ? indexes.data() : nullptr,
                                        workload.indexed ? 2 : 0, make_key(app_id, number)),
              "an object cannot be stored");
    }
}

std::vector<char> make_array(const Workload &workload) {
    std::vector<char> array(workload.num_objects * workload.object_len);
    for (std::size_t number = 0; number < workload.num_objects; ++number) {
        fill_object(number,
                    std::span(array).subspan(number * workload.object_len, workload.object_len));
    }
    return array;
}

Selection select(const Workload &workload) {
    switch (workload.query) {
    case Query::kTerm:
        return {0, std::min(kGroup, workload.num_objects)};
    case Query::kRange:
    case Query::kExpression:
        return middle(workload.num_objects);
    default:
        return {0, workload.num_objects};
    }
}

std::string query_text(const Workload &workload) {
    const Selection found = select(workload);
    switch (workload.query) {
    case Query::kRange:
        return fmt::format("index1 between {} and {}", found.begin, found.end - 1);
    case Query::kExpression:
        return fmt::format("index1 between {} and {} and not size < 8", found.begin, found.end - 1);
    case Query::kScan:
        return "size >= 8";
    default:
        return {};
    }
}

OMRAPMI_QUERY_SPEC query_term(const Workload &workload) {
    OMRAPMI_QUERY_SPEC query{};
    query.match_all = TRUE;
    query.num_index_specs = 1;
    query.index_spec[0] = {kGroupIndex, 0, index_value(select(workload).begin / kGroup)};
    return query;
}

std::string make_params(const Workload &workload) {
    return std::string(workload.params_len, 'p');
}

} // namespace bench
