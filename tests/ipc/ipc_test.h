// Helpers shared by the ipc tests.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>

#include <trel/ipc.h>

#include "trel_test.h"

namespace ipc_test {

// Client sockets bind under the real /var/run.
inline bool can_bind_clients() { return access("/var/run", W_OK) == 0; }

inline std::string sun_path(const sockaddr_un &a) {
    return std::string(a.sun_path, strnlen(a.sun_path, sizeof a.sun_path));
}

inline std::string contents(buffer *b) {
    return std::string(static_cast<const char *>(b->data(b)), b->length(b));
}

// A body that differs from chunk to chunk.
inline std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++) s[i] = (char)('a' + (i * 7 + i / 16384) % 26);
    return s;
}

}  // namespace ipc_test
