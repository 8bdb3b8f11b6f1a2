// A loopback HTTP/1.1 server for tests: real sockets on 127.0.0.1 and an
// ephemeral port, one thread serving one connection at a time, canned or
// computed responses, and a record of every request.  Bounded: it serves at
// most max_connections connections, gives up on a connection after a few
// seconds of silence and stops by itself after its lifetime.
#pragma once

#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace trel_test {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
    std::string line;     // the method line, e.g. "GET /x HTTP/1.1"
    std::string method;   // "GET"
    std::string target;   // "/x"
    HttpHeaders headers;  // in order, names as sent
    std::string body;
    // Value of the first header of that name (case-insensitive), "" if none.
    std::string header(const std::string &name) const;
    bool has_header(const std::string &name) const;
};

struct HttpResponse {
    int status = 200;
    std::string reason = "OK";
    HttpHeaders headers;
    std::string body;
    // Read the request and never answer (until the client leaves or the
    // server stops).
    bool hang = false;
};

// A request head without its blank line: method line and headers.
HttpRequest parse_request_head(const std::string &head);
// The wire form of a response; it always closes the connection.
std::string format_response(const HttpResponse &response);

class HttpServer {
public:
    using Handler = std::function<HttpResponse(const HttpRequest &)>;

    struct Options {
        int max_connections = 64;
        int lifetime_seconds = 60;
        int idle_seconds = 10;  // silence tolerated on one connection
    };

    // Without a handler, queued responses are sent in order, then 200 with an
    // empty body.
    explicit HttpServer(Handler handler = nullptr);
    HttpServer(Handler handler, Options options);
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    void add_response(HttpResponse response);
    uint16_t port() const { return port_; }
    // "http://127.0.0.1:<port><path>"
    std::string url(const std::string &path = "/") const;
    // Requests seen so far (complete ones only).
    std::vector<HttpRequest> requests() const;
    // Waits until at least n requests were seen or the timeout passed.
    bool wait_requests(size_t n, int timeout_ms) const;
    int connections() const { return connections_.load(); }
    void stop();

private:
    void run();
    void serve(int fd);
    HttpResponse respond(const HttpRequest &request);

    Handler handler_;
    Options options_;
    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    uint16_t port_ = 0;
    int64_t deadline_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> connections_{0};
    mutable std::mutex mutex_;
    mutable std::condition_variable cv_;
    std::deque<HttpResponse> queue_;
    std::vector<HttpRequest> requests_;
    std::thread thread_;
};

}  // namespace trel_test
