// The keys of objects as text:
//
//   APP_ID:ID       1:42       all else in the key is zero
//   APP_ID:EXT:ID   1:3:42     with an extended id
//
// An id is its two 64-bit numbers, "42" or, unless the second is zero, "42.7". The rare flags, type
// and reserved bits, unless all are zero, stand behind the app id: "1/16.0.0:42". Numbers are
// decimal; in what is read they may be hexadecimal as well (0x2A).
#pragma once

#include <compare>
#include <string>

#include "storkey.h"

namespace pmi_cli {

// The app ids that a user may name; those up to the last ordinary one are the program's, for the
// temporary objects of its runs.
inline constexpr unsigned int kMaxAppId = 0x0FFFFEFF;

// Key order, which is also that of the store: by the fields as they stand in the record, an id by
// its two numbers.
std::strong_ordering key_order(const OMRA_OBJKEY &a, const OMRA_OBJKEY &b);

// Without the mark of OMRA_APPID_NO_RENEW.
std::string key_text(const OMRA_OBJKEY &key);

// Throws UsageError.
OMRA_OBJKEY parse_key(const std::string &text);

} // namespace pmi_cli
