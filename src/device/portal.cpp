// Guest portals: other daemons publish each portal as a directory of small
// token files under /var/run/guest/portal; this reads them into memory and
// answers who is authorized and which portal serves a device or a VLAN.
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string_view>

#include <trel/net.h>

#include "core/log.h"
#include "core/path_root.h"
#include "core/raii.h"

namespace {

constexpr char kModule[] = "guest_portals";
constexpr char kPortalDir[] = "/var/run/guest/portal";

// Tokens are separated by newlines and commas; the end of the text counts
// as a separator too.
// Kept: a space does not, so a token followed by a blank matches nothing.
bool is_delimiter(char c) noexcept { return c == '\0' || c == '\n' || c == ','; }

// Reads one of the portal's files into *out: its lines (pieces of at most
// 127 characters) concatenated.  *out stays null when the file cannot be
// opened or no buffer can be had.
void fill_portal_buffer_file(const char *portal, const char *file, buffer **out) noexcept {
    char path[4096];
    int n = snprintf(path, sizeof path, "%s/%s/%s", kPortalDir, portal, file);
    trel::UniqueFile f(n >= 0 && static_cast<size_t>(n) < sizeof path ? trel::path_fopen(path, "re")
                                                                      : nullptr);
    if (!f) {
        TREL_DBG(kModule, "Couldn't open %s", path);
        return;
    }
    buffer *buf = buffer_create();
    if (buf == nullptr) {
        TREL_ERR(kModule, "Not enough memory for buffer: %s", path);
        return;
    }
    char line[128];
    while (fgets(line, sizeof line, f.get()) != nullptr) {
        if (line[0] == '\0') continue;
        if (buf->printf(buf, "%s", line) == 0)
            TREL_ERR(kModule, "Couldn't read all of %s. Only have %d bytes", path,
                     static_cast<int>(buf->length(buf)));
    }
    *out = buf;
}

// Whether needle stands in the buffer's text as a whole token.
bool has_token(buffer *buf, const char *needle) noexcept {
    if (buf == nullptr || needle == nullptr || needle[0] == '\0') return false;
    auto *data = static_cast<const char *>(buf->data(buf));
    std::string_view text(data, strnlen(data, buf->length(buf)));
    std::string_view want(needle);
    for (size_t at = text.find(want); at != std::string_view::npos; at = text.find(want, at)) {
        size_t end = at + want.size();
        bool starts = at == 0 || is_delimiter(text[at - 1]);
        bool ends = end == text.size() || is_delimiter(text[end]);
        if (starts && ends) return true;
        at = end;  // go on after this occurrence
    }
    return false;
}

guest_portal *portal_of(guest_portal_link *link) noexcept {
    return reinterpret_cast<guest_portal *>(link);
}

bool is_empty(const guest_portal_set *set) noexcept {
    return set->head.next == nullptr || set->head.next == &set->head;
}

// Walks the set from the portal added last to the one added first and
// returns the first for which match is true.
// Kept: so when several portals match, the one added last wins.
template <typename Match>
guest_portal *find_from_tail(const guest_portal_set *set, Match match) noexcept {
    if (set == nullptr || is_empty(set)) return nullptr;
    for (guest_portal_link *l = set->head.prev; l != &set->head; l = l->prev)
        if (match(portal_of(l))) return portal_of(l);
    return nullptr;
}

}  // namespace

static_assert(offsetof(guest_portal, link) == 0, "a portal starts with its list links");

TREL_API guest_portal *guest_portal_init(guest_portal *portal) noexcept {
    if (portal != nullptr) memset(portal, 0, sizeof *portal);
    return portal;
}

TREL_API void guest_portal_read(guest_portal *portal, const char *name) noexcept {
    if (portal == nullptr || name == nullptr) return;
    snprintf(portal->name, sizeof portal->name, "%s", name);
    fill_portal_buffer_file(name, "authorized", &portal->authorized);
    fill_portal_buffer_file(name, "devnames", &portal->devnames);
    fill_portal_buffer_file(name, "vlans", &portal->vlans);
}

TREL_API void guest_portal_clear(guest_portal *portal) noexcept {
    if (portal == nullptr) return;
    for (buffer **b : {&portal->authorized, &portal->devnames, &portal->vlans}) {
        buffer_destroy(*b);
        *b = nullptr;
    }
}

TREL_API int guest_portal_is_auth(const guest_portal *portal, const char *client) noexcept {
    return portal != nullptr && has_token(portal->authorized, client);
}

TREL_API int guest_portal_has_device(const guest_portal *portal, const char *device) noexcept {
    return portal != nullptr && has_token(portal->devnames, device);
}

TREL_API void guest_portal_set_init(guest_portal_set *set) noexcept {
    if (set == nullptr) return;
    set->head.next = set->head.prev = &set->head;
}

TREL_API void guest_portal_set_read(guest_portal_set *set) noexcept {
    if (set == nullptr) return;
    trel::UniqueDir dir(trel::path_opendir(kPortalDir));
    if (!dir) {
        TREL_ERR(kModule, "Couldn't open guest dir %s", kPortalDir);
        return;
    }
    while (struct dirent *e = readdir(dir.get())) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        // Kept: entries are not checked for being directories; a plain file
        // gives a portal with no buffers.
        auto *portal = static_cast<guest_portal *>(malloc(sizeof(guest_portal)));
        if (portal == nullptr) {
            TREL_ERR(kModule, "Couldn't allocate portal for %s", e->d_name);
            continue;
        }
        guest_portal_read(guest_portal_init(portal), e->d_name);
        guest_portal_set_add(set, portal);
    }
}

TREL_API void guest_portal_set_add(guest_portal_set *set, guest_portal *portal) noexcept {
    if (set == nullptr || portal == nullptr) return;
    if (set->head.next == nullptr) guest_portal_set_init(set);
    guest_portal_link *tail = set->head.prev;
    portal->link.prev = tail;
    portal->link.next = &set->head;
    tail->next = &portal->link;
    set->head.prev = &portal->link;
}

TREL_API uint64_t guest_portal_set_count(const guest_portal_set *set) noexcept {
    uint64_t n = 0;
    find_from_tail(set, [&n](guest_portal *) {
        n++;
        return false;
    });
    return n;
}

TREL_API void guest_portal_set_clear(guest_portal_set *set) noexcept {
    if (set == nullptr) return;
    if (!is_empty(set)) {
        for (guest_portal_link *l = set->head.prev; l != &set->head;) {
            guest_portal_link *prev = l->prev;
            guest_portal *portal = portal_of(l);
            guest_portal_clear(portal);
            free(portal);
            l = prev;
        }
    }
    guest_portal_set_init(set);
}

TREL_API guest_portal *guest_portal_from_device(const guest_portal_set *set,
                                                const char *device) noexcept {
    if (device == nullptr) return nullptr;
    return find_from_tail(set,
                          [device](guest_portal *p) { return has_token(p->devnames, device); });
}

TREL_API guest_portal *guest_portal_from_name(const guest_portal_set *set,
                                              const char *name) noexcept {
    if (name == nullptr) return nullptr;
    return find_from_tail(set, [name](guest_portal *p) { return strcmp(p->name, name) == 0; });
}

TREL_API guest_portal *guest_portal_from_vlan(const guest_portal_set *set, int32_t vlan) noexcept {
    if (vlan < 0) return nullptr;
    char text[16];
    snprintf(text, sizeof text, "%d", vlan);
    return find_from_tail(set, [&text](guest_portal *p) { return has_token(p->vlans, text); });
}
