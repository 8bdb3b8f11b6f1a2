// Configuration commands: cfg get, keys, section, diff, print.
#include <errno.h>
#include <string.h>

#include <iostream>
#include <memory>
#include <string>
#include <unordered_set>

#include <libtrel.h>
#include <trel/cfg.h>

#include "tool.h"

namespace {

struct CfgOptions {
    std::string file = "/tmp/system.cfg";
};

using CfgPtr = std::unique_ptr<cfg_entry, void (*)(cfg_entry *)>;

// Parses a configuration file; false with a message when it cannot be read.
// An existing file without entries gives an empty configuration.
bool load(const std::string &file, CfgPtr &out) {
    FILE *f = fopen_format("r", "%s", file.c_str());
    if (f == nullptr) {
        trel_tool::fail("cannot read " + file + ": " + strerror(errno));
        return false;
    }
    out.reset(parse_stream(f));
    int err = ferror(f) ? errno : 0;  // a directory opens, then fails to read
    fclose(f);
    if (err != 0) {
        trel_tool::fail("cannot read " + file + ": " + strerror(err));
        return false;
    }
    return true;
}

json_t *entry_json(const cfg_entry *e) {
    return json_pack("{s:s, s:s}", "key", e->key, "value", e->value);
}

json_t *list_json(const cfg_entry *list) {
    json_t *a = json_array();
    for (; list != nullptr; list = list->next) json_array_append_new(a, entry_json(list));
    return a;
}

void print_list(const cfg_entry *list) {
    for (; list != nullptr; list = list->next) std::cout << list->key << "=" << list->value << "\n";
}

struct GetArgs {
    std::string key, def, type = "str";
    bool has_default = false;
};

// Runs a typed getter; without a default, a value that does not convert is
// told apart by asking with two different defaults.
template <typename T, typename Getter>
int typed(cfg_entry *cfg, const GetArgs &a, Getter get) {
    T result;
    if (a.has_default) {
        T def;
        try {
            def = static_cast<T>(std::stoll(a.def, nullptr, 0));
        } catch (...) {
            return trel_tool::fail("default is not a number: " + a.def);
        }
        errno = 0;
        result = get(cfg, def, "%s", a.key.c_str());
    } else {
        if (get_value(cfg, nullptr, "%s", a.key.c_str()) == nullptr)
            return trel_tool::fail("no value for " + a.key);
        errno = 0;
        result = get(cfg, T(0), "%s", a.key.c_str());
        errno = 0;
        if (get(cfg, T(1), "%s", a.key.c_str()) != result)
            return trel_tool::fail("value of " + a.key + " is not a valid " + a.type);
    }
    if (trel_tool::options().json)
        trel_tool::print_json(
            json_pack("{s:s, s:I}", "key", a.key.c_str(), "value", (json_int_t)result));
    else
        std::cout << +result << "\n";
    return 0;
}

int run_get(const CfgOptions &o, const GetArgs &a) {
    CfgPtr cfg(nullptr, free_cfg);
    if (!load(o.file, cfg)) return 1;
    cfg_entry *c = cfg.get();
    if (a.type == "int32") return typed<int32_t>(c, a, get_int32);
    if (a.type == "uint32") return typed<uint32_t>(c, a, get_uint32);
    if (a.type == "int32-dec") return typed<int32_t>(c, a, get_int32_dec);
    if (a.type == "int64") return typed<int64_t>(c, a, get_int64);
    if (a.type == "bool") return typed<int>(c, a, get_bool);
    const char *def = a.has_default ? a.def.c_str() : nullptr;
    const char *v = a.type == "esc" ? get_esc_value(c, def, "%s", a.key.c_str())
                                    : get_value(c, def, "%s", a.key.c_str());
    if (v == nullptr) return trel_tool::fail("no value for " + a.key);
    if (trel_tool::options().json)
        trel_tool::print_json(json_pack("{s:s, s:s}", "key", a.key.c_str(), "value", v));
    else
        std::cout << v << "\n";
    return 0;
}

int run_keys(const CfgOptions &o, const std::string &prefix, bool exact) {
    CfgPtr cfg(nullptr, free_cfg);
    if (!load(o.file, cfg)) return 1;
    cfg_entry *it = get_cfg_it(cfg.get(), exact ? 1 : 0, "%s", prefix.c_str());
    if (trel_tool::options().json)
        trel_tool::print_json(list_json(it));
    else
        print_list(it);
    free_cfg_it(it);
    return 0;
}

int run_section(const CfgOptions &o, const std::string &prefix, const std::string &postfix,
                const std::string &value) {
    CfgPtr cfg(nullptr, free_cfg);
    if (!load(o.file, cfg)) return 1;
    const char *pf = postfix.empty() ? nullptr : postfix.c_str();
    const char *val = value.empty() ? nullptr : value.c_str();
    cfg_entry *s = get_cfg_section(cfg.get(), pf, val, "%s", prefix.c_str());
    if (pf != nullptr && pf[0] != '.') return 1;  // the library said why
    uint32_t count = get_cfg_section_count(cfg.get(), pf, val, "%s", prefix.c_str());
    uint32_t enabled = get_cfg_section_enabled_count(cfg.get(), pf, "%s", prefix.c_str());
    if (trel_tool::options().json) {
        trel_tool::print_json(json_pack("{s:s, s:o, s:I, s:I}", "prefix", prefix.c_str(), "entries",
                                        list_json(s), "count", (json_int_t)count, "enabled",
                                        (json_int_t)enabled));
    } else {
        print_list(s);
        std::cout << "count: " << count << "\nenabled: " << enabled << "\n";
    }
    free_cfg_it(s);
    return 0;
}

// 0 whether or not the files differ, as every command: success is not a verdict.
int run_diff(const std::string &file_a, const std::string &file_b) {
    CfgPtr a(nullptr, free_cfg), b(nullptr, free_cfg);
    if (!load(file_a, a) || !load(file_b, b)) return 1;
    cfg_entry *d = get_cfg_diff_it(a.get(), b.get());
    // Nodes borrow their keys.  Those of a's entries are removed keys; those
    // of b's are added when the reverse diff lists them as missing from a,
    // else changed.  (A lookup in a per key would make this quadratic.)
    std::unordered_set<const char *> from_a, added;
    for (cfg_entry *e = a.get(); e != nullptr; e = e->next) from_a.insert(e->key);
    cfg_entry *reverse = get_cfg_diff_it(b.get(), a.get());
    for (cfg_entry *e = reverse; e != nullptr; e = e->next)
        if (from_a.count(e->key) == 0) added.insert(e->key);
    free_cfg_it(reverse);
    json_t *out = json_array();
    for (cfg_entry *e = d; e != nullptr; e = e->next) {
        const char *change = from_a.count(e->key) != 0  ? "removed"
                             : added.count(e->key) != 0 ? "added"
                                                        : "changed";
        if (trel_tool::options().json) {
            json_t *o = entry_json(e);
            json_object_set_new(o, "change", json_string(change));
            json_array_append_new(out, o);
        } else {
            char mark = change[0] == 'a' ? '+' : change[0] == 'r' ? '-' : '~';
            std::cout << mark << " " << e->key << "=" << e->value << "\n";
        }
    }
    free_cfg_it(d);
    if (trel_tool::options().json)
        trel_tool::print_json(out);
    else
        json_decref(out);
    return 0;
}

int run_print(const CfgOptions &o) {
    CfgPtr cfg(nullptr, free_cfg);
    if (!load(o.file, cfg)) return 1;
    if (trel_tool::options().json) {
        trel_tool::print_json(list_json(cfg.get()));
    } else {
        std::cout.flush();
        print_cfg(cfg.get());
        fflush(stdout);
    }
    return 0;
}

}  // namespace

void trel_tool::register_cfg_commands(CLI::App &app) {
    auto opts = std::make_shared<CfgOptions>();
    auto *cfg = app.add_subcommand("cfg", "Query the device configuration");
    cfg->require_subcommand(1);
    cfg->fallthrough();
    cfg->add_option("--file", opts->file,
                    "Configuration file (absolute paths resolve under --root)")
        ->capture_default_str();

    auto get = std::make_shared<GetArgs>();
    auto *g = cfg->add_subcommand("get", "Print the value of KEY");
    g->add_option("KEY", get->key)->required();
    g->add_option("--default", get->def, "Printed when KEY is missing or does not convert")
        ->each([get](const std::string &) { get->has_default = true; });
    g->add_option("--type", get->type, "How to read the value")
        ->check(CLI::IsMember({"str", "esc", "int32", "uint32", "int32-dec", "int64", "bool"}))
        ->capture_default_str();
    trel_tool::add_command(g, [opts, get] { return run_get(*opts, *get); });

    auto prefix = std::make_shared<std::string>();
    auto exact = std::make_shared<bool>(false);
    auto *k = cfg->add_subcommand("keys", "Entries whose key starts with PREFIX");
    k->add_option("PREFIX", *prefix)->required();
    k->add_flag("--exact", *exact, "Keys equal to PREFIX (case-insensitive) instead");
    trel_tool::add_command(k, [opts, prefix, exact] { return run_keys(*opts, *prefix, *exact); });

    auto sprefix = std::make_shared<std::string>();
    auto postfix = std::make_shared<std::string>();
    auto value = std::make_shared<std::string>();
    auto *s =
        cfg->add_subcommand("section", "Numbered section PREFIX<n>[POSTFIX], sorted, with counts");
    s->add_option("PREFIX", *sprefix, "Prefix ending in '.', e.g. vlan.")->required();
    s->add_option("--postfix", *postfix, "Member key after the number, e.g. .status");
    s->add_option("--value", *value, "Only members with exactly this value");
    trel_tool::add_command(s, [opts, sprefix, postfix, value] {
        return run_section(*opts, *sprefix, *postfix, *value);
    });

    auto file_a = std::make_shared<std::string>();
    auto file_b = std::make_shared<std::string>();
    auto *d = cfg->add_subcommand("diff", "Keys added (+), changed (~) or removed (-) from A to B");
    d->add_option("A", *file_a)->required();
    d->add_option("B", *file_b)->required();
    trel_tool::add_command(d, [file_a, file_b] { return run_diff(*file_a, *file_b); });

    auto *p = cfg->add_subcommand("print", "Print every entry as key=value");
    trel_tool::add_command(p, [opts] { return run_print(*opts); });
}
