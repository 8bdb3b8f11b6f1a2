// Core commands: version, read, reduce-path, hexdump.
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <iostream>
#include <memory>
#include <string>

#include <libtrel.h>

#include "tool.h"

namespace {

// The text between "<" and ">" of a build identity string.
std::string inner(const char *tagged) {
    std::string s(tagged);
    size_t a = s.find('<');
    size_t b = s.rfind('>');
    return a == std::string::npos || b == std::string::npos ? s : s.substr(a + 1, b - a - 1);
}

int run_version() {
    std::string hash = inner(trel_git_hash), tag = inner(trel_git_tag);
    if (trel_tool::options().json) {
        trel_tool::print_json(json_pack("{s:s, s:s}", "tag", tag.c_str(), "hash", hash.c_str()));
    } else {
        std::cout << "libtrel " << tag << " (" << hash << ")\n";
    }
    return 0;
}

int run_read(const std::string &file, const std::string &key) {
    char buf[4096];
    if (key.empty()) {
        int rc = fsreadline(file.c_str(), buf, sizeof buf);
        if (rc < 0) return trel_tool::fail(file + ": " + strerror(-rc));
    } else {
        // A default no file line can hold tells "not found" apart.
        static const char kMissing[] = "\n";
        freadvalue(file.c_str(), key.c_str(), buf, sizeof buf, kMissing);
        if (strcmp(buf, kMissing) == 0) return trel_tool::fail(file + ": no value for " + key);
    }
    if (trel_tool::options().json) {
        json_t *o = json_pack("{s:s, s:s}", "file", file.c_str(), "value", buf);
        if (!key.empty()) json_object_set_new(o, "key", json_string(key.c_str()));
        trel_tool::print_json(o);
    } else {
        std::cout << buf << "\n";
    }
    return 0;
}

int run_reduce_path(const std::string &path) {
    char out[4096];
    if (qx_reduce_path(path.c_str(), out) == nullptr)
        return trel_tool::fail(path + ": " + strerror(errno));
    std::cout << out << "\n";
    return 0;
}

int run_hexdump(const std::string &file) {
    std::string data;
    FILE *f = fopen_format("rb", "%s", file.c_str());
    if (f == nullptr) return trel_tool::fail(file + ": " + strerror(errno));
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, f)) > 0) data.append(chunk, n);
    int err = ferror(f) ? errno : 0;  // a directory opens, then fails to read
    fclose(f);
    if (err != 0) return trel_tool::fail(file + ": " + strerror(err));
    // The logger writes to standard error; show its dump on standard output.
    fflush(stderr);
    int saved = dup(2);
    dup2(1, 2);
    libtrel_log_hex(7, "trel", "hexdump", data.data(), (int)data.size(), file.c_str());
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    return 0;
}

}  // namespace

void trel_tool::register_core_commands(CLI::App &app) {
    auto *version = app.add_subcommand("version", "Print the library's build identity");
    trel_tool::add_command(version, run_version);

    auto file = std::make_shared<std::string>();
    auto key = std::make_shared<std::string>();
    auto *read = app.add_subcommand("read", "Print a file's first line, or the value of KEY");
    read->add_option("FILE", *file, "File (absolute paths resolve under --root)")->required();
    read->add_option("KEY", *key, "Key of a 'key value' or 'key=value' line");
    trel_tool::add_command(read, [file, key] { return run_read(*file, *key); });

    auto path = std::make_shared<std::string>();
    auto *reduce = app.add_subcommand("reduce-path", "Normalise a path as the library does");
    reduce->add_option("PATH", *path)->required();
    trel_tool::add_command(reduce, [path] { return run_reduce_path(*path); });

    auto dump = std::make_shared<std::string>();
    auto *hexdump =
        app.add_subcommand("hexdump", "Hex dump of a file through the library's logger");
    hexdump->add_option("FILE", *dump)->required();
    trel_tool::add_command(hexdump, [dump] { return run_hexdump(*dump); });
}
