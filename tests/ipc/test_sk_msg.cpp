// Framed messages over datagram sockets.
#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <time.h>

#include <vector>

#include "ipc_test.h"

using namespace ipc_test;
using trel_test::LogCapture;

namespace {

// Reads every datagram pending on fd without waiting.
std::vector<std::string> drain(int fd) {
    std::vector<std::string> out;
    std::vector<char> buf(65536);
    ssize_t n;
    while ((n = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT)) >= 0)
        out.emplace_back(buf.data(), n);
    return out;
}

std::string header(int32_t type, int32_t len) {
    int32_t h[2] = {type, len};
    return std::string(reinterpret_cast<const char *>(h), 8);
}

double now() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Restores the log level at the end of the scope.
struct Level {
    uint32_t saved = libtrel_log_level;
    explicit Level(uint32_t level) { libtrel_log_level = level; }
    ~Level() { libtrel_log_level = saved; }
};

// A descriptor number that is not open.
int closed_fd() {
    for (int fd = 900; fd > 100; fd--)
        if (fcntl(fd, F_GETFD) == -1) return fd;
    return -1;
}

TEST(SkMsg, FortyThousandBytesGoOutAsThreeChunks) {
    Pair p;
    Buf body;
    std::string text = pattern(40000);
    body->append(body, text.data(), text.size());
    sk_msg msg{7, 40000, body};
    ASSERT_EQ(sk_msg_send(p.fd[0], &msg, 1), 40000);

    auto grams = drain(p.fd[1]);
    ASSERT_EQ(grams.size(), 4u);
    EXPECT_EQ(grams[0], header(7, 40000));
    EXPECT_EQ(grams[1].size(), 16384u);
    EXPECT_EQ(grams[2].size(), 16384u);
    EXPECT_EQ(grams[3].size(), 7232u);
    EXPECT_EQ(grams[1] + grams[2] + grams[3], text);

    // The receiver puts the same message back together; the body is appended.
    ASSERT_EQ(sk_msg_send(p.fd[0], &msg, 1), 40000);
    Buf got;
    got->append(got, "old:", 4);
    sk_msg in{0, 0, got};
    EXPECT_EQ(sk_msg_recv(p.fd[1], &in, 1), 40000);
    EXPECT_EQ(in.type, 7);
    EXPECT_EQ(in.len, 40000);
    EXPECT_EQ(contents(got), "old:" + text);
    EXPECT_TRUE(drain(p.fd[1]).empty());
}

TEST(SkMsg, ZeroLengthMessageIsTheHeaderAlone) {
    Pair p;
    Buf body, got;
    sk_msg msg{-3, 0, body};
    EXPECT_EQ(sk_msg_send(p.fd[0], &msg, 1), 0);
    auto grams = drain(p.fd[1]);
    ASSERT_EQ(grams.size(), 1u);
    EXPECT_EQ(grams[0], header(-3, 0));

    EXPECT_EQ(sk_msg_send(p.fd[0], &msg, 1), 0);
    sk_msg in{99, 99, got};
    EXPECT_EQ(sk_msg_recv(p.fd[1], &in, 1), 0);
    EXPECT_EQ(in.type, -3);
    EXPECT_EQ(in.len, 0);
    EXPECT_EQ(got->length(got), 0u);
}

TEST(SkMsg, ShortDatagramCountsAsAWholeChunk) {
    Pair p;
    std::string h = header(1, 100);
    ASSERT_EQ(send(p.fd[0], h.data(), 8, 0), 8);
    ASSERT_EQ(send(p.fd[0], pattern(60).data(), 60, 0), 60);
    Buf got;
    sk_msg in{0, 0, got};
    EXPECT_EQ(sk_msg_recv(p.fd[1], &in, 1), 100);
    EXPECT_EQ(got->length(got), 100u);
    EXPECT_EQ(contents(got).substr(0, 60), pattern(60));
}

TEST(SkMsg, SendTimesOutAgainstAPeerThatNeverReads) {
    Pair p;
    char filler[4096] = {};
    while (send(p.fd[0], filler, sizeof filler, MSG_DONTWAIT) > 0) {
    }
    ASSERT_EQ(errno, EAGAIN);
    Buf body;
    body->append(body, "data", 4);
    sk_msg msg{1, 4, body};
    LogCapture log;
    double start = now();
    errno = 0;
    EXPECT_EQ(sk_msg_send(p.fd[0], &msg, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(now() - start, 0.9);
    EXPECT_TRUE(log.contains("[warn ] sk_msg.send_nonblocking(): Connection Timeout!"))
        << log.text();

    // Warnings are off at level 1.
    log.clear();
    Level quiet(1);
    EXPECT_EQ(sk_msg_send(p.fd[0], &msg, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(log.text(), "");
}

TEST(SkMsg, ReceiveTimeouts) {
    Pair p;
    Buf got;
    sk_msg in{0, 0, got};
    LogCapture log;
    {
        Level verbose(16);
        EXPECT_EQ(sk_msg_recv(p.fd[1], &in, 1), -1);
        EXPECT_EQ(log.text(), "");
    }
    // The address-carrying variant waits its fixed 3 seconds and says so.
    sockaddr_un from{};
    socklen_t len = sizeof from;
    double start = now();
    EXPECT_EQ(sk_msg_recvfrom(p.fd[1], &in, (sockaddr *)&from, &len), -1);
    EXPECT_GE(now() - start, 2.9);
    EXPECT_TRUE(
        log.contains("[warn ] sk_msg.req_recv(): Select() timeout fd " + std::to_string(p.fd[1])))
        << log.text();
}

TEST(SkMsg, InvalidParametersAndDescriptors) {
    Pair p;
    Buf body;
    sk_msg msg{1, 0, body};
    sockaddr_un to{};
    socklen_t len = sizeof to;
    LogCapture log;
    int fds = trel_test::open_fd_count();

    EXPECT_EQ(sk_msg_send(-1, &msg, 1), -1);
    EXPECT_EQ(sk_msg_send(p.fd[0], nullptr, 1), -1);
    EXPECT_EQ(sk_msg_sendto(-1, &msg, (sockaddr *)&to, len), -1);
    EXPECT_EQ(sk_msg_sendto(p.fd[0], nullptr, (sockaddr *)&to, len), -1);
    EXPECT_EQ(sk_msg_sendto(p.fd[0], &msg, nullptr, len), -1);
    EXPECT_EQ(sk_msg_recv(-1, &msg, 1), -1);
    EXPECT_EQ(sk_msg_recvfrom(-1, &msg, (sockaddr *)&to, &len), -1);
    EXPECT_EQ(sk_msg_recvfrom(p.fd[1], nullptr, (sockaddr *)&to, &len), -1);
    EXPECT_EQ(sk_msg_recvfrom(p.fd[1], &msg, nullptr, &len), -1);
    auto lines = log.lines();
    auto count = [&](const std::string &needle) {
        int n = 0;
        for (auto &l : lines) n += l.find(needle) != std::string::npos;
        return n;
    };
    EXPECT_EQ(count("[error] sk_msg.sk_msg_send(): Invalid parameter"), 2) << log.text();
    EXPECT_EQ(count("[error] sk_msg.sk_msg_sendto(): Invalid parameter"), 3) << log.text();
    EXPECT_EQ(count("[error] sk_msg.sk_msg_recv(): Invalid parameter"), 1) << log.text();
    EXPECT_EQ(count("[error] sk_msg.sk_msg_recvfrom(): Invalid parameter"), 3) << log.text();
    EXPECT_EQ(lines.size(), 9u) << log.text();
    EXPECT_TRUE(drain(p.fd[1]).empty());

    // A body length beyond what the buffer holds is refused before sending.
    log.clear();
    msg.len = 10;
    EXPECT_EQ(sk_msg_send(p.fd[0], &msg, 1), -1);
    EXPECT_TRUE(drain(p.fd[1]).empty());
    msg.len = 0;

    // A descriptor that is not open fails in the wait.
    int bad = closed_fd();
    ASSERT_GT(bad, 0);
    log.clear();
    EXPECT_EQ(sk_msg_send(bad, &msg, 1), -1);
    EXPECT_TRUE(log.contains("[error] sk_msg.send_nonblocking(): Select return -1! errno:9/" +
                             std::string(strerror(EBADF))))
        << log.text();
    EXPECT_EQ(sk_msg_recvfrom(bad, &msg, (sockaddr *)&to, &len), -1);
    EXPECT_TRUE(log.contains("[error] sk_msg.req_recv(): Select() error from fd " +
                             std::to_string(bad) + "errno:9/" + strerror(EBADF)))
        << log.text();
    log.clear();
    EXPECT_EQ(sk_msg_recv(bad, &msg, 1), -1);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

TEST(SkMsg, PeerThatDisappears) {
    int fds = trel_test::open_fd_count();
    {
        // Mid-message: what arrived stays in the buffer, the result is -1.
        Pair p;
        std::string h = header(2, 40000), chunk = pattern(16384);
        ASSERT_EQ(send(p.fd[0], h.data(), 8, 0), 8);
        ASSERT_EQ(send(p.fd[0], chunk.data(), chunk.size(), 0), 16384);
        p.close_end(0);
        Buf got;
        sk_msg in{0, 0, got};
        EXPECT_EQ(sk_msg_recv(p.fd[1], &in, 1), -1);
        EXPECT_EQ(in.len, 40000);
        EXPECT_EQ(contents(got), chunk);
    }
    {
        // Sending to a closed peer is an error result and an error message.
        Pair p;
        p.close_end(1);
        Buf body;
        body->append(body, "x", 1);
        sk_msg msg{1, 1, body};
        LogCapture log;
        EXPECT_EQ(sk_msg_send(p.fd[0], &msg, 1), -1);
        EXPECT_TRUE(log.contains("[error] sk_msg.send_nonblocking(): errno:111/" +
                                 std::string(strerror(ECONNREFUSED))))
            << log.text();
    }
    {
        // A stream peer gone: an error result, not a signal.
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        close(sv[1]);
        Buf body;
        sk_msg msg{1, 0, body};
        LogCapture log;
        EXPECT_EQ(sk_msg_send(sv[0], &msg, 1), -1);
        EXPECT_TRUE(log.contains("errno:32/")) << log.text();
        close(sv[0]);
    }
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

class SkMsgServer : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = trel_test::make_temp_dir();
        path_ = dir_ + "/server.sock";
        ASSERT_GE(uds_sock_open_server(path_.c_str(), &server_), 0);
        addr_ = server_.local;
    }
    void TearDown() override {
        uds_sock_close(&server_);
        trel_test::remove_tree(dir_);
    }
    socklen_t addrlen() const { return (socklen_t)(2 + strlen(addr_.sun_path)); }

    std::string dir_, path_;
    uds_sock server_;
    sockaddr_un addr_;
};

TEST_F(SkMsgServer, VariantsDifferInTheirDebugMessages) {
    int sender = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_GE(sender, 0);
    Buf body, got;
    std::string text = "abcdefghijklmnopqrstuvwxyz0123";
    body->append(body, text.data(), text.size());
    sk_msg msg{5, 30, body};
    sk_msg in{0, 0, got};
    sockaddr_un from{};
    socklen_t len = sizeof from;
    LogCapture log;
    {
        Level debug(8);
        EXPECT_EQ(sk_msg_sendto(sender, &msg, (sockaddr *)&addr_, addrlen()), 30);
        EXPECT_EQ(sk_msg_recvfrom(server_.sock, &in, (sockaddr *)&from, &len), 30);
        EXPECT_EQ(contents(got), text);
        EXPECT_TRUE(
            log.contains("[debug] sk_msg.sk_msg_sendto(): Send type:5, len:30, "
                         "data:abcdefghijklmnopqrst...\n"))
            << log.text();
        EXPECT_TRUE(log.contains("[debug] sk_msg.sk_msg_recvfrom(): Recv header type:5, len:30"))
            << log.text();
        EXPECT_FALSE(log.contains("total_recv"));

        // The connected variants: the whole body on send, nothing on receive.
        log.clear();
        got->reset(got);
        ASSERT_EQ(connect(sender, (sockaddr *)&addr_, addrlen()), 0);
        EXPECT_EQ(sk_msg_send(sender, &msg, 1), 30);
        EXPECT_EQ(sk_msg_recv(server_.sock, &in, 1), 30);
        EXPECT_TRUE(
            log.contains("[debug] sk_msg.sk_msg_send(): Send type:5, len:30, data:" + text + "\n"))
            << log.text();
        EXPECT_FALSE(log.contains("Recv header"));
    }
    {
        Level verbose(16);
        log.clear();
        got->reset(got);
        EXPECT_EQ(sk_msg_send(sender, &msg, 1), 30);
        EXPECT_EQ(sk_msg_recv(server_.sock, &in, 1), 30);
        EXPECT_TRUE(log.contains("[debug] sk_msg.sk_msg_recv(): Recv header type:5, len:30"));
        EXPECT_TRUE(log.contains("[debug] sk_msg.sk_msg_recv(): total_recv:30, buffer_sz:30"));
        EXPECT_TRUE(log.contains("[debug] sk_msg.sk_msg_recv(): Data:" + text + "\n"))
            << log.text();
    }
    close(sender);

    // A hard failure of sendto is only a debug message.
    uds_sock dead;
    std::string dead_path = dir_ + "/dead.sock";
    ASSERT_GE(uds_sock_open_server(dead_path.c_str(), &dead), 0);
    close(dead.sock);
    sender = socket(AF_UNIX, SOCK_DGRAM, 0);
    log.clear();
    EXPECT_EQ(sk_msg_sendto(sender, &msg, (sockaddr *)&dead.local, sizeof dead.local), -1);
    EXPECT_EQ(log.text(), "");
    {
        Level debug(8);
        EXPECT_EQ(sk_msg_sendto(sender, &msg, (sockaddr *)&dead.local, sizeof dead.local), -1);
        EXPECT_TRUE(log.contains("[debug] sk_msg.sendto_nonblocking(): errno:111/")) << log.text();
    }
    close(sender);
    unlink(dead_path.c_str());
}

TEST_F(SkMsgServer, ClientInForkedChildTalksToServer) {
    if (!can_bind_clients()) GTEST_SKIP() << "/var/run is not writable";
    std::string request = pattern(40000), reply = pattern(20000).substr(3);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        uds_sock client;
        int ok = uds_sock_open_client(path_.c_str(), &client) >= 0;
        buffer *b = buffer_create();
        b->append(b, request.data(), request.size());
        sk_msg msg{11, (int32_t)request.size(), b};
        ok = ok && sk_msg_send(client.sock, &msg, 5) == 40000;
        b->reset(b);
        sk_msg in{0, 0, b};
        ok = ok && sk_msg_recv(client.sock, &in, 5) == (int)reply.size() && in.type == 12 &&
             contents(b) == reply;
        buffer_destroy(b);
        uds_sock_close(&client);
        _exit(ok ? 0 : 1);
    }
    Buf got;
    sk_msg in{0, 0, got};
    sockaddr_un from{};
    socklen_t len = sizeof from;
    EXPECT_EQ(sk_msg_recvfrom(server_.sock, &in, (sockaddr *)&from, &len), 40000);
    EXPECT_EQ(in.type, 11);
    EXPECT_EQ(contents(got), request);
    EXPECT_EQ(sun_path(from).rfind("/var/run/uds_client-" + std::to_string(pid) + "-", 0), 0u);

    Buf out;
    out->append(out, reply.data(), reply.size());
    sk_msg answer{12, (int32_t)reply.size(), out};
    EXPECT_EQ(sk_msg_sendto(server_.sock, &answer, (sockaddr *)&from, len), (int)reply.size());
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
