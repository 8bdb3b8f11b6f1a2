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

/* Strict ISO C without POSIX feature macros (-std=c99 alone): glibc's
 * <netdb.h> leaves struct addrinfo out for the whole translation unit.  There
 * url_info is an incomplete type: every url_* call still works through
 * pointers, but reading the record's fields needs _POSIX_C_SOURCE 200112L,
 * _DEFAULT_SOURCE or _GNU_SOURCE defined before the first include. */
#if !defined(__GLIBC__) || defined(__USE_XOPEN2K)
#define TREL_URL_INFO_COMPLETE 1
#endif

TREL_BEGIN_DECLS

struct addrinfo;

/* ---- URLs ----------------------------------------------------------------- */

/* Room for the largest address kept (struct sockaddr_in6). */
#define URL_INFO_ADDR_SIZE 28

/* A parsed URL.  Made by url_parse or url_copy, released with url_destroy. */
typedef struct url_info url_info;
#ifdef TREL_URL_INFO_COMPLETE
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
#endif

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
/* A deep copy to release with url_destroy; null for a null or unparsed src
 * or when out of memory.  The copy's ai.ai_addr still points at the source's
 * address storage: resolve the copy again before using its address without
 * the source. */
url_info *url_copy(const url_info *src) TREL_NOEXCEPT;
/* Destroys *dst, stores a copy of src there and returns it; when the copy
 * fails *dst ends null.  A null dst just returns the copy. */
url_info *url_replace(url_info **dst, const url_info *src) TREL_NOEXCEPT;
/* Frees the texts and the record; null is allowed. */
void url_destroy(url_info *url) TREL_NOEXCEPT;
/* Resolves host and port into the record's ai and addr (the last IPv4 or
 * IPv6 address listed): 0; a getaddrinfo error code; -6 when no IPv4/IPv6
 * address was found; -2 when an address does not fit; -1 for a NULL record.
 * hints may be NULL (IPv4, stream). */
int url_resolve(url_info *url, const struct addrinfo *hints) TREL_NOEXCEPT;
/* Writes the resolved address as text into buf[size]: 0 (also, writing
 * nothing, when none is held), 22 (EINVAL) for a NULL record, or inet_ntop's
 * errno. */
int url_addr_ntop(const url_info *url, char *buf, size_t size) TREL_NOEXCEPT;
/* Form encoding: unreserved bytes kept, ' ' as '+', the rest as %xx.  A new
 * text the caller frees; NULL for NULL or when out of memory. */
char *url_encode(const char *s) TREL_NOEXCEPT;
/* Logs every entry of a getaddrinfo list at debug level; the caller keeps
 * it. */
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
/* GET sends no body; POST and PUT send size bytes of body when body is
 * non-NULL and size above 0.  The JSON forms send object compact with
 * "Content-Type: application/json" (NULL: the header alone); they give
 * CURLE_OUT_OF_MEMORY when the header or the text cannot be made. */
/* A new response keeping at most max_size body bytes; release it with
 * curl_simple_response_free.  NULL when out of memory (logged). */
curl_simple_response *curl_simple_response_init(uint64_t max_size) TREL_NOEXCEPT;
/* Frees the body and the record; NULL is allowed. */
void curl_simple_response_free(curl_simple_response *response) TREL_NOEXCEPT;

TREL_END_DECLS

#endif
