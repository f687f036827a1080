#include "collection/path.h"

#include <string.h>

#include "qk/frame.h"
#include "qk/varray.h"

namespace qk::collection {

bool PathEnter(char *path, const char *name, const char *suffix, const char *what, size_t *keep) {
    size_t at = strlen(path), n = strlen(name), s = strlen(suffix);
    *keep = at;
    if (at + n + s >= VMARENA_PATH_SIZE) {
        QKErrorThrow(QK_ERR_INVALID, QK_DOMAIN_GENERAL, "%s name too long: \"%s%s\"", what, path,
                     name);
        return false;
    }
    memcpy(path + at, name, n);
    memcpy(path + at + n, suffix, s + 1);
    return true;
}

}  // namespace qk::collection
