// URL and HTTP commands: url parse|encode|resolve, http get|post|put.
#include <netdb.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <iostream>
#include <memory>
#include <string>

#include <libtrel.h>
#include <trel/http.h>

#include "tool.h"

namespace {

json_t *string_or_null(const char *s) { return s != nullptr ? json_string(s) : json_null(); }

int run_url_parse(const std::string &text) {
    url_info *u = url_parse(text.c_str());
    if (u == nullptr) return trel_tool::fail("not a usable URL: " + text);
    json_t *o = json_object();
    json_object_set_new(o, "url", json_string(u->url));
    json_object_set_new(o, "orig", json_string(u->orig));
    json_object_set_new(o, "scheme", json_string(u->scheme));
    json_object_set_new(o, "userinfo", string_or_null(u->userinfo));
    json_object_set_new(o, "host", json_string(u->host));
    json_object_set_new(o, "port", json_integer(u->port));
    json_object_set_new(o, "path", json_string(u->path));
    json_object_set_new(o, "is_https", json_integer(u->is_https));
    json_object_set_new(o, "is_ipv6", json_integer(u->is_ipv6));
    url_destroy(u);
    trel_tool::print_json(o);
    return 0;
}

int run_url_encode(const std::string &text) {
    char *e = url_encode(text.c_str());
    if (e == nullptr) return trel_tool::fail("out of memory");
    if (trel_tool::options().json)
        trel_tool::print_json(json_pack("{s:s, s:s}", "text", text.c_str(), "encoded", e));
    else
        std::cout << e << "\n";
    free(e);
    return 0;
}

int run_url_resolve(const std::string &text, bool ipv6) {
    url_info *u = url_parse(text.c_str());
    if (u == nullptr) return trel_tool::fail("not a usable URL: " + text);
    struct addrinfo hints = {};
    hints.ai_family = ipv6 ? AF_INET6 : AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    int rc = url_resolve(u, &hints);
    char addr[64] = "";
    if (rc == 0) rc = url_addr_ntop(u, addr, sizeof addr) == 0 ? 0 : -1;
    if (rc != 0) {
        std::string why = rc == -1   ? "address not printable"
                          : rc == -6 ? "no IPv4/IPv6 address"
                                     : gai_strerror(rc);
        std::string host = u->host;
        url_destroy(u);
        return trel_tool::fail("cannot resolve " + host + ": " + why);
    }
    if (trel_tool::options().json)
        trel_tool::print_json(json_pack("{s:s, s:s, s:s, s:i}", "url", u->url, "host", u->host,
                                        "address", addr, "port", (int)u->port));
    else
        std::cout << addr << " " << u->port << "\n";
    url_destroy(u);
    return 0;
}

struct HttpArgs {
    std::string url;
    std::string json_file;
    std::string body_file;
    bool doh = false;
    bool doh_fallback = false;
    uint64_t max_size = 1 << 20;
};

int run_http(int method, const HttpArgs &a) {
    static const char *const kNames[] = {"GET", "POST", "PUT"};
    uint32_t flags =
        (a.doh ? CURL_SIMPLE_DOH : 0) | (a.doh_fallback ? CURL_SIMPLE_DOH_FALLBACK : 0);
    json_t *object = nullptr;
    std::string body;
    if (!a.json_file.empty()) {
        std::string text;
        if (!trel_tool::read_input(a.json_file, text)) return 1;
        json_error_t err;
        object = json_loads(text.c_str(), 0, &err);
        if (object == nullptr) return trel_tool::fail(a.json_file + ": " + err.text);
    } else if (!a.body_file.empty() && !trel_tool::read_input(a.body_file, body)) {
        return 1;
    }

    curl_simple_response *r = curl_simple_response_init(a.max_size);
    if (r == nullptr) {
        json_decref(object);
        return trel_tool::fail("out of memory");
    }
    CURLcode rc;
    if (method == 0)
        rc = curl_simple_get(a.url.c_str(), flags, nullptr, r);
    else if (object != nullptr)
        rc = method == 1 ? curl_simple_post_json(a.url.c_str(), flags, object, r)
                         : curl_simple_put_json(a.url.c_str(), flags, object, r);
    else if (method == 1)
        rc = curl_simple_post(a.url.c_str(), flags, nullptr, body.data(), (long)body.size(), r);
    else
        rc = curl_simple_put(a.url.c_str(), flags, nullptr, body.data(), (long)body.size(), r);
    json_decref(object);

    std::string received((const char *)r->body->data(r->body), r->body->length(r->body));
    long status = r->status;
    uint64_t total = r->received;
    curl_simple_response_free(r);
    if (rc != CURLE_OK)
        return trel_tool::fail(std::string(kNames[method]) + " " + a.url + ": libcurl error " +
                               std::to_string(rc) + " (--log-level 8 shows details)");
    if (trel_tool::options().json) {
        json_t *o = json_pack("{s:i, s:I, s:I}", "status", (int)status, "received",
                              (json_int_t)total, "stored", (json_int_t)received.size());
        json_object_set_new(o, "body", json_stringn(received.data(), received.size()));
        trel_tool::print_json(o);
    } else {
        std::cout << "HTTP " << status << "\n" << received;
        if (!received.empty() && received.back() != '\n') std::cout << "\n";
        if (total > received.size())
            std::cerr << "trel: body cut at " << received.size() << " of " << total << " bytes\n";
    }
    return 0;
}

}  // namespace

void trel_tool::register_http_commands(CLI::App &app) {
    auto *url = app.add_subcommand("url", "Parse, encode and resolve URLs");
    url->require_subcommand(1);

    auto text = std::make_shared<std::string>();
    auto *parse = url->add_subcommand("parse", "Print the parsed URL record as JSON");
    parse->add_option("URL", *text)->required();
    trel_tool::add_command(parse, [text] { return run_url_parse(*text); });

    auto plain = std::make_shared<std::string>();
    auto *encode = url->add_subcommand("encode", "Form-encode TEXT");
    encode->add_option("TEXT", *plain)->required();
    trel_tool::add_command(encode, [plain] { return run_url_encode(*plain); });

    auto target = std::make_shared<std::string>();
    auto ipv6 = std::make_shared<bool>(false);
    auto *resolve = url->add_subcommand("resolve", "Resolve the URL's host: address and port");
    resolve->add_option("URL", *target)->required();
    resolve->add_flag("-6,--ipv6", *ipv6, "Ask for an IPv6 address");
    trel_tool::add_command(resolve, [target, ipv6] { return run_url_resolve(*target, *ipv6); });

    auto *http = app.add_subcommand("http", "One-shot HTTP requests (5-second time-out)");
    http->require_subcommand(1);
    const char *names[] = {"get", "post", "put"};
    for (int method = 0; method < 3; method++) {
        auto args = std::make_shared<HttpArgs>();
        auto *cmd =
            http->add_subcommand(names[method], "Send a request; print the status and the body");
        cmd->add_option("URL", args->url)->required();
        if (method != 0) {
            auto *json = cmd->add_option("--json", args->json_file,
                                         "Send this JSON file (- for standard input)");
            cmd->add_option("--body", args->body_file,
                            "Send this file as it is (- for standard input)")
                ->excludes(json);
        }
        cmd->add_flag("--doh", args->doh, "Resolve the host through the DNS-over-HTTPS providers");
        cmd->add_flag("--doh-fallback", args->doh_fallback,
                      "Fall back to the system resolver after DoH failed");
        cmd->add_option("--max-size", args->max_size, "Keep at most N bytes of the body")
            ->capture_default_str();
        trel_tool::add_command(cmd, [method, args] { return run_http(method, *args); });
    }
}
