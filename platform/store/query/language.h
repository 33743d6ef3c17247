/* The query language: what the bytes of a pass-through query say.
 *
 *   index0 = "libs" and size > 4096
 *   (index1 between 10 and 0x1F or index2 in ("a", "b")) and not age >= 3600 limit 100
 *   index0 starts with "lib" sample 2.5%
 *
 * A query is UTF-8 text of at most 65,536 bytes without NUL: a condition, then `limit N` and
 * `sample P%`, each at most once. Any of the three may be missing, not all; without a condition
 * every object is meant. Words are case-insensitive, blanks and line ends separate them.
 *
 * A condition compares a field with literals:
 *
 *   FIELD = A, != A, < A, <= A, > A, >= A
 *   FIELD between A and B            both included
 *   FIELD in (A, B, ...)
 *   FIELD starts with "x"            indexes only
 *
 *   index0 to index7   the object's indexes
 *   size               the bytes of the object
 *   age                the whole seconds since it was stored or replaced
 *
 * and conditions are joined by `not`, `and`, `or`, binding in this order, and brackets; brackets
 * and `not` may be nested 64 deep.
 *
 * A literal is a number, decimal or hexadecimal (0x1F), up to 2^256 - 1, or a string of at most 32
 * bytes in double quotes, with the escapes \" \\ \n \t \xHH. It decides how an index compares: as a
 * 256-bit little-endian unsigned number, or byte by byte with the string zero-padded to 32 bytes.
 * `size` and `age` are numbers.
 *
 * An object that lacks an index matches no comparison with it, except `!=`; `not` turns any
 * condition into its opposite, so that `not index0 < 5` holds for an object without index0.
 *
 * `sample P%` takes a part of the objects, chosen by a hash of their keys: the same store gives the
 * same sample, and 20% holds all of 10%. P has at most 7 decimals. `limit N` takes the first N, in
 * key order, of what is left. */
#pragma once

#include <string>
#include <string_view>

#include "engine/selection.h"
#include "engine/types.h"

namespace store {

/* Reads a query into the condition, the sample and the limit of `selection_out`.
 * OMRALIB_ERR_BAD_QUERY leaves it as it is and says in `error_out` where and why: "at 17: expected
 * a number or a string after '<'", bytes counted from 1. */
Status parse_query(std::string_view query, Selection &selection_out, std::string &error_out);

} // namespace store
