// URL parsing for the schemes the device speaks, name resolution into the
// record, and form encoding.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>

#include <trel/http.h>

#include "core/log.h"

static_assert(sizeof(struct sockaddr_in6) <= URL_INFO_ADDR_SIZE);
static_assert(offsetof(url_info, addr) % alignof(struct sockaddr_in6) == 0);

namespace {

constexpr size_t kMaxUrlLength = 1024;
// Kept: 65535 is refused as a port and the scheme's default stays.
constexpr unsigned kMaxPort = 65534;

struct SchemePort {
    const char *scheme;
    uint16_t port;
};

constexpr SchemePort kSchemes[] = {
    {"http", 80}, {"https", 443}, {"stun", 3478}, {"ws", 80}, {"wss", 443},
};

// Kept: out of memory goes straight to syslog, not through libtrel_log, with
// the fixed line tags log watchers know these failures by.
void url_oom(const char *function, int tag) noexcept {
    syslog(LOG_ERR, "%s:%d url oom\n", function, tag);
}

// A fresh copy of [begin, end).
char *dup_range(const char *begin, const char *end) noexcept {
    return strndup(begin, (size_t)(end - begin));
}

const char *find_in(const char *begin, const char *end, char c) noexcept {
    const void *p = memchr(begin, c, (size_t)(end - begin));
    return static_cast<const char *>(p);
}

bool is_non_hex_letter(unsigned char c) noexcept {
    return (c >= 'g' && c <= 'z') || (c >= 'G' && c <= 'Z');
}

bool is_hex_digit(unsigned char c) noexcept {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The port text [begin, end) when it is 1 to 5 decimal digits worth 1 to
// 65534, else 0.
unsigned port_value(const char *begin, const char *end) noexcept {
    size_t n = (size_t)(end - begin);
    if (n < 1 || n > 5) return 0;
    unsigned v = 0;
    for (const char *p = begin; p < end; p++) {
        if (*p < '0' || *p > '9') return 0;
        v = v * 10 + (unsigned)(*p - '0');
    }
    return v >= 1 && v <= kMaxPort ? v : 0;
}

// Where libcurl would read an authority another way, it is refused: the
// authority [a, e) with its host part [h, e) after the user information
// holds no '#' and no second '@'; the host part starts with no lone ':' (an
// empty host before a port); one pair of brackets at most, at the start of
// the host part and followed by nothing or by ':' and digits.
bool authority_is_plain(const char *a, const char *h, const char *e) noexcept {
    if (find_in(a, e, '#') != nullptr || find_in(h, e, '@') != nullptr) return false;
    if (h < e && h[0] == ':' && (h + 1 == e || h[1] != ':')) return false;
    const char *open = find_in(h, e, '['), *close = find_in(h, e, ']');
    if (open == nullptr && close == nullptr) return true;
    if (open != h || close == nullptr || find_in(open + 1, e, '[') != nullptr ||
        find_in(close + 1, e, ']') != nullptr)
        return false;
    const char *p = close + 1;
    if (p < e && *p++ != ':') return false;
    for (; p < e; p++)
        if (*p < '0' || *p > '9') return false;
    return true;
}

// A host is a name or an address: letters, digits, '-', '.', '_', '~', and
// ':' of an IPv6 literal.  So no zone ('%') inside brackets, and no bracket
// left in a host.
bool is_host_text(const char *begin, const char *end) noexcept {
    for (const char *p = begin; p < end; p++)
        if (!is_hex_digit((unsigned char)*p) && !is_non_hex_letter((unsigned char)*p) &&
            strchr("-._~:", *p) == nullptr)
            return false;
    return true;
}

// A host holding ':' must be an IPv6 literal: libcurl reads "cafe:80" or
// "1:2" as a name and a port.  (A dot-less hex name such as "cafe" holds no
// ':' and is not checked here.)
bool is_ipv6_literal(const char *begin, const char *end) noexcept {
    char text[INET6_ADDRSTRLEN];
    size_t n = (size_t)(end - begin);
    if (n >= sizeof text) return false;
    memcpy(text, begin, n);
    text[n] = '\0';
    struct in6_addr addr;
    return inet_pton(AF_INET6, text, &addr) == 1;
}

// Host and port of the authority [a, e).  False when the brackets do not
// pair up.
bool split_authority(const char *a, const char *e, url_info *u, const char **host_begin,
                     const char **host_end, const char **port_begin) noexcept {
    const char *open = find_in(a, e, '[');
    const char *close = find_in(a, e, ']');
    if ((open == nullptr) != (close == nullptr)) return false;
    if (open != nullptr && close < open) return false;

    *host_begin = a;
    *host_end = e;
    *port_begin = nullptr;
    bool name = false;
    for (const char *p = a; p < e; p++)
        if (is_non_hex_letter((unsigned char)*p)) {
            name = true;
            break;
        }
    const char *colon = find_in(a, e, ':');
    if (name) {
        if (colon != nullptr) {
            *host_end = colon;
            *port_begin = colon + 1;
        }
        return true;
    }
    if (open != nullptr) {
        u->is_ipv6 = 1;
        *host_begin = open + 1;
        *host_end = close;
        const char *pc = find_in(close, e, ':');
        if (pc != nullptr) *port_begin = pc + 1;
        return true;
    }
    const char *dot = find_in(a, e, '.');
    if (dot == nullptr) {
        // Kept: only hexadecimal digits and colons is an IPv6 literal, so a
        // dot-less hex name such as "cafe" is taken as an address.
        u->is_ipv6 = 1;
        return true;
    }
    if (colon == nullptr) return true;
    if (colon > dot) {
        *host_end = colon;
        *port_begin = colon + 1;
    } else {
        u->is_ipv6 = 1;
    }
    return true;
}

// Writes the normalised text of a parsed record into u->url.
bool normalise(url_info *u, uint16_t def) noexcept {
    // ":%u" with the port, only when it is not the scheme's default.
    char port[8];
    size_t port_len = 0;
    if (u->port != def) {
        char digits[5];
        size_t nd = 0;
        for (unsigned v = u->port; v != 0; v /= 10) digits[nd++] = (char)('0' + v % 10);
        port[port_len++] = ':';
        while (nd > 0) port[port_len++] = digits[--nd];
    }
    size_t scheme_len = strlen(u->scheme), user_len = u->userinfo ? strlen(u->userinfo) : 0;
    size_t host_len = strlen(u->host), path_len = strlen(u->path);
    u->url = static_cast<char *>(
        malloc(scheme_len + 3 + user_len + 1 + host_len + 2 + port_len + path_len + 1));
    if (u->url == nullptr) return false;
    char *o = u->url;
    auto put = [&o](const char *src, size_t n) {
        memcpy(o, src, n);
        o += n;
    };
    put(u->scheme, scheme_len);
    put("://", 3);
    if (u->userinfo != nullptr) {
        put(u->userinfo, user_len);
        *o++ = '@';
    }
    if (u->is_ipv6) *o++ = '[';
    put(u->host, host_len);
    if (u->is_ipv6) *o++ = ']';
    put(port, port_len);
    put(u->path, path_len + 1);
    return true;
}

// Parses into a zeroed record; false on refusal or allocation failure.
bool parse_into(url_info *u, const char *text) noexcept {
    // Printable ASCII only: no control byte, space, DEL or non-ASCII byte,
    // which libcurl refuses or reads differently.
    const char *end = text + strlen(text);
    for (const char *p = text; p < end; p++)
        if ((unsigned char)*p <= 0x20 || (unsigned char)*p >= 0x7f) return false;

    u->port = 80;
    const char *rest;
    const char *colon = strchr(text, ':');
    if (colon == nullptr) {
        u->scheme = strdup("http");
        rest = text;
    } else if (colon[1] == '/' && colon[2] == '/') {
        u->scheme = dup_range(text, colon);
        if (u->scheme != nullptr)
            for (char *p = u->scheme; *p; p++)
                if (*p >= 'A' && *p <= 'Z') *p = (char)(*p - 'A' + 'a');
        rest = colon + 3;
    } else {
        // Kept: no scheme: a bare host:port is refused, never read as a
        // scheme.
        return false;
    }
    if (u->scheme == nullptr) {
        url_oom("url_parse", 229);
        return false;
    }
    uint16_t def = 0;
    bool known = url_scheme2port(u->scheme, &def) == 0;
    if (known) u->port = def;
    u->is_https = strcmp(u->scheme, "https") == 0;  // Kept: "wss" does not count

    const char *path = strpbrk(rest, "/?;");
    const char *auth_end = path != nullptr ? path : end;
    if (find_in(auth_end, end, '@') != nullptr) return false;  // an '@' after the authority
    const char *auth = rest;
    if (const char *at = find_in(rest, auth_end, '@')) {
        if (at > rest) {
            u->userinfo = dup_range(rest, at);
            if (u->userinfo == nullptr) {
                url_oom("url_parse", 229);
                return false;
            }
        }
        auth = at + 1;
    }
    if (!authority_is_plain(rest, auth, auth_end)) return false;

    const char *hb, *he, *pb;
    if (!split_authority(auth, auth_end, u, &hb, &he, &pb)) return false;
    if (!is_host_text(hb, he)) return false;
    if (find_in(hb, he, ':') != nullptr && !is_ipv6_literal(hb, he)) return false;
    if (pb != nullptr) {
        unsigned v = port_value(pb, auth_end);
        if (v != 0) u->port = (uint16_t)v;
    }
    if (he <= hb) return false;
    if (!known || u->port == 0) return false;

    u->host = dup_range(hb, he);
    u->path = path != nullptr ? strdup(path) : strdup("/");
    if (u->host == nullptr || u->path == nullptr) {
        url_oom("url_parse", 229);
        return false;
    }
    if (!normalise(u, def)) {
        url_oom("url_parse", 272);
        return false;
    }
    return true;
}

void free_fields(url_info *u) noexcept {
    free(u->url);
    free(u->orig);
    free(u->scheme);
    free(u->userinfo);
    free(u->host);
    free(u->path);
}

}  // namespace

TREL_API int url_scheme2port(const char *scheme, uint16_t *port) noexcept {
    if (scheme == nullptr) return -1;
    for (const SchemePort &s : kSchemes) {
        if (strcasecmp(scheme, s.scheme) == 0) {
            if (port != nullptr) *port = s.port;
            return 0;
        }
    }
    return -1;
}

TREL_API url_info *url_parse(const char *text) noexcept {
    if (text == nullptr || text[0] == '\0' || strnlen(text, kMaxUrlLength + 1) > kMaxUrlLength)
        return nullptr;
    url_info *u = static_cast<url_info *>(calloc(1, sizeof *u));
    if (u == nullptr) {
        url_oom("url_parse", 174);
        return nullptr;
    }
    u->orig = strdup(text);
    if (u->orig == nullptr) {
        url_oom("url_parse", 174);
        free(u);
        return nullptr;
    }
    if (!parse_into(u, text)) {
        url_destroy(u);
        return nullptr;
    }
    return u;
}

TREL_API url_info *url_copy(const url_info *src) noexcept {
    if (src == nullptr || src->url == nullptr) return nullptr;
    url_info *u = static_cast<url_info *>(calloc(1, sizeof *u));
    if (u == nullptr) {
        url_oom("url_copy", 328);
        return nullptr;
    }
    u->url = strdup(src->url);
    u->orig = strdup(src->orig ? src->orig : "");
    u->scheme = strdup(src->scheme ? src->scheme : "");
    u->host = strdup(src->host ? src->host : "");
    u->path = strdup(src->path ? src->path : "");
    if (!u->url || !u->orig || !u->scheme || !u->host || !u->path) {
        url_oom("url_copy", 339);
        url_destroy(u);
        return nullptr;
    }
    if (src->userinfo != nullptr) {
        u->userinfo = strdup(src->userinfo);
        if (u->userinfo == nullptr) {
            url_oom("url_copy", 347);
            url_destroy(u);
            return nullptr;
        }
    }
    // Kept: the address storage is not copied, so ai.ai_addr keeps pointing at
    // the source's: callers resolve a copy again before using its address.
    u->ai = src->ai;
    u->resolve_state = src->resolve_state;
    u->port = src->port;
    u->is_https = src->is_https;
    u->is_ipv6 = src->is_ipv6;
    return u;
}

TREL_API url_info *url_replace(url_info **dst, const url_info *src) noexcept {
    url_info *copy = url_copy(src);
    if (dst == nullptr) return copy;
    url_destroy(*dst);
    *dst = copy;
    return copy;
}

TREL_API void url_destroy(url_info *url) noexcept {
    if (url == nullptr) return;
    free_fields(url);
    free(url);
}

TREL_API int url_resolve(url_info *url, const struct addrinfo *hints) noexcept {
    if (url == nullptr) return -1;
    TREL_DBG("libtrel", "url: %s", url->url);

    struct addrinfo def;
    memset(&def, 0, sizeof def);
    def.ai_family = AF_INET;
    def.ai_socktype = SOCK_STREAM;
    if (hints == nullptr) hints = &def;

    memset(&url->ai, 0, sizeof url->ai);
    memset(url->addr, 0, sizeof url->addr);
    url->resolve_state = 0;
    char service[8];
    snprintf(service, sizeof service, "%d", (int)url->port);

    struct addrinfo *list = nullptr;
    int rc = getaddrinfo(url->host, service, hints, &list);
    if (rc != 0) {
        TREL_DBG("libtrel", "failed to resolve URL : %s", gai_strerror(rc));
        return rc;
    }
    // Kept: the list is shown at level 16 exactly, not above.
    if (libtrel_log_level == 16) dump_addrinfo(list);

    // Kept: the walk goes on past the first match, so the last IPv4 or IPv6
    // entry listed is the one the record keeps.
    int result = -6;
    for (struct addrinfo *e = list; e != nullptr; e = e->ai_next) {
        if (e->ai_family != AF_INET && e->ai_family != AF_INET6) continue;
        url->ai = *e;
        url->ai.ai_next = nullptr;
        url->ai.ai_canonname = nullptr;  // belongs to the list freed below
        if (e->ai_addrlen <= sizeof url->addr) {
            memcpy(url->addr, e->ai_addr, e->ai_addrlen);
            url->ai.ai_addr = reinterpret_cast<struct sockaddr *>(url->addr);
            result = 0;
        } else {
            url->ai.ai_addr = nullptr;
            TREL_ERR("libtrel", "Oversize sockaddr: %d vs %zd", (int)e->ai_addrlen,
                     (ssize_t)sizeof url->addr);
            result = -2;
        }
    }
    freeaddrinfo(list);
    return result;
}

TREL_API int url_addr_ntop(const url_info *url, char *buf, size_t size) noexcept {
    if (url == nullptr) return EINVAL;
    const struct sockaddr *sa = url->ai.ai_addr;
    if (sa == nullptr) return 0;
    const void *src;
    if (url->ai.ai_family == AF_INET)
        src = &reinterpret_cast<const struct sockaddr_in *>(sa)->sin_addr;
    else if (url->ai.ai_family == AF_INET6)
        src = &reinterpret_cast<const struct sockaddr_in6 *>(sa)->sin6_addr;
    else
        return 0;
    if (inet_ntop(url->ai.ai_family, src, buf, (socklen_t)size) == nullptr) return errno;
    return 0;
}

TREL_API char *url_encode(const char *s) noexcept {
    if (s == nullptr) return nullptr;
    static const char kHex[] = "0123456789abcdef";
    size_t n = strlen(s);
    char *out = static_cast<char *>(malloc(3 * n + 1));
    if (out == nullptr) return nullptr;
    char *o = out;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(s); *p; p++) {
        unsigned char c = *p;
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
            c == '-' || c == '.' || c == '_' || c == '~') {
            *o++ = (char)c;
        } else if (c == ' ') {
            *o++ = '+';
        } else {
            *o++ = '%';
            *o++ = kHex[c >> 4];
            *o++ = kHex[c & 15];
        }
    }
    *o = '\0';
    return out;
}

TREL_API void dump_addrinfo(const struct addrinfo *list) noexcept {
    for (const struct addrinfo *e = list; e != nullptr; e = e->ai_next) {
        const struct protoent *pe = getprotobynumber(e->ai_protocol);
        if (pe != nullptr)
            TREL_DBG("libtrel", "Protocol:\t%d (%s)", e->ai_protocol, pe->p_name);
        else
            TREL_DBG("libtrel", "Protocol:\t%d (Unknown)", e->ai_protocol);
        if (e->ai_addr == nullptr) continue;
        TREL_DBG("libtrel", "Socket Address (len=%d):", (int)e->ai_addrlen);
        char text[INET6_ADDRSTRLEN];
        if (e->ai_family == AF_INET) {
            const auto *sin = reinterpret_cast<const struct sockaddr_in *>(e->ai_addr);
            TREL_DBG("libtrel", "  Port:\t\t%d", (int)ntohs(sin->sin_port));
            TREL_DBG("libtrel", "  IPv4 Address:\t%s",
                     inet_ntop(AF_INET, &sin->sin_addr, text, sizeof text) ? text : "?");
        } else if (e->ai_family == AF_INET6) {
            const auto *sin6 = reinterpret_cast<const struct sockaddr_in6 *>(e->ai_addr);
            TREL_DBG("libtrel", "  Port:\t\t%d", (int)ntohs(sin6->sin6_port));
            TREL_DBG("libtrel", "  IPv6 Address:\t%s",
                     inet_ntop(AF_INET6, &sin6->sin6_addr, text, sizeof text) ? text : "?");
        }
    }
}
