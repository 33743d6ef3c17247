/* Loading the library that has the engine. */
#include <dlfcn.h>

#include "rados/opening.h"

#define TEXT_OF(name) #name
#define NAME_OF(macro) TEXT_OF(macro)

namespace store {

/* It stays loaded: its threads do. */
Status open_rados(Clock &clock, const Configuration &configuration,
                  std::unique_ptr<LocalObjects> &objects_out, std::string &why_out) {
    void *const library = dlopen(OMRA_RADOS_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    void *const symbol =
        library != nullptr ? dlsym(library, NAME_OF(OMRA_OPEN_RADOS_HERE)) : nullptr;
    if (symbol == nullptr) {
        const char *const reason = dlerror();
        why_out = "\"" + configuration.engine_url + "\" cannot be opened: the engine over a Ceph " +
                  "cluster is not installed (" + (reason != nullptr ? reason : "no reason") + ")";
        return OMRALIB_ERR_CANT_INIT;
    }
    return reinterpret_cast<OpenRados *>(symbol)(clock, configuration, objects_out, why_out);
}

} // namespace store
