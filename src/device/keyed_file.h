// Readers of "key=value" lines shared by the board and status code.
#pragma once

#include <stddef.h>

namespace trel::device {

// Reads path in lines of at most 254 characters (CR and LF stripped); of the
// last line beginning with prefix, copies the last "="-separated piece into
// out.  1 when such a line was found, 0 when none was, -1 when the file
// cannot be opened.
int last_keyed_piece(const char *path, const char *prefix, char *out, size_t size) noexcept;

}  // namespace trel::device
