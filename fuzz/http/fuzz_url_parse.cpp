// URL parsing of arbitrary text: never out of bounds, no leaks, and every
// accepted record is consistent, copies exactly and parses again from its
// normalised text into the same host, port and path.  Nothing libcurl could read as
// another host is accepted: only printable ASCII, no '#' and at most one '@'
// in the authority, and a host made of name and address characters alone,
// an IPv6 literal whenever it holds a ':'.
#include <arpa/inet.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <string>

#include <trel/http.h>

namespace {

void check(bool ok) {
    if (!ok) abort();
}

bool same(const char *a, const char *b) {
    return (a == nullptr && b == nullptr) || (a && b && strcmp(a, b) == 0);
}

bool host_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           (c != '\0' && strchr("-._~:", c) != nullptr);
}

// The authority of an accepted text: after "://" (if any) up to the path.
std::string authority(const std::string &text) {
    size_t sep = text.find("://");
    size_t begin = sep == std::string::npos ? 0 : sep + 3;
    size_t end = text.find_first_of("/?;", begin);
    return text.substr(begin, end == std::string::npos ? end : end - begin);
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
    for (unsigned char c : text) check(c > 0x20 && c < 0x7f);
    for (const char *p = u->host; *p; p++) check(host_char(*p));
    struct in6_addr addr;
    if (strchr(u->host, ':') != nullptr) check(inet_pton(AF_INET6, u->host, &addr) == 1);
    std::string auth = authority(text);
    check(auth.find('#') == std::string::npos);
    long ats = std::count(auth.begin(), auth.end(), '@');
    check(ats <= 1 && ats == std::count(text.begin(), text.end(), '@'));
    std::string hostport = auth.substr(auth.find('@') + 1);  // npos + 1 is 0
    check(hostport[0] != ':' || hostport[1] == ':');         // no empty host before a port
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

    // The normalised text reads back into the same pieces (when it still
    // fits).  Not always the same literal flag: a letter in a refused port
    // text makes a name of "A:p", while "A" alone reads as an IPv6 literal.
    if (strlen(u->url) <= 1024) {
        url_info *again = url_parse(u->url);
        check(again != nullptr);
        check(same(again->scheme, u->scheme) && same(again->userinfo, u->userinfo));
        check(same(again->host, u->host) && same(again->path, u->path));
        check(again->port == u->port);
        url_destroy(again);
    }

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
