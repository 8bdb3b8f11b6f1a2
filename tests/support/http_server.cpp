#include "http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <strings.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace trel_test {

namespace {

constexpr size_t kMaxRequestBytes = 16 << 20;
constexpr int kIdleMs = 10000;  // silence tolerated on one connection
constexpr int kLifetimeMs = 60000;

// The socket as is.
struct PlainStream : HttpStream {
    int fd;
    explicit PlainStream(int f) : fd(f) {}
    ssize_t read(void *buf, size_t size) override { return recv(fd, buf, size, 0); }
    ssize_t write(const void *buf, size_t size) override {
        return send(fd, buf, size, MSG_NOSIGNAL);
    }
};

int64_t now_ms() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// Waits for fd to become readable, or for wake_fd, up to timeout_ms.
// 1 readable, 0 timeout or woken.
int wait_readable(int fd, int wake_fd, int timeout_ms) {
    struct pollfd p[2] = {{fd, POLLIN, 0}, {wake_fd, POLLIN, 0}};
    return poll(p, 2, timeout_ms) > 0 && !(p[1].revents & POLLIN) ? 1 : 0;
}

bool send_all(HttpStream &out, const std::string &data) {
    size_t off = 0;
    while (off < data.size()) {
        ssize_t n = out.write(data.data() + off, data.size() - off);
        if (n <= 0) return false;
        off += (size_t)n;
    }
    return true;
}

std::string trim(const std::string &s) {
    size_t a = s.find_first_not_of(" \t");
    size_t b = s.find_last_not_of(" \t\r");
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

// A request head without its blank line: method line and headers.
HttpRequest parse_request_head(const std::string &head) {
    HttpRequest req;
    size_t eol = head.find("\r\n");
    req.line = head.substr(0, eol);
    while (eol != std::string::npos) {
        size_t next = head.find("\r\n", eol + 2);
        std::string h =
            head.substr(eol + 2, next == std::string::npos ? std::string::npos : next - eol - 2);
        size_t colon = h.find(':');
        if (colon != std::string::npos)
            req.headers.emplace_back(h.substr(0, colon), trim(h.substr(colon + 1)));
        eol = next;
    }
    return req;
}

// The wire form of a response; it always closes the connection.
std::string format_response(const HttpResponse &resp) {
    std::string out = "HTTP/1.1 " + std::to_string(resp.status) + " " + resp.reason + "\r\n";
    bool has_type = false;
    for (const auto &h : resp.headers) {
        out += h.first + ": " + h.second + "\r\n";
        if (strcasecmp(h.first.c_str(), "Content-Type") == 0) has_type = true;
    }
    if (!has_type) out += "Content-Type: text/plain\r\n";
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
    int one = 1;
    setsockopt(listen_fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    struct sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof sin;
    if (listen_fd_ < 0 || bind(listen_fd_, (struct sockaddr *)&sin, sizeof sin) != 0 ||
        listen(listen_fd_, 16) != 0 ||
        getsockname(listen_fd_, (struct sockaddr *)&sin, &len) != 0 ||
        pipe2(wake_, O_CLOEXEC) != 0) {
        ADD_FAILURE_AT(__FILE__, __LINE__);
        return;
    }
    port_ = ntohs(sin.sin_port);
    deadline_ = now_ms() + kLifetimeMs;
    thread_ = std::thread([this] { run(); });
}

HttpServer::~HttpServer() {
    stop();
    if (listen_fd_ >= 0) close(listen_fd_);
    for (int fd : wake_)
        if (fd >= 0) close(fd);
}

void HttpServer::stop() {
    if (!stopping_.exchange(true) && wake_[1] >= 0) {
        char c = 1;
        (void)!write(wake_[1], &c, 1);
    }
    if (thread_.joinable()) thread_.join();
}

void HttpServer::add_response(HttpResponse response) {
    std::lock_guard<std::mutex> lock(mutex_);
    queue_.push_back(std::move(response));
}

std::string HttpServer::url(const std::string &path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<HttpRequest> HttpServer::requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
}

HttpResponse HttpServer::respond(const HttpRequest &request) {
    if (handler_) return handler_(request);
    std::lock_guard<std::mutex> lock(mutex_);
    if (queue_.empty()) return HttpResponse{};
    HttpResponse r = std::move(queue_.front());
    queue_.pop_front();
    return r;
}

void HttpServer::run() {
    while (!stopping_) {
        int64_t left = deadline_ - now_ms();
        if (left <= 0) break;
        if (wait_readable(listen_fd_, wake_[0], (int)(left < 200 ? left : 200)) != 1) continue;
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        connections_++;
        serve(fd);
        close(fd);
    }
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
            if (stopping_ || (!stream->buffered() && wait_readable(fd, wake_[0], kIdleMs) != 1))
                return false;
            ssize_t n = stream->read(chunk, sizeof chunk);
            if (n <= 0) return false;
            in.append(chunk, (size_t)n);
            if (in.size() > kMaxRequestBytes) return false;
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

    HttpResponse resp = respond(req);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        requests_.push_back(req);
    }
    if (resp.hang) {
        // Wait for the client to give up, the server to stop or its
        // lifetime to end.
        char c[256];
        while (!stopping_ && now_ms() < deadline_)
            if (wait_readable(fd, wake_[0], 200) == 1 && recv(fd, c, sizeof c, 0) <= 0) return;
        return;
    }
    send_all(*stream, format_response(resp));
}

}  // namespace trel_test
