// Crypto commands: sha256, base64 encode|decode, aes encrypt|decrypt.
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <trel/crypto.h>

#include "tool.h"

namespace {

std::string to_hex(const uint8_t *p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(2 * n);
    for (size_t i = 0; i < n; i++) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}

// Exactly 2 * size hex digits into out.
bool from_hex(const std::string &text, uint8_t *out, size_t size) {
    if (text.size() != 2 * size) return false;
    for (size_t i = 0; i < size; i++) {
        int v = 0;
        for (int k = 0; k < 2; k++) {
            char c = text[2 * i + k];
            int d = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                           : -1;
            if (d < 0) return false;
            v = v * 16 + d;
        }
        out[i] = (uint8_t)v;
    }
    return true;
}

void write_raw(const std::string &data) {
    fwrite(data.data(), 1, data.size(), stdout);
    fflush(stdout);
}

int run_sha256(const std::string &file) {
    std::string data;
    if (!trel_tool::read_input(file, data)) return 1;
    sha256_context ctx;
    sha256_init(&ctx);
    // The length argument is 32 bits: feed large inputs in pieces.
    for (size_t off = 0; off < data.size(); off += 1u << 20) {
        size_t n = std::min<size_t>(data.size() - off, 1u << 20);
        sha256_update(&ctx, (const uint8_t *)data.data() + off, (uint32_t)n);
    }
    uint8_t digest[32];
    sha256_final(&ctx, digest);
    const std::string name = file.empty() ? "-" : file;
    if (trel_tool::options().json) {
        trel_tool::print_json(json_pack("{s:s, s:s, s:I}", "file", name.c_str(), "sha256",
                                        to_hex(digest, 32).c_str(), "size",
                                        (json_int_t)data.size()));
    } else {
        std::cout << to_hex(digest, 32) << "  " << name << "\n";
    }
    return 0;
}

int run_base64_encode(const std::string &file, bool url) {
    std::string data;
    if (!trel_tool::read_input(file, data)) return 1;
    if (data.size() > 0x7ffffffdu / 4 * 3) return trel_tool::fail("input too large");
    std::string out((size_t)base64_encode_len((int32_t)data.size()), '\0');
    if (url)
        base64url_encode(out.data(), (const uint8_t *)data.data(), (int32_t)data.size());
    else
        base64rfc_encode(out.data(), (const uint8_t *)data.data(), (int32_t)data.size());
    out.resize(strlen(out.c_str()));
    if (trel_tool::options().json)
        trel_tool::print_json(
            json_pack("{s:s, s:I}", "base64", out.c_str(), "size", (json_int_t)data.size()));
    else
        std::cout << out << "\n";
    return 0;
}

int run_base64_decode(const std::string &file) {
    std::string text;
    if (!trel_tool::read_input(file, text)) return 1;
    // Line breaks and blanks are dropped; anything else outside the alphabets
    // is not Base64, except up to two '=' that complete the last group.
    text.erase(std::remove_if(text.begin(), text.end(), [](unsigned char c) { return isspace(c); }),
               text.end());
    size_t n = 0;
    while (n < text.size() &&
           (isalnum((unsigned char)text[n]) || strchr("+/-_", text[n]) != nullptr))
        n++;
    size_t pad = text.size() - n;
    if (text.find_first_not_of('=', n) != std::string::npos || n % 4 == 1 || pad > 2 ||
        (pad > 0 && (n + pad) % 4 != 0))
        return trel_tool::fail("not Base64 at offset " + std::to_string(n));
    std::vector<uint8_t> out((size_t)base64_decode_len(text.c_str()));
    base64_decode(out.data(), text.c_str());
    size_t bytes = n / 4 * 3 + (n % 4 == 0 ? 0 : n % 4 - 1);
    std::string data((const char *)out.data(), bytes);
    if (trel_tool::options().json)
        trel_tool::print_json(json_pack("{s:s, s:I}", "hex", to_hex(out.data(), bytes).c_str(),
                                        "size", (json_int_t)bytes));
    else
        write_raw(data);
    return 0;
}

int run_aes(bool encrypt, const std::string &key_hex, const std::string &iv_hex,
            const std::string &file) {
    uint8_t key[16], iv[16];
    if (!from_hex(key_hex, key, sizeof key)) return trel_tool::fail("--key needs 32 hex digits");
    if (!from_hex(iv_hex, iv, sizeof iv)) return trel_tool::fail("--iv needs 32 hex digits");
    std::string data;
    if (!trel_tool::read_input(file, data)) return 1;
    int rc = encrypt ? aes_cbc_encrypt_128(key, iv, (uint8_t *)data.data(), data.size())
                     : aes_cbc_decrypt_128(key, iv, (uint8_t *)data.data(), data.size());
    if (rc != 0)
        return trel_tool::fail("input of " + std::to_string(data.size()) +
                               " bytes: raw CBC needs a " + (encrypt ? "" : "non-zero ") +
                               "multiple of 16 bytes");
    if (trel_tool::options().json)
        trel_tool::print_json(json_pack("{s:s, s:I}", "hex",
                                        to_hex((const uint8_t *)data.data(), data.size()).c_str(),
                                        "size", (json_int_t)data.size()));
    else
        write_raw(data);
    return 0;
}

}  // namespace

void trel_tool::register_crypto_commands(CLI::App &app) {
    auto file = std::make_shared<std::string>();
    auto *sha = app.add_subcommand("sha256", "SHA-256 digest of a file or standard input");
    sha->add_option("FILE", *file, "File, or - for standard input");
    trel_tool::add_command(sha, [file] { return run_sha256(*file); });

    auto *b64 = app.add_subcommand("base64", "Base64 encoding and decoding");
    b64->require_subcommand(1);
    auto b64file = std::make_shared<std::string>();
    auto url = std::make_shared<bool>(false);
    auto *enc = b64->add_subcommand("encode", "Encode a file (standard alphabet with padding)");
    enc->add_flag("--url", *url, "URL-safe alphabet without padding");
    enc->add_option("FILE", *b64file, "File, or - for standard input");
    trel_tool::add_command(enc, [b64file, url] { return run_base64_encode(*b64file, *url); });
    auto *dec = b64->add_subcommand("decode", "Decode Base64 text (either alphabet) to raw bytes");
    dec->add_flag("--url", *url, "Accepted for symmetry: both alphabets are always decoded");
    dec->add_option("FILE", *b64file, "File, or - for standard input");
    trel_tool::add_command(dec, [b64file] { return run_base64_decode(*b64file); });

    auto *aes =
        app.add_subcommand("aes", "Raw AES-128-CBC, no padding (input a multiple of 16 bytes)");
    aes->require_subcommand(1);
    auto key = std::make_shared<std::string>();
    auto iv = std::make_shared<std::string>();
    auto aesfile = std::make_shared<std::string>();
    for (bool encrypt : {true, false}) {
        auto *cmd = aes->add_subcommand(encrypt ? "encrypt" : "decrypt",
                                        encrypt ? "Encrypt in CBC mode" : "Decrypt in CBC mode");
        cmd->add_option("--key", *key, "16-byte key as 32 hex digits")->required();
        cmd->add_option("--iv", *iv, "16-byte IV as 32 hex digits")->required();
        cmd->add_option("FILE", *aesfile, "File, or - for standard input");
        trel_tool::add_command(
            cmd, [encrypt, key, iv, aesfile] { return run_aes(encrypt, *key, *iv, *aesfile); });
    }
}
