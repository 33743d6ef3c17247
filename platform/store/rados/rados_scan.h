/* Going through the buckets of some app ids, many at a time: along their headers, or along the
 * index entries of comparisons that can be looked up.
 *
 * A comparison of an index with a set of values can be looked up; of an all_of, the part that is
 * looked up is one that asks for single values, if there is one; of an any_of, all parts are, if
 * all of them can be. The whole condition is then tested on the headers that were found. */
#pragma once

#include <bitset>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "engine/objects.h"
#include "engine/slots.h"
#include "rados/pool.h"
#include "rados/record.h"
#include "rados/wall.h"
#include "rados/write_marks.h"

namespace store {

class RadosScan final : public Scan {
public:
    /* All outlive the scan but `app_ids`. */
    RadosScan(Pool &pool, const Wall &wall, const WriteMarks &marks,
              std::span<const std::uint32_t> app_ids, const Selection &selection, const Part *part);

    std::uint64_t expected() const override { return 0; }
    Status next(std::size_t max_keys, bool hold, ScanPiece &piece) override;
    std::uint64_t num_examined() const override { return num_examined_; }

private:
    struct Found {
        Key key;
        RecordHeader header;
    };

    /* Entries of a bucket whose names lie between two. */
    struct Walk {
        Bucket bucket;
        std::size_t source; /* the comparison whose values the names have; none: headers */
        std::string after;  /* the last name that was seen, or what all are behind */
        std::string last =
            {}; /* what names of the last value begin with; empty: go on to the end */
        std::string prefix = {}; /* which all names have */
        Entries page = {};       /* of them, and then of the headers that they name */
        bool more = true;
    };

    void begin_bucket(const Bucket &bucket);
    void begin_walks(const Bucket &bucket, std::size_t source);
    int read_pages();
    std::vector<Found> test_page(Walk &walk);
    bool is_wanted(const Walk &walk, const Found &found) const;
    int bring_data(std::span<const Found> given, ScanPiece &piece) const;

    Pool &pool_;
    const Wall &wall_;
    const WriteMarks &marks_;
    const Selection &selection_;
    std::optional<std::bitset<num_slots>> slots_;           /* nothing: all */
    std::optional<std::vector<const Condition *>> sources_; /* nothing: headers are looked at */

    std::deque<Walk> walks_;               /* that have not come to their ends */
    std::deque<std::vector<Found>> found_; /* of one page each, in key order */
    std::uint64_t num_examined_ = 0;
};

/* How such a scan would go about it. */
Status explain_search(Pool &pool, const Wall &wall, const WriteMarks &marks,
                      std::span<const std::uint32_t> app_ids, const Selection &selection,
                      Explanation &explanation_out);

} // namespace store
