/* Which objects: the selection of a query, the parts that the key space of an app id falls into,
 * and how an engine would go about finding them. */
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "engine/conditions.h"
#include "engine/contracts.h"
#include "engine/types.h"

namespace store {

/* The objects of an app id, or of all ordinary ones, for which a condition holds; of these a
 * sample, and of the sample the first ones in key order. */
struct Selection {
    std::uint32_t app_id = 0; /* OMRALIB_ALL_APP_IDS: all ordinary ones */
    Condition where;          /* at first: every object */
    std::uint32_t sample = whole_sample;
    std::uint64_t limit = UINT64_MAX;
};

/* A part of the key space: the keys that fall into these slots. How many slots there are and which
 * key falls into which is the engine's business and never changes. */
struct Part {
    bool is_whole = false; /* all slots, none of which is named */
    std::vector<std::uint32_t> slots = {};
};

/* Asked again and again while something is looked for, every few milliseconds: anything but
 * success ends the search with that status. An empty one lets it go on. */
using SearchCheck = std::function<Status()>;

/* How an engine would find the objects of a selection. */
struct Explanation {
    enum class Access : std::uint8_t {
        looked_up, /* in an index */
        tested,    /* on the objects that were looked up */
        scanned,   /* on every object */
    };

    /* One condition; the parts of an all_of or any_of follow it, one level deeper. */
    struct Step {
        unsigned int level;
        Condition::Kind kind;
        std::string text;       /* of a comparison */
        std::uint64_t expected; /* objects for which it holds */
        Access access;
    };

    std::uint64_t num_objects = 0; /* of the app id */
    std::uint64_t expected = 0;    /* objects for which the condition holds, at most */
    std::vector<Step> steps;       /* the parts of a condition in the order of their use */
};

} // namespace store
