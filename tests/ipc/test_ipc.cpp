// Local IPC: Unix-domain sockets, framed messages, lock files, averages.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>

#include <trel/ipc.h>

#include "trel_test.h"

using namespace trel_test;

static int slept = 0;                   // seconds asked for
static std::function<void()> on_sleep;  // runs on every call

// Stands in for the C library's sleep in the lock code: counts and returns at once.
extern "C" unsigned int sleep(unsigned int seconds) {
    slept += seconds;
    if (on_sleep) on_sleep();
    return 0;
}

static int polls = 0;                   // waits for readiness
static std::function<void()> on_ppoll;  // runs at every wait, before it

// Stands in for the C library's ppoll in the framed messages: counts the waits.
extern "C" int ppoll(struct pollfd *fds, nfds_t n, const struct timespec *timeout,
                     const sigset_t *mask) {
    using Ppoll = int (*)(struct pollfd *, nfds_t, const struct timespec *, const sigset_t *);
    static auto real = reinterpret_cast<Ppoll>(dlsym(RTLD_NEXT, "ppoll"));
    ++polls;
    int saved = errno;
    if (on_ppoll) on_ppoll();
    errno = saved;
    return real(fds, n, timeout, mask);
}

namespace {

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// The name the next client socket gets: rand() is reseeded to a known state.
std::string next_client_name() {
    srand(4242);
    int r = rand();
    srand(4242);
    return "/var/run/uds_client-" + std::to_string(getpid()) + "-" + std::to_string(r & 0xFFFF);
}

// A body that differs from chunk to chunk.
std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++) s[i] = (char)('a' + (i * 7 + i / 16384) % 26);
    return s;
}

// Every datagram pending on fd.
std::vector<std::string> drain(int fd) {
    std::vector<std::string> out;
    static char buf[65536];
    for (ssize_t n; (n = recv(fd, buf, sizeof buf, MSG_DONTWAIT)) >= 0;) out.emplace_back(buf, n);
    return out;
}

std::string header(int32_t type, int32_t len) {
    int32_t h[2] = {type, len};
    return std::string(reinterpret_cast<const char *>(h), 8);
}

// A temporary directory, a datagram socket pair, a body and a receive buffer.
struct Ipc : ::testing::Test {
    std::string dir = make_temp_dir(), path = dir + "/server.sock";
    int fd[2] = {-1, -1};
    buffer *body = buffer_create(), *got = buffer_create();
    sk_msg in{0, 0, got};
    sockaddr_un from{};
    sockaddr *addr = (sockaddr *)&from;
    socklen_t fromlen = sizeof from;
    uint32_t saved_level = libtrel_log_level;

    Ipc() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fd), 0); }
    ~Ipc() override {
        for (int f : fd) close(f);
        buffer_destroy(body);
        buffer_destroy(got);
        remove_tree(dir);
        libtrel_log_level = saved_level;
    }
    sk_msg message(int32_t type, const std::string &text) {
        body->reset(body);
        body->append(body, text.data(), text.size());
        return sk_msg{type, (int32_t)text.size(), body};
    }
    std::string received() { return std::string((const char *)got->data(got), got->length(got)); }
};

TEST_F(Ipc, ServerAndClient) {
    if (access("/var/run", W_OK) != 0) GTEST_SKIP() << "/var/run is not writable";
    LogCapture log;
    int fds = open_fd_count();
    write_file(path, "stale");
    uds_sock server, client;
    ASSERT_GE(uds_sock_open_server(path.c_str(), &server), 0);
    std::string name = next_client_name();
    ASSERT_GE(uds_sock_open_client(path.c_str(), &client), 0);
    EXPECT_STREQ(client.local.sun_path, name.c_str());
    EXPECT_STREQ(client.peer.sun_path, path.c_str());

    // In one process: the server answers to the client's name.  The variants
    // log differently on purpose: sendto previews 20 characters, and the
    // header is logged by recvfrom at a lower level than by recv.
    libtrel_log_level = 8;
    sk_msg msg = message(5, "ping");
    EXPECT_EQ(sk_msg_send(client.sock, &msg, 1), 4);
    EXPECT_TRUE(log.contains("[debug] sk_msg.sk_msg_send(): Send type:5, len:4, data:ping\n"));
    EXPECT_EQ(sk_msg_recvfrom(server.sock, &in, addr, &fromlen), 4);
    EXPECT_STREQ(from.sun_path, name.c_str());
    EXPECT_TRUE(log.contains("[debug] sk_msg.sk_msg_recvfrom(): Recv header type:5, len:4"));
    std::string reply = pattern(20000);
    msg = message(6, reply);
    EXPECT_EQ(sk_msg_sendto(server.sock, &msg, addr, fromlen), 20000);
    EXPECT_TRUE(log.contains("[debug] sk_msg.sk_msg_sendto(): Send type:6, len:20000, data:" +
                             reply.substr(0, 20) + "...\n"));
    EXPECT_EQ(sk_msg_recv(client.sock, &in, 1), 20000);
    EXPECT_EQ(received(), "ping" + reply);  // appended to what the buffer held
    EXPECT_FALSE(log.contains("sk_msg_recv(): Recv header")) << log.text();

    // Across a fork: the client sends 40000 bytes from a child process.
    std::string request = pattern(40000);
    msg = message(11, request);
    run_in_child([&] { EXPECT_EQ(sk_msg_send(client.sock, &msg, 1), 40000); });
    got->reset(got);
    EXPECT_EQ(sk_msg_recvfrom(server.sock, &in, addr, &fromlen), 40000);
    EXPECT_EQ(received(), request);

    // Each close removes its own name and leaves the descriptor value alone.
    int client_fd = client.sock;
    uds_sock_close(&client);
    EXPECT_EQ(client.sock, client_fd);
    EXPECT_FALSE(exists(name));
    uds_sock_close(&server);
    EXPECT_FALSE(exists(path));

    // No server any more: connecting fails and leaves no client name behind.
    name = next_client_name();
    EXPECT_EQ(uds_sock_open_client(path.c_str(), &client), -1);
    EXPECT_EQ(client.sock, -1);
    EXPECT_TRUE(log.contains("[error] uds.uds_socket_create(): connect error, path:" + path +
                             ", errno:2/" + strerror(ENOENT)));
    EXPECT_FALSE(exists(name));
    EXPECT_EQ(open_fd_count(), fds);

    // A hard sendto failure is a debug message only.
    EXPECT_EQ(sk_msg_sendto(fd[0], &msg, (sockaddr *)&server.local, sizeof server.local), -1);
    EXPECT_TRUE(log.contains("[debug] sk_msg.sendto_nonblocking(): errno:2/")) << log.text();
}

TEST_F(Ipc, ChunksAndTimeouts) {
    std::string text = pattern(40000);
    sk_msg msg = message(7, text);
    ASSERT_EQ(sk_msg_send(fd[0], &msg, 1), 40000);
    EXPECT_EQ(drain(fd[1]),
              (std::vector<std::string>{header(7, 40000), text.substr(0, 16384),
                                        text.substr(16384, 16384), text.substr(32768)}));

    // A zero-length body is the header alone.
    sk_msg empty{-3, 0, body};
    EXPECT_EQ(sk_msg_send(fd[0], &empty, 1), 0);
    EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), 0);
    EXPECT_TRUE(drain(fd[1]).empty());

    // A peer that never reads.
    char filler[4096] = {};
    while (send(fd[0], filler, sizeof filler, MSG_DONTWAIT) > 0) continue;
    LogCapture log;
    time_t start = time(nullptr);
    EXPECT_EQ(sk_msg_send(fd[0], &msg, 1), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(time(nullptr) - start, 1);
    EXPECT_TRUE(log.contains("[warn ] sk_msg.send_nonblocking(): Connection Timeout!"));

    // Nothing to receive: recv is silent, recvfrom waits 3 seconds and says so.
    log.clear();
    libtrel_log_level = 16;
    EXPECT_EQ(sk_msg_recv(fd[0], &in, 1), -1);
    EXPECT_EQ(log.text(), "");
    start = time(nullptr);
    EXPECT_EQ(sk_msg_recvfrom(fd[0], &in, addr, &fromlen), -1);
    EXPECT_GE(time(nullptr) - start, 3);
    EXPECT_TRUE(
        log.contains("[warn ] sk_msg.req_recv(): Select() timeout fd " + std::to_string(fd[0])));
}

// Sends and receives are tried first: they wait only on a full or an empty
// socket, and then go on where they stopped.
TEST_F(Ipc, WaitsOnlyWhenTheSocketIsFullOrEmpty) {
    LogCapture log;
    std::string text = pattern(40000);
    sk_msg msg = message(3, text);
    auto send_raw = [&] {
        std::string h = header(3, 40000);
        ASSERT_EQ(send(fd[0], h.data(), 8, 0), 8);
        for (size_t at = 0; at < text.size(); at += 16384) {
            size_t n = std::min<size_t>(16384, text.size() - at);
            ASSERT_EQ(send(fd[0], text.data() + at, n, 0), (ssize_t)n);
        }
    };

    // Room to send and everything queued to receive: no wait.
    polls = 0;
    EXPECT_EQ(sk_msg_send(fd[0], &msg, 1), 40000);
    EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), 40000);
    EXPECT_EQ(received(), text);
    send_raw();
    got->reset(got);
    EXPECT_EQ(sk_msg_recvfrom(fd[1], &in, addr, &fromlen), 40000);
    EXPECT_EQ(received(), text);
    EXPECT_EQ(polls, 0);

    // Nothing queued yet: one wait, for the header; the message sent
    // meanwhile arrives whole.
    on_ppoll = [&] {
        on_ppoll = nullptr;
        send_raw();
    };
    got->reset(got);
    EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), 40000);
    EXPECT_EQ(polls, 1);
    EXPECT_EQ(received(), text);

    // A 1 MiB body fills the socket part-way: the send waits only then, while
    // the reader takes what is queued, and completes with every chunk in
    // order and errno as it was.
    std::string big = pattern(1 << 20);
    msg = message(4, big);
    std::vector<std::string> seen;
    size_t queued_at_first_wait = 0;
    on_ppoll = [&] {
        std::vector<std::string> queued = drain(fd[1]);
        if (polls == 1) queued_at_first_wait = queued.size();
        seen.insert(seen.end(), queued.begin(), queued.end());
    };
    polls = 0;
    errno = EDOM;
    EXPECT_EQ(sk_msg_send(fd[0], &msg, 1), 1 << 20);
    EXPECT_EQ(errno, EDOM);
    on_ppoll = nullptr;
    std::vector<std::string> rest = drain(fd[1]);
    seen.insert(seen.end(), rest.begin(), rest.end());
    EXPECT_GE(polls, 1);
    EXPECT_GE(queued_at_first_wait, 2u);  // the header and a chunk at least
    std::vector<std::string> want{header(4, 1 << 20)};
    for (size_t at = 0; at < big.size(); at += 16384) want.push_back(big.substr(at, 16384));
    EXPECT_EQ(seen, want);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Ipc, BadInputAndVanishingPeers) {
    LogCapture log;
    int fds = open_fd_count();
    uds_sock rec;
    EXPECT_EQ(uds_socket_create("/x", nullptr, 1), -1);
    EXPECT_TRUE(log.contains("[error] uds.uds_socket_create(): invalid parameter")) << log.text();
    rec.sock = 42;
    EXPECT_EQ(uds_sock_open_client(nullptr, &rec), -1);
    EXPECT_EQ(rec.sock, -1);
    std::string missing = dir + "/absent/server.sock";
    EXPECT_EQ(uds_sock_open_server(missing.c_str(), &rec), -1);
    EXPECT_TRUE(log.contains("[error] uds.uds_socket_create(): bind error, path:" + missing +
                             ", errno:2/" + strerror(ENOENT)));
    EXPECT_EQ(uds_get_sock(nullptr), -1);
    uds_sock_close(nullptr);

    // A 200-character path is cut to 107.
    std::string long_path = dir + "/" + std::string(200 - dir.size() - 1, 'p');
    std::string cut = long_path.substr(0, 107);
    ASSERT_GE(uds_sock_open_server(long_path.c_str(), &rec), 0);
    EXPECT_STREQ(rec.local.sun_path, cut.c_str());
    uds_sock_close(&rec);
    EXPECT_FALSE(exists(cut));

    EXPECT_EQ(sk_msg_send(fd[0], nullptr, 1), -1);
    EXPECT_EQ(sk_msg_sendto(-1, &in, addr, fromlen), -1);
    EXPECT_EQ(sk_msg_recv(-1, &in, 1), -1);
    EXPECT_EQ(sk_msg_recvfrom(fd[1], &in, nullptr, &fromlen), -1);
    for (std::string f : {"send", "sendto", "recv", "recvfrom"})
        EXPECT_TRUE(log.contains("[error] sk_msg.sk_msg_" + f + "(): Invalid parameter"));

    // A descriptor that is not open fails in the wait (recv silently).
    int bad = 900;
    while (fcntl(bad, F_GETFD) != -1) bad--;
    const struct {
        const char *what;
        std::function<int()> call;
        std::string log;
    } closed[] = {
        {"send", [&] { return sk_msg_send(bad, &in, 1); },
         "[error] sk_msg.send_nonblocking(): Select return -1! errno:9/"},
        {"sendto", [&] { return sk_msg_sendto(bad, &in, addr, fromlen); },
         "[error] sk_msg.sendto_nonblocking(): Select return -1! errno:9/"},
        {"recv", [&] { return sk_msg_recv(bad, &in, 1); }, ""},
        {"recvfrom", [&] { return sk_msg_recvfrom(bad, &in, addr, &fromlen); },
         "[error] sk_msg.req_recv(): Select() error from fd " + std::to_string(bad) + "errno:9/"},
    };
    for (const auto &row : closed) {
        SCOPED_TRACE(row.what);
        log.clear();
        errno = 0;
        EXPECT_EQ(row.call(), -1);
        EXPECT_EQ(errno, EBADF);
        if (row.log.empty())
            EXPECT_EQ(log.text(), "");
        else
            EXPECT_TRUE(log.contains(row.log)) << log.text();
    }

    // A stream peer that has gone: an error, not SIGPIPE.
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);
    EXPECT_EQ(sk_msg_send(sv[0], &in, 1), -1);
    EXPECT_TRUE(log.contains("[error] sk_msg.send_nonblocking(): errno:32/")) << log.text();
    close(sv[0]);

    // Gone mid-message: the first chunk stays in the buffer, the result is -1.
    std::string h = header(2, 40000), chunk = pattern(16384);
    ASSERT_EQ(send(fd[0], h.data(), 8, 0), 8);
    ASSERT_EQ(send(fd[0], chunk.data(), chunk.size(), 0), 16384);
    close(fd[0]);
    fd[0] = -1;
    EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), -1);
    EXPECT_EQ(received(), chunk);
    EXPECT_EQ(open_fd_count(), fds - 1);
}

struct Lock {
    int (*lock)();
    int (*unlock)();
    std::string path, name;
};
const Lock kLocks[] = {
    {report_lock, report_unlock, "/var/run/report", "[error] statistics.report_"},
    {inform_profile_lock, inform_profile_unlock, "/var/run/inform-profile.lock",
     "[error] statistics.inform_profile_"},
};

TEST(Lock, InOneProcessAndAcrossProcesses) {
    TempRoot root;
    LogCapture log;
    int fds = open_fd_count();
    for (const Lock &l : kLocks) {
        EXPECT_EQ(l.lock(), -1);
        EXPECT_TRUE(log.contains(l.name + "lock(): Can't open " + l.path)) << log.text();
        EXPECT_EQ(l.unlock(), -1);
        EXPECT_TRUE(log.contains(l.name + "unlock(): unlocking " + l.path + " without locking"));
    }
    root.mkdir("/var/run/report");
    mode_t mask = umask(022);
    for (const Lock &l : kLocks) {
        EXPECT_EQ(l.lock(), 0);
        EXPECT_EQ(l.lock(), -1);
        EXPECT_TRUE(log.contains(l.name + "lock(): Locking " + l.path + " twice"));
    }
    umask(mask);
    EXPECT_EQ(report_locked(), 1);
    struct stat st;
    ASSERT_EQ(stat(root.path(kLocks[1].path).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    for (const Lock &l : kLocks) EXPECT_EQ(l.unlock(), 0);
    EXPECT_TRUE(root.exists(kLocks[1].path));

    // Held by a child process: 11 attempts, then refused.
    pid_t pid = fork();
    if (pid == 0) {
        if (report_lock() == 0 && inform_profile_lock() == 0) raise(SIGSTOP);
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, WUNTRACED), pid);
    ASSERT_TRUE(WIFSTOPPED(status)) << "the child could not take the locks";
    for (const Lock &l : kLocks) {
        slept = 0;
        EXPECT_EQ(l.lock(), -1);
        EXPECT_EQ(slept, 11);
        EXPECT_TRUE(log.contains(l.name + "lock(): couldn't lock " + l.path)) << log.text();
    }
    EXPECT_EQ(open_fd_count(), fds);

    // The holder dies during the third wait (not reaped yet, so its pid stays
    // ours): the lock is taken at the next attempt.
    slept = 0;
    on_sleep = [pid] {
        siginfo_t info;
        if (slept == 3 && kill(pid, SIGKILL) == 0) waitid(P_PID, pid, &info, WEXITED | WNOWAIT);
    };
    EXPECT_EQ(report_lock(), 0);
    on_sleep = nullptr;
    EXPECT_EQ(slept, 3);
    EXPECT_EQ(report_unlock(), 0);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

// Runs the filter; returns the values kept.
std::vector<int64_t> filter(std::vector<int64_t> v, int64_t *mean) {
    uint64_t n = v.size();
    EXPECT_EQ(trel_remove_outliers(v.data(), mean, &n), 0);
    v.resize(n);
    return v;
}

TEST(Avg, MeansAccumulatorsAndOutliers) {
    EXPECT_EQ(trel_avg_round(5, 2), 3);
    EXPECT_EQ(trel_avg_round(-5, 2), -3);
    EXPECT_EQ(trel_avg_round(4, 3), 1);
    EXPECT_EQ(trel_avg_round(7, 0), 0);
    int64_t values[] = {1, 2, 2, -9};
    EXPECT_EQ(trel_avg_array(values, 4), -1);

    trel_avg a{};
    EXPECT_EQ(trel_avg_compute(&a, 0xFFFFFFFFu), -1);
    trel_avg_inc(&a, -7);
    trel_avg_inc(&a, 2);
    EXPECT_EQ(trel_avg_compute(&a, 77), -3);
    EXPECT_EQ(a.avg, -3);

    // -1 is no sample; the product wraps in 32 bits.
    trel_avg w{};
    trel_avg_inc_weighted(&w, -1, 100);
    trel_avg_inc_weighted(&w, 3, 4);
    trel_avg_inc_weighted(&w, INT32_MAX, 2);
    EXPECT_EQ(w.sum, 10);
    EXPECT_EQ(w.count, 6);

    // The average is cut to 32 bits.
    trel_avg wide{((int64_t)1 << 33) + 5, 1, 0};
    EXPECT_EQ(trel_avg_compute(&wide, 0), 5);

    // Outlier removal.
    int64_t mean = -1, one = 42;
    uint64_t n = 0;
    EXPECT_EQ(trel_remove_outliers(&one, &mean, &n), -1);
    EXPECT_EQ(filter({42}, &mean), std::vector<int64_t>{42});
    EXPECT_EQ(mean, 42);
    EXPECT_EQ(filter({10, 10, 10, 10}, &mean).size(), 4u);

    // sd 2846: the large value is 316 hundredths out; the mean is not redone.
    EXPECT_EQ(filter({100, 100, 100, 100, 10000, 100, 100, 100, 100, 100, 100}, &mean),
              std::vector<int64_t>(10, 100));
    EXPECT_EQ(mean, 1000);
    // Mean 4, sd 10: 300 hundredths out is kept.
    EXPECT_EQ(filter({0, 0, 0, 0, 0, 0, 0, 0, 34}, &mean).size(), 9u);
    // Mean -17, sd 51: 301.96 truncates to 301 and goes; the order is kept.
    EXPECT_EQ(filter({0, 0, 0, -171, 0, 0, 0, 0, 0, 3}, &mean),
              (std::vector<int64_t>{0, 0, 0, 0, 0, 0, 0, 0, 3}));
    EXPECT_EQ(mean, -17);
}

}  // namespace
