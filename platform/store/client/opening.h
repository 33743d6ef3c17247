/* Opening the process's store: on its first use, once, as it was configured. */
#pragma once

#include <string>

#include "client/store.h"

namespace store {

/* Opens the process's store if need be; it is never destroyed. nullptr when it cannot be opened,
 * with the reason in `why_out`. */
Store *open_store(std::string &why_out);

/* Sets how the process's store will be opened. OMRALIB_ERR_CANT_INIT once it is open,
 * OMRALIB_ERR_BAD_ARGS for what is not allowed; either with the reason in `why_out`. */
Status configure_store(const OMRALIB_CONFIG &given, std::string &why_out);

} // namespace store
