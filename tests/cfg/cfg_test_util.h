// Helpers for the configuration store's tests.
#pragma once

#include <stdio.h>

#include <string>
#include <vector>

#include <trel/cfg.h>

namespace cfg_test {

// Parses text through an in-memory stream.
inline cfg_entry *parse_text(const std::string &text) {
    FILE *f = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    if (f == nullptr) return nullptr;
    cfg_entry *cfg = parse_stream(f);
    fclose(f);
    return cfg;
}

// "key=value" for every node of a list.
inline std::vector<std::string> dump(const cfg_entry *list) {
    std::vector<std::string> out;
    for (; list != nullptr; list = list->next)
        out.push_back(std::string(list->key) + "=" + list->value);
    return out;
}

using Lines = std::vector<std::string>;

}  // namespace cfg_test
