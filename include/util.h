/* Arithmetic that the store and its clients share: time-outs and the merge tree's shape. Pure
 * functions, callable from any thread. */
#pragma once

#include "sys_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A time-out of `timeout_s` seconds in minutes, rounded up, at most `max_m`. */
unsigned int Util_convert_timeout_s_to_m(unsigned int timeout_s, unsigned int max_m);

/* The merge tree is one fixed tree over all indexes, rooted at 0; a tree of n slots is its first n.
 * `mask` limits the bits of an index that the functions may use; callers pass 0xFFFFFFFF. With
 * fewer bits, every index that has none of them is a root, its own predecessor with the mask 0.
 *
 * Util_get_pred_index gives the predecessor of `index` (>= 1), always smaller than `index`.
 * Util_get_pred_mask gives the bits that `index` (>= 1) sets at its predecessor: never 0, and
 * disjoint for two indexes with the same predecessor.
 * Util_get_succ_mask gives the OR of the masks of all successors of `index` below `num_indexes`. */
unsigned int Util_get_succ_mask(unsigned int index, unsigned int num_indexes, unsigned int mask);
unsigned int Util_get_pred_mask(unsigned int index, unsigned int mask);
unsigned int Util_get_pred_index(unsigned int index, unsigned int mask);

#ifdef __cplusplus
}
#endif
