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

// Every datagram pending on fd.
std::vector<std::string> drain(int fd) {
    std::vector<std::string> out;
    std::vector<char> buf(65536);
    for (ssize_t n; (n = recv(fd, buf.data(), buf.size(), MSG_DONTWAIT)) >= 0;)
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

struct Level {
    uint32_t saved = libtrel_log_level;
    explicit Level(uint32_t level) { libtrel_log_level = level; }
    ~Level() { libtrel_log_level = saved; }
};

// A datagram socket pair and a body and a receive buffer.
struct SkMsg : ::testing::Test {
    int fd[2] = {-1, -1};
    buffer *body = buffer_create(), *got = buffer_create();
    SkMsg() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fd), 0); }
    ~SkMsg() override {
        for (int f : fd)
            if (f >= 0) close(f);
        buffer_destroy(body);
        buffer_destroy(got);
    }
    sk_msg message(int32_t type, const std::string &text) {
        body->append(body, text.data(), text.size());
        return sk_msg{type, (int32_t)text.size(), body};
    }
};

TEST_F(SkMsg, ChunksOnTheWire) {
    std::string text = pattern(40000);
    sk_msg msg = message(7, text);
    ASSERT_EQ(sk_msg_send(fd[0], &msg, 1), 40000);
    auto grams = drain(fd[1]);
    ASSERT_EQ(grams.size(), 4u);
    EXPECT_EQ(grams[0], header(7, 40000));
    EXPECT_EQ(grams[1].size(), 16384u);
    EXPECT_EQ(grams[2].size(), 16384u);
    EXPECT_EQ(grams[3].size(), 7232u);
    EXPECT_EQ(grams[1] + grams[2] + grams[3], text);

    // Received back into a buffer, appended to what it held.
    ASSERT_EQ(sk_msg_send(fd[0], &msg, 1), 40000);
    got->append(got, "old:", 4);
    sk_msg in{0, 0, got};
    EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), 40000);
    EXPECT_EQ(in.type, 7);
    EXPECT_EQ(in.len, 40000);
    EXPECT_EQ(contents(got), "old:" + text);

    // A zero-length body is the header alone.
    sk_msg empty{-3, 0, got};
    EXPECT_EQ(sk_msg_send(fd[0], &empty, 1), 0);
    EXPECT_EQ(drain(fd[1]), std::vector<std::string>{header(-3, 0)});
    EXPECT_EQ(sk_msg_send(fd[0], &empty, 1), 0);
    got->reset(got);
    EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), 0);
    EXPECT_EQ(in.type, -3);
    EXPECT_EQ(got->length(got), 0u);
}

TEST_F(SkMsg, SendTimesOutAgainstAPeerThatNeverReads) {
    char filler[4096] = {};
    while (send(fd[0], filler, sizeof filler, MSG_DONTWAIT) > 0) {
    }
    sk_msg msg = message(1, "data");
    LogCapture log;
    double start = now();
    EXPECT_EQ(sk_msg_send(fd[0], &msg, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(now() - start, 0.9);
    EXPECT_TRUE(log.contains("[warn ] sk_msg.send_nonblocking(): Connection Timeout!"))
        << log.text();
}

TEST_F(SkMsg, ReceiveTimeouts) {
    sk_msg in{0, 0, got};
    LogCapture log;
    {
        Level verbose(16);
        EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), -1);
        EXPECT_EQ(log.text(), "");
    }
    sockaddr_un from{};
    socklen_t len = sizeof from;
    double start = now();
    EXPECT_EQ(sk_msg_recvfrom(fd[1], &in, (sockaddr *)&from, &len), -1);
    EXPECT_GE(now() - start, 2.9);
    EXPECT_TRUE(
        log.contains("[warn ] sk_msg.req_recv(): Select() timeout fd " + std::to_string(fd[1])))
        << log.text();
}

TEST_F(SkMsg, InvalidParametersAndDescriptors) {
    sk_msg msg{1, 0, body};
    sockaddr_un to{};
    socklen_t len = sizeof to;
    auto *addr = (sockaddr *)&to;
    LogCapture log;
    int fds = trel_test::open_fd_count();
    EXPECT_EQ(sk_msg_send(-1, &msg, 1) + sk_msg_send(fd[0], nullptr, 1), -2);
    EXPECT_EQ(sk_msg_sendto(-1, &msg, addr, len) + sk_msg_sendto(fd[0], &msg, nullptr, len), -2);
    EXPECT_EQ(sk_msg_recv(-1, &msg, 1), -1);
    EXPECT_EQ(sk_msg_recvfrom(-1, &msg, addr, &len) + sk_msg_recvfrom(fd[1], &msg, nullptr, &len),
              -2);
    EXPECT_EQ(log.lines().size(), 7u) << log.text();
    for (const char *f : {"send", "sendto", "recv", "recvfrom"})
        EXPECT_TRUE(
            log.contains(std::string("[error] sk_msg.sk_msg_") + f + "(): Invalid parameter"));
    EXPECT_TRUE(drain(fd[1]).empty());

    // A descriptor that is not open fails in the wait.
    int bad = 900;
    while (fcntl(bad, F_GETFD) != -1) bad--;
    EXPECT_EQ(sk_msg_send(bad, &msg, 1), -1);
    EXPECT_TRUE(log.contains("[error] sk_msg.send_nonblocking(): Select return -1! errno:9/"))
        << log.text();
    EXPECT_EQ(sk_msg_recvfrom(bad, &msg, addr, &len), -1);
    EXPECT_TRUE(log.contains("[error] sk_msg.req_recv(): Select() error from fd " +
                             std::to_string(bad) + "errno:9/"))
        << log.text();
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

TEST_F(SkMsg, PeerThatDisappears) {
    // Mid-message: the first chunk stays in the buffer, the result is -1.
    std::string h = header(2, 40000), chunk = pattern(16384);
    ASSERT_EQ(send(fd[0], h.data(), 8, 0), 8);
    ASSERT_EQ(send(fd[0], chunk.data(), chunk.size(), 0), 16384);
    close(fd[0]);
    sk_msg in{0, 0, got};
    EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), -1);
    EXPECT_EQ(contents(got), chunk);

    // Sending to a closed peer: datagram and stream sockets alike.
    close(fd[1]);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fd), 0);
    close(fd[1]);
    fd[1] = -1;
    sk_msg msg = message(1, "x");
    LogCapture log;
    EXPECT_EQ(sk_msg_send(fd[0], &msg, 1), -1);
    EXPECT_TRUE(log.contains("[error] sk_msg.send_nonblocking(): errno:111/")) << log.text();
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);
    EXPECT_EQ(sk_msg_send(sv[0], &msg, 1), -1);
    EXPECT_TRUE(log.contains("errno:32/")) << log.text();
    close(sv[0]);
}

struct SkMsgServer : SkMsg {
    std::string dir = trel_test::make_temp_dir(), path = dir + "/server.sock";
    uds_sock server;
    SkMsgServer() { EXPECT_GE(uds_sock_open_server(path.c_str(), &server), 0); }
    ~SkMsgServer() override {
        uds_sock_close(&server);
        trel_test::remove_tree(dir);
    }
    sockaddr *addr() { return (sockaddr *)&server.local; }
    socklen_t addrlen() { return (socklen_t)(2 + path.size()); }
};

TEST_F(SkMsgServer, VariantsDifferInTheirMessages) {
    std::string text = "abcdefghijklmnopqrstuvwxyz0123";
    sk_msg msg = message(5, text), in{0, 0, got};
    sockaddr_un from{};
    socklen_t len = sizeof from;
    LogCapture log;
    {
        Level debug(8);
        EXPECT_EQ(sk_msg_sendto(fd[0], &msg, addr(), addrlen()), 30);
        EXPECT_EQ(sk_msg_recvfrom(server.sock, &in, (sockaddr *)&from, &len), 30);
        EXPECT_EQ(contents(got), text);
        EXPECT_TRUE(
            log.contains("[debug] sk_msg.sk_msg_sendto(): Send type:5, len:30, "
                         "data:abcdefghijklmnopqrst...\n"));
        EXPECT_TRUE(log.contains("[debug] sk_msg.sk_msg_recvfrom(): Recv header type:5, len:30"));

        log.clear();
        got->reset(got);
        EXPECT_EQ(sk_msg_send(fd[0], &msg, 1), 30);
        EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), 30);
        EXPECT_TRUE(
            log.contains("[debug] sk_msg.sk_msg_send(): Send type:5, len:30, data:" + text));
        EXPECT_FALSE(log.contains("Recv header")) << log.text();
    }
    {
        Level verbose(16);
        got->reset(got);
        EXPECT_EQ(sk_msg_send(fd[0], &msg, 1), 30);
        EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), 30);
        EXPECT_TRUE(log.contains("[debug] sk_msg.sk_msg_recv(): Recv header type:5, len:30"));
        EXPECT_TRUE(log.contains("[debug] sk_msg.sk_msg_recv(): total_recv:30, buffer_sz:30"));
        EXPECT_TRUE(log.contains("[debug] sk_msg.sk_msg_recv(): Data:" + text + "\n"))
            << log.text();
    }
    // A hard sendto failure is a debug message only.
    close(server.sock);
    log.clear();
    EXPECT_EQ(sk_msg_sendto(fd[0], &msg, addr(), addrlen()), -1);
    EXPECT_EQ(log.text(), "");
    Level debug(8);
    EXPECT_EQ(sk_msg_sendto(fd[0], &msg, addr(), addrlen()), -1);
    EXPECT_TRUE(log.contains("[debug] sk_msg.sendto_nonblocking(): errno:111/")) << log.text();
    server.sock = -1;
}

TEST_F(SkMsgServer, ClientInForkedChild) {
    if (!can_bind_clients()) GTEST_SKIP() << "/var/run is not writable";
    std::string request = pattern(40000), reply = pattern(20003).substr(3);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        uds_sock client;
        bool ok = uds_sock_open_client(path.c_str(), &client) >= 0;
        sk_msg msg = message(11, request), in{0, 0, got};
        ok = ok && sk_msg_send(client.sock, &msg, 5) == 40000;
        ok = ok && sk_msg_recv(client.sock, &in, 5) == 20000 && in.type == 12 &&
             contents(got) == reply;
        uds_sock_close(&client);
        _exit(ok ? 0 : 1);
    }
    sk_msg in{0, 0, got};
    sockaddr_un from{};
    socklen_t len = sizeof from;
    EXPECT_EQ(sk_msg_recvfrom(server.sock, &in, (sockaddr *)&from, &len), 40000);
    EXPECT_EQ(in.type, 11);
    EXPECT_EQ(contents(got), request);
    EXPECT_EQ(sun_path(from).rfind("/var/run/uds_client-" + std::to_string(pid) + "-", 0), 0u);
    sk_msg answer = message(12, reply);
    EXPECT_EQ(sk_msg_sendto(server.sock, &answer, (sockaddr *)&from, len), 20000);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
