/* Puts keys in key order, in time that grows with their number alone.
 *
 * Keys of one app id mostly differ in few of their 320 bits: numbers that count up differ in some
 * low bits of one word, random ids in the high ones of another. So the keys are divided by the
 * highest bits in which they differ, up to eight at a time, and every part by the bits below them,
 * until a part is so small that comparing is cheaper. Keys change places; no more room is needed.
 */
#pragma once

#include <vector>

#include "engine/keys.h"

namespace store {

void sort_keys(std::vector<Key> &keys);

} // namespace store
