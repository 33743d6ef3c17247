/* Index queries against a model that looks at every object. */
#include <algorithm>
#include <map>
#include <optional>
#include <random>

#include "store_test.h"

namespace {

using store::Selection;
using store::Term;

using IndexValues = std::map<USHORT, unsigned long long>;

bool term_matches(const Term &term, const IndexValues &values) {
    const auto found = values.find(term.index);
    const bool equal = found != values.end() && found->second == term.value.u64_comp[0];
    return equal != term.negated;
}

bool selects(const Selection &selection, const IndexValues &values) {
    const auto matches = [&](const Term &term) { return term_matches(term, values); };
    if (selection.terms.empty()) {
        return true;
    }
    return selection.match_all ? std::ranges::all_of(selection.terms, matches)
                               : std::ranges::any_of(selection.terms, matches);
}

class Queries : public StoreTest {
protected:
    /* One of the ways to change the objects, on the store and on the model. */
    void change(std::mt19937 &random) {
        const auto number = random() % 300;
        const OMRA_OBJKEY key = make_key(1, number);
        IndexValues values;
        std::vector<OMRA_OBJ_INDEX> indexes;
        for (USHORT index = 0; index < 4; ++index) {
            if (random() % 3 != 0) {
                values[index] = random() % 5;
                indexes.push_back(make_index(index, values[index]));
            }
        }
        const bool exists = model_.contains(number);
        if (random() % 4 == 0) {
            ASSERT_EQ(exists ? OMRALIB_RET_SUCCESS : OMRALIB_ERR_OBJ_NOT_FOUND,
                      Omralib_remove_obj(hdl_, 0, key));
            model_.erase(number);
        } else if (exists) {
            ASSERT_EQ(OMRALIB_RET_SUCCESS,
                      Omralib_replace_obj(hdl_, "yy", 2, 0, indexes.data(),
                                          static_cast<unsigned int>(indexes.size()), key));
            model_[number] = values;
        } else {
            ASSERT_EQ(OMRALIB_RET_SUCCESS, put_indexed(hdl_, key, indexes));
            model_[number] = values;
        }
    }

    Selection random_selection(std::mt19937 &random) {
        Selection selection{1, random() % 2 == 0, {}};
        for (std::size_t num_terms = random() % 9; selection.terms.size() < num_terms;) {
            selection.terms.push_back({static_cast<std::uint16_t>(random() % 5), random() % 3 == 0,
                                       make_value(random() % 6)});
        }
        return selection;
    }

    std::vector<unsigned long long> expected(const Selection &selection) const {
        std::vector<unsigned long long> numbers;
        for (const auto &[number, values] : model_) {
            if (selects(selection, values)) {
                numbers.push_back(number);
            }
        }
        return numbers;
    }

    std::vector<unsigned long long> found(const Selection &selection) {
        std::vector<store::Key> keys;
        EXPECT_EQ(OMRALIB_RET_SUCCESS, store_.engine().find(selection, keys));
        std::vector<unsigned long long> numbers;
        for (const store::Key &key : keys) {
            numbers.push_back(key.obj_id.u64_comp[0]);
        }
        return numbers;
    }

    std::map<unsigned long long, IndexValues> model_;
};
FOR_ALL_ENGINES(Queries);

TEST_P(Queries, FindWhatTheModelFinds) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 400; ++round) {
        for (int i = 0; i < 20; ++i) {
            ASSERT_NO_FATAL_FAILURE(change(random));
        }
        for (int i = 0; i < 5; ++i) {
            const Selection selection = random_selection(random);
            ASSERT_EQ(expected(selection), found(selection)) << "in round " << round;
        }
    }
}

TEST_P(Queries, AValueIsAll32Bytes) {
    OMRA_OBJ_INDEX low = make_index(0, 1);
    OMRA_OBJ_INDEX high = make_index(0, 1);
    high.value.u64_comp[3] = 1;
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put_indexed(hdl_, make_key(1, 1), {low}));
    ASSERT_EQ(OMRALIB_RET_SUCCESS, put_indexed(hdl_, make_key(1, 2), {high}));
    EXPECT_EQ(std::vector{2ull}, found({1, true, {{0, false, high.value}}}));
    EXPECT_EQ(std::vector{1ull}, found({1, true, {{0, true, high.value}}}));
}

} // namespace
