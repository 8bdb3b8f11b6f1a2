// Discovery protocol commands: proto decode, encode, listen, mesh-halt.
#include <arpa/inet.h>
#include <ctype.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <event2/event.h>

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <libtrel.h>
#include <trel/protocol.h>

#include "tool.h"

namespace {

struct EncodeArgs {
    std::string key, input;
    uint16_t method = 0, type = 0, seq = 0;
    int encrypt = 1;
    std::string mac;
};

// A control record holding the key given as 32 hex digits.
bool key_record(const std::string &hex, trel_protocol_state &c) {
    memset(&c, 0, sizeof c);
    c.sock = -1;
    c.last_seq = 0xffff;  // above any 12-bit seq: nothing counts as a repeat
    if (hex.size() != 32 || hex.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return false;
    hex2uchar(hex.c_str(), c.key, sizeof c.key);
    return true;
}

std::string hex_of(const uint8_t *p, size_t n, const char *sep = "") {
    std::string s;
    char b[4];
    for (size_t i = 0; i < n; i++) {
        snprintf(b, sizeof b, "%02x", p[i]);
        if (i > 0) s += sep;
        s += b;
    }
    return s;
}

bool printable(const uint8_t *p, size_t n) {
    for (size_t i = 0; i < n; i++)
        if (!isprint(p[i]) && p[i] != '\n' && p[i] != '\t') return false;
    return true;
}

// The header of a decoded datagram (host order) and its payload.
json_t *describe(const uint8_t *d) {
    trel_protocol_hdr h;
    memcpy(&h, d, sizeof h);
    char magic[16], crc[16];
    snprintf(magic, sizeof magic, "0x%08x", (unsigned)h.magic);
    snprintf(crc, sizeof crc, "0x%08x", (unsigned)h.crc);
    json_t *o = json_pack("{s:s, s:i, s:i, s:i, s:i, s:i, s:s, s:s, s:i, s:s}", "magic", magic,
                          "version", h.version, "flags", h.flags, "length", h.length, "method",
                          h.method, "type", h.type, "iv", hex_of(h.iv, 16).c_str(), "mac",
                          hex_of(h.mac, 6, ":").c_str(), "seq", h.seq, "crc", crc);
    const uint8_t *p = d + TREL_PROTOCOL_HDR_LEN;
    if (printable(p, h.length))
        json_object_set_new(o, "payload",
                            json_stringn(reinterpret_cast<const char *>(p), h.length));
    else
        json_object_set_new(o, "payload_hex", json_string(hex_of(p, h.length).c_str()));
    return o;
}

int run_decode(const std::string &key, const std::string &input) {
    trel_protocol_state c;
    if (!key_record(key, c)) return trel_tool::fail("--key needs 32 hexadecimal digits");
    std::string data;
    if (!trel_tool::read_input(input, data)) return 1;
    if (data.size() > 65575) return trel_tool::fail("input too long for a datagram");
    std::vector<uint8_t> d(data.begin(), data.end());
    d.push_back(0);
    int rc = dec_payload((int32_t)data.size(), d.data(), &c);
    if (rc != 0)
        return trel_tool::fail("datagram rejected (dec_payload " + std::to_string(rc) + ")");
    json_t *o = describe(d.data());
    if (trel_tool::options().json) {
        trel_tool::print_json(o);
        return 0;
    }
    const char *k;
    json_t *v;
    json_object_foreach(o, k, v) {
        if (json_is_string(v))
            std::cout << k << ": " << json_string_value(v) << "\n";
        else
            std::cout << k << ": " << json_integer_value(v) << "\n";
    }
    json_decref(o);
    return 0;
}

int run_encode(const EncodeArgs &a) {
    trel_protocol_state c;
    if (!key_record(a.key, c)) return trel_tool::fail("--key needs 32 hexadecimal digits");
    std::string data;
    if (!trel_tool::read_input(a.input, data)) return 1;
    if (data.size() > 65519) return trel_tool::fail("payload too long for a datagram");
    char serial[64];
    if (a.mac.empty())
        freadvalue("/proc/trelhal/system.info", "serialno", serial, sizeof serial, "000000000000");
    else if (strtomac(a.mac.c_str(), c.mac) != 0)
        return trel_tool::fail("--mac: not a MAC address: " + a.mac);
    if (a.mac.empty()) hex2uchar(serial, c.mac, sizeof c.mac);
    c.send_seq = a.seq;
    uint8_t *d = gen_payload(data.data(), (int32_t)data.size(), a.method, a.type, a.encrypt, &c);
    if (d == nullptr) return trel_tool::fail("cannot build the datagram");
    size_t n = TREL_PROTOCOL_HDR_LEN + (size_t)(d[6] << 8 | d[7]);
    bool ok = fwrite(d, 1, n, stdout) == n && fflush(stdout) == 0;
    free(d);
    return ok ? 0 : trel_tool::fail("write error");
}

struct Listener {
    struct event_base *base = nullptr;
    long remaining = 0;  // 0: unlimited
};
Listener g_listen;

void print_message(void *payload) {
    auto *p = static_cast<uint8_t *>(payload);
    json_t *o = describe(p - TREL_PROTOCOL_HDR_LEN);
    if (trel_tool::options().json) {
        char *text = json_dumps(o, JSON_COMPACT);
        if (text != nullptr) std::cout << text << "\n";
        free(text);
    } else {
        json_t *text = json_object_get(o, "payload");
        std::cout << "method " << json_integer_value(json_object_get(o, "method")) << " type "
                  << json_integer_value(json_object_get(o, "type")) << " from "
                  << json_string_value(json_object_get(o, "mac")) << " seq "
                  << json_integer_value(json_object_get(o, "seq")) << ": "
                  << (text ? json_string_value(text)
                           : json_string_value(json_object_get(o, "payload_hex")))
                  << "\n";
    }
    std::cout.flush();
    json_decref(o);
    if (g_listen.remaining > 0 && --g_listen.remaining == 0) event_base_loopbreak(g_listen.base);
}

void on_sigint(evutil_socket_t, short, void *) { event_base_loopbreak(g_listen.base); }

int run_listen(const std::vector<unsigned> &methods, long count) {
    if (trel_protocol_init(1) != 0) return trel_tool::fail("cannot start the protocol service");
    std::vector<trel_protocol_handler> table;
    if (methods.empty()) {
        for (uint32_t m = 0; m <= 0xffff; m++) table.push_back({print_message, m});
    } else {
        for (unsigned m : methods) table.push_back({print_message, m});
    }
    table.push_back({nullptr, 0});
    g_listen.base = event_base_new();
    g_listen.remaining = count;
    struct event *sigint = evsignal_new(g_listen.base, SIGINT, on_sigint, nullptr);
    event_add(sigint, nullptr);
    trel_protocol_init_recv(g_listen.base, table.data());
    char group[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &trel_protocol_ctrl.mcast_ip, group, sizeof group);
    std::cerr << "trel: listening on " << group << " port " << TREL_PROTOCOL_PORT << "\n";
    event_base_dispatch(g_listen.base);
    trel_protocol_deinit();
    event_free(sigint);
    event_base_free(g_listen.base);
    return 0;
}

int run_mesh_halt() {
    if (trel_protocol_client_init() != 0)
        return trel_tool::fail("cannot initialise the protocol client");
    trel_protocol_client_event_mesh_halt_send();
    return 0;
}

}  // namespace

void trel_tool::register_protocol_commands(CLI::App &app) {
    auto *proto = app.add_subcommand("proto", "Device discovery protocol");
    proto->require_subcommand(1);

    auto dec = std::make_shared<EncodeArgs>();
    auto *decode = proto->add_subcommand("decode", "Check and decrypt a datagram");
    decode->add_option("--key", dec->key, "Site key, 32 hex digits")->required();
    decode->add_option("FILE", dec->input, "Datagram file, - for standard input");
    trel_tool::add_command(decode, [dec] { return run_decode(dec->key, dec->input); });

    auto enc = std::make_shared<EncodeArgs>();
    auto *encode =
        proto->add_subcommand("encode", "Build a datagram from a payload (raw bytes out)");
    encode->add_option("--key", enc->key, "Site key, 32 hex digits")->required();
    encode->add_option("--method", enc->method, "Message method")->required();
    encode->add_option("--type", enc->type, "Message type")->required();
    encode->add_option("--seq", enc->seq, "Sequence number (low 12 bits)");
    encode->add_option("--encrypt", enc->encrypt, "1 encrypted (default), 0 clear")
        ->capture_default_str();
    encode->add_option("--mac", enc->mac, "Sender MAC (default: the device's serial number)");
    encode->add_option("FILE", enc->input, "Payload file, - for standard input");
    trel_tool::add_command(encode, [enc] { return run_encode(*enc); });

    auto methods = std::make_shared<std::vector<unsigned>>();
    auto count = std::make_shared<long>(0);
    auto *listen = proto->add_subcommand(
        "listen", "Run the service and print accepted messages (SIGINT stops)");
    listen->add_option("--method", *methods, "Only these methods (default: all)");
    listen->add_option("--count", *count, "Stop after N messages");
    trel_tool::add_command(listen, [methods, count] { return run_listen(*methods, *count); });

    auto *halt =
        proto->add_subcommand("mesh-halt", "Send the mesh-halt message through the client");
    trel_tool::add_command(halt, run_mesh_halt);
}
