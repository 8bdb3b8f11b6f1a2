// Path normalisation of arbitrary text: never out of bounds, the result is
// always a normal form (no "//", no "/./", idempotent).
#include <stdlib.h>
#include <string.h>

#include <string>

#include <libtrel.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string path(reinterpret_cast<const char *>(data), size);
    path = path.c_str();  // up to the first NUL
    char out[4096];
    if (qx_reduce_path(path.c_str(), out) == nullptr) return 0;
    if (strstr(out, "//") != nullptr || strstr(out, "/./") != nullptr) abort();
    char again[4096];
    if (qx_reduce_path(out, again) == nullptr || strcmp(out, again) != 0) abort();
    char *owned = qx_reduce_path(path.c_str(), nullptr);
    if (owned == nullptr || strcmp(owned, out) != 0) abort();
    free(owned);
    return 0;
}
