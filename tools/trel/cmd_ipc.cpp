// Local IPC and statistics commands: ipc listen / ipc send over framed Unix
// datagram messages, stats avg / stats outliers on integer samples.
#include <signal.h>
#include <string.h>

#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <trel/ipc.h>

#include "tool.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void on_signal(int) { g_stop = 1; }

// The first max bytes of a body, with non-printable bytes shown as '.'.
std::string preview(const char *data, size_t len, size_t max) {
    std::string out;
    for (size_t i = 0; i < len && i < max; i++) {
        unsigned char c = (unsigned char)data[i];
        out += c >= 0x20 && c < 0x7f ? (char)c : '.';
    }
    if (len > max) out += "...";
    return out;
}

int run_listen(const std::string &path, int count, unsigned timeout, unsigned width) {
    uds_sock server;
    if (uds_sock_open_server(path.c_str(), &server) < 0)
        return trel_tool::fail("cannot listen on " + path);
    struct sigaction sa {};
    sa.sa_handler = on_signal;  // no SA_RESTART: the wait is interrupted
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    buffer *body = buffer_create();
    int received = 0, rc = 0;
    while (!g_stop && (count <= 0 || received < count)) {
        body->reset(body);
        sk_msg msg{0, 0, body};
        int n = sk_msg_recv(server.sock, &msg, timeout);
        if (n < 0) {
            if (!g_stop)
                rc = trel_tool::fail("no message within " + std::to_string(timeout) + " s");
            break;
        }
        received++;
        auto *data = static_cast<const char *>(body->data(body));
        std::string shown = preview(data, body->length(body), width);
        if (trel_tool::options().json) {
            json_t *o = json_pack("{s:i, s:i, s:s}", "type", msg.type, "len", msg.len, "preview",
                                  shown.c_str());
            char *text = json_dumps(o, JSON_COMPACT);
            std::cout << (text ? text : "null") << "\n";
            free(text);
            json_decref(o);
        } else {
            std::cout << "type " << msg.type << " len " << msg.len << ": " << shown << "\n";
        }
        std::cout.flush();
    }
    buffer_destroy(body);
    uds_sock_close(&server);
    return rc;
}

int run_send(const std::string &path, int32_t type, const std::string &file, unsigned timeout) {
    std::string data;
    if (!file.empty() && !trel_tool::read_input(file, data)) return 1;
    if (data.size() > INT32_MAX) return trel_tool::fail("message too large");
    uds_sock client;
    if (uds_sock_open_client(path.c_str(), &client) < 0)
        return trel_tool::fail("cannot connect to " + path);
    buffer *body = buffer_create();
    body->append(body, data.data(), data.size());
    sk_msg msg{type, (int32_t)data.size(), body};
    int n = sk_msg_send(client.sock, &msg, timeout);
    int err = errno;
    buffer_destroy(body);
    uds_sock_close(&client);
    if (n < 0) return trel_tool::fail("send to " + path + " failed: " + strerror(err));
    if (trel_tool::options().json)
        trel_tool::print_json(
            json_pack("{s:s, s:i, s:i}", "path", path.c_str(), "type", type, "len", n));
    else
        std::cout << "sent type " << type << " len " << n << "\n";
    return 0;
}

int run_avg(const std::vector<int64_t> &values) {
    int64_t sum = 0;
    for (int64_t v : values) sum = (int64_t)((uint64_t)sum + (uint64_t)v);
    int64_t avg = trel_avg_array(values.data(), values.size());
    if (trel_tool::options().json)
        trel_tool::print_json(json_pack("{s:I, s:I, s:I}", "count", (json_int_t)values.size(),
                                        "sum", (json_int_t)sum, "avg", (json_int_t)avg));
    else
        std::cout << avg << "\n";
    return 0;
}

int run_outliers(std::vector<int64_t> values) {
    std::vector<int64_t> original = values;
    int64_t mean = 0;
    uint64_t n = values.size();
    if (trel_remove_outliers(values.data(), &mean, &n) != 0) return trel_tool::fail("no values");
    values.resize(n);
    // What was dropped, in input order.
    std::vector<int64_t> removed;
    size_t k = 0;
    for (int64_t v : original) {
        if (k < values.size() && values[k] == v)
            k++;
        else
            removed.push_back(v);
    }
    if (trel_tool::options().json) {
        json_t *kept = json_array(), *gone = json_array();
        for (int64_t v : values) json_array_append_new(kept, json_integer(v));
        for (int64_t v : removed) json_array_append_new(gone, json_integer(v));
        trel_tool::print_json(
            json_pack("{s:I, s:o, s:o}", "mean", (json_int_t)mean, "kept", kept, "removed", gone));
    } else {
        std::cout << "mean " << mean << "\nkept";
        for (int64_t v : values) std::cout << " " << v;
        std::cout << "\nremoved";
        for (int64_t v : removed) std::cout << " " << v;
        std::cout << "\n";
    }
    return 0;
}

}  // namespace

void trel_tool::register_ipc_commands(CLI::App &app) {
    auto *ipc = app.add_subcommand("ipc", "Framed messages over Unix datagram sockets");
    ipc->require_subcommand(1);

    struct Listen {
        std::string path;
        int count = 0;
        unsigned timeout = 3600, width = 40;
    };
    auto l = std::make_shared<Listen>();
    auto *listen = ipc->add_subcommand("listen", "Serve PATH and print each message received");
    listen->add_option("PATH", l->path, "Socket path of the server")->required();
    listen->add_option("-n,--count", l->count, "Stop after this many messages (0: never)");
    listen->add_option("-t,--timeout", l->timeout, "Give up after this many idle seconds")
        ->capture_default_str();
    listen->add_option("-w,--width", l->width, "Body bytes shown per message")
        ->capture_default_str();
    trel_tool::add_command(listen,
                           [l] { return run_listen(l->path, l->count, l->timeout, l->width); });

    struct Send {
        std::string path, file;
        int32_t type = 0;
        unsigned timeout = 3;
    };
    auto s = std::make_shared<Send>();
    auto *send = ipc->add_subcommand("send", "Send one framed message to the server at PATH");
    send->add_option("PATH", s->path, "Socket path of the server")->required();
    send->add_option("TYPE", s->type, "Message type")->required();
    send->add_option("FILE", s->file, "Body from FILE, or standard input for '-' (default: empty)");
    send->add_option("-t,--timeout", s->timeout, "Send time-out in seconds")->capture_default_str();
    trel_tool::add_command(send, [s] { return run_send(s->path, s->type, s->file, s->timeout); });

    auto *stats = app.add_subcommand("stats", "Integer averages and outlier removal");
    stats->require_subcommand(1);
    auto avg_values = std::make_shared<std::vector<int64_t>>();
    auto *avg = stats->add_subcommand("avg", "Mean of the values, rounded half away from zero");
    avg->add_option("N", *avg_values, "Values")->required();
    trel_tool::add_command(avg, [avg_values] { return run_avg(*avg_values); });

    auto out_values = std::make_shared<std::vector<int64_t>>();
    auto *outliers =
        stats->add_subcommand("outliers", "Drop values more than three standard deviations out");
    outliers->add_option("N", *out_values, "Values")->required();
    trel_tool::add_command(outliers, [out_values] { return run_outliers(*out_values); });
}
