// The contracts that this library implements. Every source includes them through this header: it
// gives their declarations, and so the definitions that follow, a place among the symbols that a
// shared library shows, while everything else stays hidden.
#pragma once

#pragma GCC visibility push(default)
#include "sys_util.h"
#include "sysapp.h"
#include "util.h"
#pragma GCC visibility pop
