#include "http_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace trel_test {

namespace {

constexpr size_t kMaxRequestBytes = 16 << 20;
constexpr int kIdleMs = 10000;  // silence tolerated on one connection

// The socket as is.
struct PlainStream : HttpStream {
    int fd;
    explicit PlainStream(int f) : fd(f) {}
    ssize_t read(void *buf, size_t size) override { return recv(fd, buf, size, 0); }
    ssize_t write(const void *buf, size_t size) override {
        return send(fd, buf, size, MSG_NOSIGNAL);
    }
};

bool send_all(HttpStream &out, const std::string &data) {
    for (size_t off = 0; off < data.size();) {
        ssize_t n = out.write(data.data() + off, data.size() - off);
        if (n <= 0) return false;
        off += (size_t)n;
    }
    return true;
}

// A request head without its blank line: method line and headers.
HttpRequest parse_request_head(const std::string &head) {
    HttpRequest req;
    size_t eol = head.find("\r\n");
    req.line = head.substr(0, eol);
    while (eol != std::string::npos) {
        size_t next = head.find("\r\n", eol + 2);
        std::string h = head.substr(eol + 2, next == std::string::npos ? next : next - eol - 2);
        size_t colon = h.find(':'), value = h.find_first_not_of(' ', colon + 1);
        if (colon != std::string::npos)
            req.headers.emplace_back(h.substr(0, colon), value == h.npos ? "" : h.substr(value));
        eol = next;
    }
    return req;
}

// The wire form of a response; it always closes the connection.
std::string format_response(const HttpResponse &resp) {
    std::string out = "HTTP/1.1 " + std::to_string(resp.status) + " Whatever\r\n";
    for (const auto &h : resp.headers) out += h.first + ": " + h.second + "\r\n";
    out += "Content-Length: " + std::to_string(resp.body.size()) + "\r\nConnection: close\r\n\r\n";
    return out + resp.body;
}

}  // namespace

std::string HttpRequest::header(const std::string &name) const {
    for (const auto &h : headers)
        if (strcasecmp(h.first.c_str(), name.c_str()) == 0) return h.second;
    return "";
}

HttpServer::HttpServer(Handler handler, StreamFactory wrap)
    : handler_(std::move(handler)), wrap_(std::move(wrap)) {
    listen_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sin;
    if (listen_fd_ < 0 || bind(listen_fd_, (struct sockaddr *)&sin, sizeof sin) != 0 ||
        listen(listen_fd_, 16) != 0 ||
        getsockname(listen_fd_, (struct sockaddr *)&sin, &len) != 0) {
        ADD_FAILURE_AT(__FILE__, __LINE__);
        return;
    }
    port_ = ntohs(sin.sin_port);
    thread_ = std::thread([this] {
        while (!stopping_) {
            if (!readable(listen_fd_, 100)) continue;
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            connections_++;
            serve(fd);
            close(fd);
        }
    });
}

HttpServer::~HttpServer() {
    stop();
    if (listen_fd_ >= 0) close(listen_fd_);
}

void HttpServer::stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
}

void HttpServer::add_response(HttpResponse response) {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back(std::move(response));
}

std::string HttpServer::url(const std::string &path, const std::string &scheme) const {
    return scheme + "://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<HttpRequest> HttpServer::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

// Waits up to timeout_ms for fd to become readable; false on time-out or stop.
bool HttpServer::readable(int fd, int timeout_ms) const {
    for (; timeout_ms > 0 && !stopping_; timeout_ms -= 50) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 50) > 0) return true;
    }
    return false;
}

// Serves one request on a connection (every response closes it).
void HttpServer::serve(int fd) {
    std::unique_ptr<HttpStream> stream(wrap_ ? wrap_(fd) : std::make_unique<PlainStream>(fd));
    if (!stream) return;
    std::string in;
    auto fill = [&](size_t want) {
        // Reads until in holds want bytes; false on close, silence or stop.
        char chunk[16384];
        while (in.size() < want) {
            if (!stream->buffered() && !readable(fd, kIdleMs)) return false;
            ssize_t n = stream->read(chunk, sizeof chunk);
            if (n <= 0 || in.size() + (size_t)n > kMaxRequestBytes) return false;
            in.append(chunk, (size_t)n);
        }
        return true;
    };
    size_t head_end;
    while ((head_end = in.find("\r\n\r\n")) == std::string::npos)
        if (!fill(in.size() + 1)) return;
    HttpRequest req = parse_request_head(in.substr(0, head_end));
    in.erase(0, head_end + 4);
    if (strcasecmp(req.header("Expect").c_str(), "100-continue") == 0 &&
        !send_all(*stream, "HTTP/1.1 100 Continue\r\n\r\n"))
        return;
    size_t length = (size_t)strtoull(req.header("Content-Length").c_str(), nullptr, 10);
    if (length > kMaxRequestBytes || !fill(length)) return;
    req.body = in.substr(0, length);

    HttpResponse resp;
    if (handler_) resp = handler_(req);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!handler_ && !queue_.empty()) {
            resp = std::move(queue_.front());
            queue_.pop_front();
        }
        requests_.push_back(req);
    }
    // A hanging response waits for the client to leave.
    char c[256];
    if (resp.hang)
        while (readable(fd, kIdleMs) && recv(fd, c, sizeof c, 0) > 0) {
        }
    else
        send_all(*stream, format_response(resp));
}

}  // namespace trel_test
