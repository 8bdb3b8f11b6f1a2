// One-shot HTTP requests over libcurl's easy interface with a bounded
// in-memory response and optional DNS-over-HTTPS resolution.
#include <stdlib.h>
#include <string.h>

#include <trel/http.h>

#include "core/log.h"

const char *curl_simple_method_str[3] = {"GET", "POST", "PUT"};
const char *curl_simple_doh_providers[3] = {
    "https://cloudflare-dns.com/dns-query",
    "https://dns.google/dns-query",
    nullptr,
};

namespace {

enum Method { kGet = 0, kPost = 1, kPut = 2 };

constexpr long kTimeoutSeconds = 5;
// Requests and redirects speak nothing but the web: no file://, no mail or
// directory protocols reached through a Location header.
constexpr char kProtocols[] = "http,https";
constexpr long kMaxRedirects = 10;
constexpr size_t kErrorSize = 256;
static_assert(kErrorSize >= CURL_ERROR_SIZE);

// Kept: keeps what fits under max_size and reports everything as taken, so a
// long answer is cut rather than failed (received still counts it all).
size_t curl_simple_write(char *data, size_t size, size_t count, void *userdata) noexcept {
    auto *r = static_cast<curl_simple_response *>(userdata);
    size_t n = size * count;
    if (r == nullptr) return 0;
    r->received += n;
    uint64_t len = r->body->length(r->body);
    if (len + n <= r->max_size) return r->body->append(r->body, data, n);
    if (r->max_size > len) r->body->append(r->body, data, (size_t)(r->max_size - len));
    return n;
}

CURLcode curl_simple(const char *url, uint32_t flags, int method, struct curl_slist *headers,
                     const void *body, long size, curl_simple_response *response) noexcept {
    CURL *curl = curl_easy_init();
    if (curl == nullptr) {
        TREL_DBG("curl_simple", "Failed to init request");
        return CURLE_FAILED_INIT;
    }
    char error[kErrorSize];
    memset(error, 0, sizeof error);

    curl_easy_setopt(curl, CURLOPT_URL, url);
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, curl_simple_method_str[method]);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    // A libcurl that cannot restrict the protocols sends nothing.
    CURLcode rc = curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, kProtocols);
    if (rc == CURLE_OK) rc = curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, kProtocols);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects);
    // A body set here goes out as a POST to libcurl, whatever the method
    // string; keeping it on 301/302/303 keeps both POST and PUT bodies.
    curl_easy_setopt(curl, CURLOPT_POSTREDIR, (long)CURL_REDIR_POST_ALL);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (headers != nullptr) curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    if (body != nullptr && size > 0) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, size);
    }
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, kTimeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    if (response != nullptr) {
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, curl_simple_write);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, response);
    }

    if (rc != CURLE_OK) {
        // Refused above.
    } else if (flags & CURL_SIMPLE_DOH) {
        rc = CURLE_COULDNT_RESOLVE_HOST;
        for (const char *const *p = curl_simple_doh_providers; *p != nullptr; p++) {
            curl_easy_setopt(curl, CURLOPT_DOH_URL, *p);
            rc = curl_easy_perform(curl);
            if (rc != CURLE_COULDNT_RESOLVE_HOST) break;
        }
        if (rc == CURLE_COULDNT_RESOLVE_HOST && (flags & CURL_SIMPLE_DOH_FALLBACK)) {
            curl_easy_setopt(curl, CURLOPT_DOH_URL, (const char *)nullptr);
            rc = curl_easy_perform(curl);
        }
    } else {
        rc = curl_easy_perform(curl);
    }

    if (rc != CURLE_OK)
        TREL_DBG("curl_simple", "%s '%s' failed: [%d] %s", curl_simple_method_str[method], url,
                 (int)rc, error);
    if (response != nullptr) {
        long status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
        response->status = status;
    }
    curl_easy_cleanup(curl);
    return rc;
}

CURLcode curl_simple_json(const char *url, uint32_t flags, int method, json_t *object,
                          curl_simple_response *response) noexcept {
    struct curl_slist *headers = curl_slist_append(nullptr, "Content-Type: application/json");
    if (headers == nullptr) {
        TREL_ERR("curl_simple", "Failed to add HTTP header");
        return CURLE_OUT_OF_MEMORY;
    }
    CURLcode rc;
    if (object != nullptr) {
        char *text = json_dumps(object, JSON_COMPACT);
        if (text == nullptr) {
            TREL_ERR("curl_simple", "Failed to dump json payload object");
            curl_slist_free_all(headers);
            return CURLE_OUT_OF_MEMORY;
        }
        rc = curl_simple(url, flags, method, headers, text, (long)strlen(text), response);
        free(text);
    } else {
        rc = curl_simple(url, flags, method, headers, nullptr, 0, response);
    }
    curl_slist_free_all(headers);
    return rc;
}

}  // namespace

TREL_API CURLcode curl_simple_get(const char *url, uint32_t flags, struct curl_slist *headers,
                                  curl_simple_response *response) noexcept {
    return curl_simple(url, flags, kGet, headers, nullptr, 0, response);
}

TREL_API CURLcode curl_simple_post(const char *url, uint32_t flags, struct curl_slist *headers,
                                   const void *body, long size,
                                   curl_simple_response *response) noexcept {
    return curl_simple(url, flags, kPost, headers, body, size, response);
}

TREL_API CURLcode curl_simple_put(const char *url, uint32_t flags, struct curl_slist *headers,
                                  const void *body, long size,
                                  curl_simple_response *response) noexcept {
    return curl_simple(url, flags, kPut, headers, body, size, response);
}

TREL_API CURLcode curl_simple_post_json(const char *url, uint32_t flags, json_t *object,
                                        curl_simple_response *response) noexcept {
    return curl_simple_json(url, flags, kPost, object, response);
}

TREL_API CURLcode curl_simple_put_json(const char *url, uint32_t flags, json_t *object,
                                       curl_simple_response *response) noexcept {
    return curl_simple_json(url, flags, kPut, object, response);
}

TREL_API curl_simple_response *curl_simple_response_init(uint64_t max_size) noexcept {
    auto *r = static_cast<curl_simple_response *>(calloc(1, sizeof(curl_simple_response)));
    if (r == nullptr) {
        TREL_ERR("curl_simple", "Failed to allocate curl_simple_response");
        return nullptr;
    }
    r->body = buffer_create();
    if (r->body == nullptr) {
        TREL_ERR("curl_simple", "Failed to allocate response buffer");
        free(r);
        return nullptr;
    }
    r->max_size = max_size;
    return r;
}

TREL_API void curl_simple_response_free(curl_simple_response *response) noexcept {
    if (response == nullptr) return;
    buffer_destroy(response->body);
    free(response);
}
