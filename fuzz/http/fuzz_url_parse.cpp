// URL parsing of arbitrary text: never out of bounds, no leaks, and every
// accepted record is consistent and copies exactly.
#include <stdlib.h>
#include <string.h>

#include <string>

#include <trel/http.h>

namespace {

void check(bool ok) {
    if (!ok) abort();
}

bool same(const char *a, const char *b) {
    return (a == nullptr && b == nullptr) || (a && b && strcmp(a, b) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string text(reinterpret_cast<const char *>(data), size);
    text = text.c_str();  // up to the first NUL
    url_info *u = url_parse(text.c_str());
    if (u == nullptr) return 0;

    check(text.size() >= 1 && text.size() <= 1024);
    check(u->url && u->orig && u->scheme && u->host && u->path);
    check(strcmp(u->orig, text.c_str()) == 0);
    uint16_t def = 0;
    check(url_scheme2port(u->scheme, &def) == 0);
    check(u->port != 0 && u->port != 65535);
    check(u->host[0] != '\0');
    check(u->userinfo == nullptr || u->userinfo[0] != '\0');
    check(u->is_https == (strcmp(u->scheme, "https") == 0));
    check(u->path[0] == '/' || u->path[0] == '?' || u->path[0] == ';');
    check(strncmp(u->url, u->scheme, strlen(u->scheme)) == 0);
    // The normalised text ends with the path and names the port only when it
    // is not the default.
    size_t ul = strlen(u->url), pl = strlen(u->path);
    check(ul >= pl && strcmp(u->url + ul - pl, u->path) == 0);
    char port[8];
    snprintf(port, sizeof port, ":%u", (unsigned)u->port);
    if (u->port != def) check(strstr(u->url, port) != nullptr);

    url_info *c = url_copy(u);
    check(c != nullptr);
    check(same(c->url, u->url) && same(c->orig, u->orig) && same(c->scheme, u->scheme));
    check(same(c->userinfo, u->userinfo) && same(c->host, u->host) && same(c->path, u->path));
    check(c->port == u->port && c->is_https == u->is_https && c->is_ipv6 == u->is_ipv6);
    check(c->url != u->url);
    url_destroy(u);
    url_destroy(c);
    return 0;
}
