/* libtrel URLs and HTTP: URL parsing, normalisation and resolution, and
 * one-shot HTTP requests over libcurl. */
#ifndef TREL_HTTP_H
#define TREL_HTTP_H

#include <stdint.h>
#include <sys/socket.h>
#include <netdb.h>

#include <curl/curl.h>
#include <jansson.h>

#include <trel/common.h>
#include <trel/core.h>

#if defined(__GLIBC__) && !defined(__USE_XOPEN2K)
/* Strict ISO C without POSIX feature macros: <netdb.h> leaves struct addrinfo
 * out, and it stays out for the whole translation unit.  Same layout. */
struct addrinfo {
    int ai_flags;
    int ai_family;
    int ai_socktype;
    int ai_protocol;
    socklen_t ai_addrlen;
    struct sockaddr *ai_addr;
    char *ai_canonname;
    struct addrinfo *ai_next;
};
#endif

TREL_BEGIN_DECLS

/* ---- URLs ----------------------------------------------------------------- */

/* Room for the largest address kept (struct sockaddr_in6). */
#define URL_INFO_ADDR_SIZE 28

/* A parsed URL.  Made by url_parse or url_copy, released with url_destroy. */
typedef struct url_info url_info;
struct url_info {
    char *url;      /* normalised text */
    char *orig;     /* the text that was parsed */
    char *scheme;   /* lower-cased */
    char *userinfo; /* before the '@' of the authority, or NULL */
    char *host;     /* without brackets */
    uint16_t port;  /* effective port */
    char *path;     /* from the first '/', '?' or ';' after the authority, or "/" */
    int32_t is_https;
    int32_t is_ipv6;
    struct addrinfo ai; /* address chosen by url_resolve; ai_addr points at addr */
    uint8_t addr[URL_INFO_ADDR_SIZE];
    int32_t resolve_state;
};

/* 0 and the default port in *port (when port is non-NULL) for http, https,
 * stun, ws and wss in any case; -1 for anything else or NULL. */
int url_scheme2port(const char *scheme, uint16_t *port) TREL_NOEXCEPT;
/* A new record the caller releases with url_destroy, or NULL: for NULL, empty
 * or over 1024 characters, an unknown scheme, no host, an '@' after the
 * authority, and any text libcurl could read another way: a byte that is not
 * printable ASCII (control bytes, space, DEL) anywhere; in the authority a
 * '#', a second '@', an empty host before ':', brackets anywhere but around
 * the host at its start or followed by anything but ":digits"; a host holding
 * anything but letters, digits, '-', '.', '_', '~' and ':' (so no zone '%'). */
url_info *url_parse(const char *text) TREL_NOEXCEPT;
/* The copy's ai.ai_addr still points at the source's address storage:
 * resolve the copy again before using its address without the source. */
url_info *url_copy(const url_info *src) TREL_NOEXCEPT;
/* Destroys *dst, stores a copy of src there and returns it. */
url_info *url_replace(url_info **dst, const url_info *src) TREL_NOEXCEPT;
void url_destroy(url_info *url) TREL_NOEXCEPT;
/* 0; a getaddrinfo error code; -6 when no IPv4/IPv6 address was found; -2
 * when an address does not fit; -1 for a NULL record.  hints may be NULL
 * (IPv4, stream). */
int url_resolve(url_info *url, const struct addrinfo *hints) TREL_NOEXCEPT;
/* Writes the held address as text: 0, 22 for a NULL record, or errno. */
int url_addr_ntop(const url_info *url, char *buf, size_t size) TREL_NOEXCEPT;
/* Form encoding: unreserved bytes kept, ' ' as '+', the rest as %xx.  The
 * caller frees the result. */
char *url_encode(const char *s) TREL_NOEXCEPT;
void dump_addrinfo(const struct addrinfo *list) TREL_NOEXCEPT;

/* ---- Simple HTTP client --------------------------------------------------- */

/* Request flags. */
#define CURL_SIMPLE_DOH 1u          /* resolve through curl_simple_doh_providers */
#define CURL_SIMPLE_DOH_FALLBACK 2u /* then once through the system resolver */

/* Method names indexed by method: "GET", "POST", "PUT". */
extern const char *curl_simple_method_str[3];
/* DNS-over-HTTPS resolvers tried in order; NULL-terminated. */
extern const char *curl_simple_doh_providers[3];

/* A bounded response: the body keeps at most max_size bytes while received
 * counts everything the server sent. */
typedef struct curl_simple_response curl_simple_response;
struct curl_simple_response {
    long status;
    buffer *body;
    uint64_t max_size;
    uint64_t received;
};

/* Each returns libcurl's result: CURLE_OK for a completed transfer whatever
 * the HTTP status.  The caller keeps headers, body and object.  Only http and
 * https are spoken, for the URL and for redirects (else
 * CURLE_UNSUPPORTED_PROTOCOL); at most 10 redirects are followed (else
 * CURLE_TOO_MANY_REDIRECTS), and a POST or PUT keeps its method and body
 * through each of them, 301, 302 and 303 included. */
CURLcode curl_simple_get(const char *url, uint32_t flags, struct curl_slist *headers,
                         curl_simple_response *response) TREL_NOEXCEPT;
CURLcode curl_simple_post(const char *url, uint32_t flags, struct curl_slist *headers,
                          const void *body, long size,
                          curl_simple_response *response) TREL_NOEXCEPT;
CURLcode curl_simple_put(const char *url, uint32_t flags, struct curl_slist *headers,
                         const void *body, long size, curl_simple_response *response) TREL_NOEXCEPT;
CURLcode curl_simple_post_json(const char *url, uint32_t flags, json_t *object,
                               curl_simple_response *response) TREL_NOEXCEPT;
CURLcode curl_simple_put_json(const char *url, uint32_t flags, json_t *object,
                              curl_simple_response *response) TREL_NOEXCEPT;
curl_simple_response *curl_simple_response_init(uint64_t max_size) TREL_NOEXCEPT;
void curl_simple_response_free(curl_simple_response *response) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
