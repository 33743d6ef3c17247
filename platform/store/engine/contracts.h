/* The store's two public headers, for the sources that implement them: their functions are visible
 * outside the library, everything else of it is hidden. */
#pragma once

#pragma GCC visibility push(default)
#include "storapp.h"
#include "storlib.h"
#pragma GCC visibility pop
