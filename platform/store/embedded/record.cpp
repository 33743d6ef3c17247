/* Making records: head and bytes in one block. */
#include "embedded/record.h"

#include <cstring>
#include <new>

namespace store {

Record::Record(const Key &its_key, std::uint32_t its_timeout_m, Bytes bytes)
    : length_(static_cast<std::uint32_t>(bytes.size())), timeout_m(its_timeout_m), key(its_key) {
    if (!bytes.empty()) {
        std::memcpy(static_cast<void *>(this + 1), bytes.data(), bytes.size());
    }
}

RecordRef make_record(const Key &key, std::uint32_t timeout_m, Bytes bytes) {
    void *block = ::operator new(sizeof(Record) + bytes.size());
    return RecordRef::adopt(new (block) Record(key, timeout_m, bytes));
}

} // namespace store
