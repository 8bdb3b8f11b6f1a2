// Helpers shared by the http test files.
#pragma once

#include <stdint.h>

#include <string>

#include <trel/http.h>

#include "http_server.h"

// A response record freed at the end of its scope.
struct Response {
    curl_simple_response *r;
    explicit Response(uint64_t max = 4096) : r(curl_simple_response_init(max)) {}
    ~Response() { curl_simple_response_free(r); }
    std::string body() const {
        return std::string((const char *)r->body->data(r->body), r->body->length(r->body));
    }
};
