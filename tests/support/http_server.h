// A loopback HTTP/1.1 server for tests: real sockets on 127.0.0.1 and an
// ephemeral port, one thread serving one connection at a time, canned or
// computed responses, and a record of every request.  A connection silent for
// 10 seconds is dropped.  A stream factory can put another layer (TLS) over
// each connection.
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace trel_test {

using HttpHeaders = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
    std::string line;     // the method line, e.g. "GET /x HTTP/1.1"
    HttpHeaders headers;  // in order, names as sent
    std::string body;
    // Value of the first header of that name (case-insensitive), "" if none.
    std::string header(const std::string &name) const;
};

struct HttpResponse {
    HttpResponse(int s = 200, std::string b = "", HttpHeaders h = {})
        : status(s), body(std::move(b)), headers(std::move(h)) {}
    int status;
    std::string body;
    HttpHeaders headers;
    // Read the request and never answer (until the client leaves, the
    // connection stays silent or the server stops).
    bool hang = false;
};

// The bytes of one connection.
struct HttpStream {
    virtual ~HttpStream() = default;
    virtual ssize_t read(void *buf, size_t size) = 0;
    virtual ssize_t write(const void *buf, size_t size) = 0;
    // Bytes already read from the socket and not yet returned.
    virtual bool buffered() { return false; }
};

class HttpServer {
public:
    using Handler = std::function<HttpResponse(const HttpRequest &)>;
    // Wraps an accepted socket; nullptr drops the connection.
    using StreamFactory = std::function<std::unique_ptr<HttpStream>(int fd)>;

    // Without a handler, queued responses are sent in order, then 200 with an
    // empty body.  Without a factory the socket is read and written as is.
    explicit HttpServer(Handler handler = nullptr, StreamFactory wrap = nullptr);
    ~HttpServer();

    void add_response(HttpResponse response);
    uint16_t port() const { return port_; }
    // "<scheme>://127.0.0.1:<port><path>"
    std::string url(const std::string &path = "/", const std::string &scheme = "http") const;
    // Requests seen so far (complete ones only).
    std::vector<HttpRequest> requests() const;
    int connections() const { return connections_.load(); }
    void stop();

private:
    bool readable(int fd, int timeout_ms) const;
    void serve(int fd);

    Handler handler_;
    StreamFactory wrap_;
    int listen_fd_ = -1;
    uint16_t port_ = 0;
    std::atomic<bool> stopping_{false};
    std::atomic<int> connections_{0};
    mutable std::mutex mutex_;
    std::deque<HttpResponse> queue_;
    std::vector<HttpRequest> requests_;
    std::thread thread_;
};

}  // namespace trel_test
