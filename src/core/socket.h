// The one way the library makes sockets: always close-on-exec, so that no
// descriptor of ours leaks into a child that the library or its host forks.
#pragma once

#include <sys/socket.h>

namespace trel {

// socket(2) with SOCK_CLOEXEC added to type; -1 with errno on failure.
inline int open_socket(int domain, int type, int protocol = 0) noexcept {
    return ::socket(domain, type | SOCK_CLOEXEC, protocol);
}

}  // namespace trel
