/* Puts keys in key order, in time that grows with their number alone.
 *
 * Keys of one app id mostly differ in few of their 320 bits. Numbers that count up differ in some
 * low bits of one word: these bits and the key's place fit in 64, so such numbers are sorted in the
 * place of the keys, digit by digit from the lowest, and each key is moved once. Other keys, such
 * as random ids, are divided by the highest bits in which they differ, up to eight at a time, and
 * every part by the bits below them, until a part is so small that comparing is cheaper. */
#pragma once

#include <vector>

#include "keys.h"

namespace store {

void sort_keys(std::vector<Key> &keys);

} // namespace store
