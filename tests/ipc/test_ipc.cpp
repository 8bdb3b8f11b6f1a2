// Local IPC: Unix-domain sockets, framed messages, lock files, averages.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>

#include <trel/ipc.h>

#include "trel_test.h"

using namespace trel_test;

// Stands in for the C library's sleep in the lock code: counts and returns at once.
static int slept = 0;
extern "C" unsigned int sleep(unsigned int seconds) { return slept += (int)seconds, 0; }

// Stands in for ppoll in the framed messages: counts the waits and keeps the
// last time-out; with time_out set, every wait times out at once.
static int polls = 0;
static time_t waited = -1;
static bool time_out = false;
static std::function<void()> on_ppoll;  // runs at every wait, before it
extern "C" int ppoll(struct pollfd *fds, nfds_t n, const struct timespec *timeout,
                     const sigset_t *mask) {
    using Ppoll = int (*)(struct pollfd *, nfds_t, const struct timespec *, const sigset_t *);
    static auto real = reinterpret_cast<Ppoll>(dlsym(RTLD_NEXT, "ppoll"));
    ++polls, waited = timeout->tv_sec;
    int saved = errno;
    if (on_ppoll) on_ppoll();
    errno = saved;
    return time_out ? 0 : real(fds, n, timeout, mask);
}

namespace {

// A body that differs from chunk to chunk.
std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; i++) s[i] = (char)('a' + (i * 7 + i / 16384) % 26);
    return s;
}

// The datagrams of one message: the header, then chunks of 16384 bytes.
std::vector<std::string> framed(int32_t type, const std::string &text) {
    int32_t h[2] = {type, (int32_t)text.size()};
    std::vector<std::string> out{std::string(reinterpret_cast<const char *>(h), 8)};
    for (size_t at = 0; at < text.size(); at += 16384) out.push_back(text.substr(at, 16384));
    return out;
}

// A temporary directory, a datagram socket pair, a body and a receive buffer.
struct Ipc : ::testing::Test {
    LogCapture log;
    std::string dir = make_temp_dir(), path = dir + "/server.sock";
    int fd[2] = {-1, -1}, fds = open_fd_count();
    buffer *body = buffer_create(), *got = buffer_create();
    sk_msg in{0, 0, got};
    sockaddr_un from{};
    sockaddr *addr = (sockaddr *)&from;
    socklen_t fromlen = sizeof from;

    Ipc() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, fd), 0); }
    ~Ipc() override {
        for (int f : fd) close(f);
        buffer_destroy(body), buffer_destroy(got), remove_tree(dir);
        time_out = false, on_ppoll = nullptr;
    }
    sk_msg message(int32_t type, const std::string &text) {
        body->reset(body);
        body->append(body, text.data(), text.size());
        return sk_msg{type, (int32_t)text.size(), body};
    }
    void send_raw(const std::vector<std::string> &dgrams) {
        for (const auto &d : dgrams)
            EXPECT_EQ(send(fd[0], d.data(), d.size(), 0), (ssize_t)d.size());
    }
    // Every datagram pending on fd[1].
    std::vector<std::string> drain() {
        std::vector<std::string> out;
        static char buf[65536];
        for (ssize_t n; (n = recv(fd[1], buf, sizeof buf, MSG_DONTWAIT)) >= 0;)
            out.emplace_back(buf, n);
        return out;
    }
    std::string received() { return std::string((const char *)got->data(got), got->length(got)); }
};

TEST_F(Ipc, ServerAndClient) {
    if (access("/var/run", W_OK) != 0) GTEST_SKIP() << "/var/run is not writable";
    libtrel_log_level = 8;
    write_file(path, "stale");
    uds_sock server, client;
    ASSERT_GE(uds_sock_open_server(path.c_str(), &server), 0);
    ASSERT_GE(uds_sock_open_client(path.c_str(), &client), 0);
    EXPECT_EQ(uds_get_sock(&client), client.sock);
    sk_msg msg = message(5, "ping");
    EXPECT_EQ(sk_msg_send(client.sock, &msg, 1), 4);
    EXPECT_EQ(sk_msg_recvfrom(server.sock, &in, addr, &fromlen), 4);
    std::string name = from.sun_path;  // the server answers to the client's own name
    EXPECT_EQ(name.rfind("/var/run/uds_client-" + std::to_string(getpid()) + "-", 0), 0u);
    std::string reply = pattern(20000);
    msg = message(6, reply);
    EXPECT_EQ(sk_msg_sendto(server.sock, &msg, addr, fromlen), 20000);
    EXPECT_EQ(sk_msg_recv(client.sock, &in, 1), 20000);
    EXPECT_EQ(received(), "ping" + reply);  // appended to what the buffer held
    // sendto previews 20 characters; recvfrom logs the header at a lower level than recv.
    for (const std::string &line : std::vector<std::string>{
             "sk_msg_send(): Send type:5, len:4, data:ping\n",
             "sk_msg_recvfrom(): Recv header type:5, len:4\n",
             "sk_msg_sendto(): Send type:6, len:20000, data:" + reply.substr(0, 20) + "...\n"})
        EXPECT_TRUE(log.contains("[debug] sk_msg." + line)) << line << log.text();
    EXPECT_FALSE(log.contains("sk_msg_recv(): Recv header"));
    uds_sock_close(&client), uds_sock_close(&server);  // each removes its own name
    EXPECT_EQ(access(name.c_str(), F_OK) + access(path.c_str(), F_OK), -2);
    EXPECT_EQ(uds_sock_open_client(path.c_str(), &client), -1);  // no server any more
    EXPECT_TRUE(log.contains("[error] uds.uds_socket_create(): connect error, path:" + path +
                             ", errno:2/"));
    EXPECT_EQ(open_fd_count(), fds + 2);
    // A hard sendto failure is a debug message only.
    EXPECT_EQ(sk_msg_sendto(fd[0], &msg, (sockaddr *)&server.local, sizeof server.local), -1);
    EXPECT_TRUE(log.contains("[debug] sk_msg.sendto_nonblocking(): errno:2/")) << log.text();
}

// Sends and receives are tried first: they wait only on a full or an empty
// socket, and then go on where they stopped.
TEST_F(Ipc, ChunksWaitsAndTimeouts) {
    std::string text = pattern(32769), big = pattern(1 << 20);
    sk_msg msg = message(7, text), empty{-3, 0, body};
    polls = 0;
    ASSERT_EQ(sk_msg_send(fd[0], &msg, 1), 32769);
    EXPECT_EQ(drain(), framed(7, text));
    EXPECT_EQ(sk_msg_send(fd[0], &empty, 1), 0);  // the header alone
    EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), 0);
    EXPECT_EQ(in.type, -3);
    send_raw(framed(3, text));
    EXPECT_EQ(sk_msg_recvfrom(fd[1], &in, addr, &fromlen), 32769);
    EXPECT_EQ(in.type, 3);
    EXPECT_EQ(polls, 0);
    // Nothing queued yet: one wait (the caller's time-out; 3 s for recvfrom)
    // for the header; the message sent meanwhile arrives whole.
    for (bool from_any : {false, true}) {
        SCOPED_TRACE(from_any ? "recvfrom" : "recv");
        polls = 0;
        got->reset(got);
        on_ppoll = [&, once = true]() mutable {
            if (once) send_raw(framed(4, text));
            once = false;
        };
        EXPECT_EQ(
            from_any ? sk_msg_recvfrom(fd[1], &in, addr, &fromlen) : sk_msg_recv(fd[1], &in, 7),
            32769);
        EXPECT_EQ(received(), text);
        EXPECT_EQ(polls, 1);
        EXPECT_EQ(waited, from_any ? 3 : 7);
    }
    // A short datagram still counts as a whole chunk, its tail zeros; with no
    // buffer for a body the message is refused after its header.
    got->reset(got);
    send_raw({framed(2, std::string(20000, 'x'))[0], "ab", "", framed(1, "x")[0]});
    EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), 20000);
    EXPECT_EQ(received(), "ab" + std::string(19998, '\0'));
    sk_msg no_buffer{0, 0, nullptr};
    EXPECT_EQ(sk_msg_recv(fd[1], &no_buffer, 1), -1);

    // A 1 MiB body fills the socket part-way: the send waits only then, while
    // the reader takes what is queued, and loses nothing; errno stays as it was.
    msg = message(4, big);
    std::vector<std::string> seen;
    on_ppoll = [&] {
        for (auto &d : drain()) seen.push_back(d);
    };
    errno = EDOM;
    EXPECT_EQ(sk_msg_send(fd[0], &msg, 1), 1 << 20);
    EXPECT_EQ(errno, EDOM);
    EXPECT_GE(polls, 2);
    on_ppoll();
    EXPECT_EQ(seen, framed(4, big));
    EXPECT_EQ(log.text(), "");

    // Time-outs: send fails with ETIMEDOUT, recv silently, recvfrom after 3 s.
    time_out = true;
    libtrel_log_level = 16;
    EXPECT_EQ(sk_msg_send(fd[0], &msg, 2), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(waited, 2);
    EXPECT_TRUE(log.contains("[warn ] sk_msg.send_nonblocking(): Connection Timeout!\n"));
    log.clear();
    EXPECT_EQ(sk_msg_recv(fd[0], &in, 1), -1);
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(sk_msg_recvfrom(fd[0], &in, addr, &fromlen), -1);
    EXPECT_EQ(waited, 3);
    EXPECT_TRUE(
        log.contains("[warn ] sk_msg.req_recv(): Select() timeout fd " + std::to_string(fd[0])));
}

TEST_F(Ipc, BadInputAndVanishingPeers) {
    int bad = 900;
    while (fcntl(bad, F_GETFD) != -1) bad--;
    uds_sock rec;
    rec.sock = 4;
    sk_msg short_body{1, 5, body};  // the buffer holds fewer than 5 bytes
    std::string missing = dir + "/absent/s", sel = "Select return -1! errno:9/",
                inv = "(): Invalid parameter";
    const struct {
        const char *what;
        std::function<int()> call;
        std::string log;  // "" for none
        int err;          // 0: not checked
    } rows[] = {
        {"no record", [&] { return uds_socket_create("/x", nullptr, 1); },
         "uds.uds_socket_create(): invalid parameter", 0},
        {"no descriptor left",
         [&] {
             rlimit saved, none{0, 0};
             getrlimit(RLIMIT_NOFILE, &saved);
             none.rlim_max = saved.rlim_max;
             setrlimit(RLIMIT_NOFILE, &none);
             int r = uds_sock_open_server(path.c_str(), &rec);
             setrlimit(RLIMIT_NOFILE, &saved);
             return r;
         },
         "uds.uds_socket_create(): uds socket error, errno:24/", 0},
        {"bind", [&] { return uds_sock_open_server(missing.c_str(), &rec); },
         "bind error, path:" + missing + ", errno:2/", 0},
        {"send null", [&] { return sk_msg_send(fd[0], nullptr, 1); }, "sk_msg.sk_msg_send" + inv,
         0},
        {"send short", [&] { return sk_msg_send(fd[0], &short_body, 1); },
         "sk_msg.sk_msg_send" + inv, 0},
        {"sendto -1", [&] { return sk_msg_sendto(-1, &in, addr, fromlen); },
         "sk_msg.sk_msg_sendto" + inv, 0},
        {"recv -1", [&] { return sk_msg_recv(-1, &in, 1); }, "sk_msg.sk_msg_recv" + inv, 0},
        {"recv null", [&] { return sk_msg_recv(fd[1], nullptr, 1); }, "", 0},
        {"recvfrom null", [&] { return sk_msg_recvfrom(fd[1], &in, nullptr, &fromlen); },
         "sk_msg.sk_msg_recvfrom" + inv, 0},
        {"send closed", [&] { return sk_msg_send(bad, &in, 1); },
         "sk_msg.send_nonblocking(): " + sel, EBADF},
        {"sendto closed", [&] { return sk_msg_sendto(bad, &in, addr, fromlen); },
         "sk_msg.sendto_nonblocking(): " + sel, EBADF},
        {"recv closed", [&] { return sk_msg_recv(bad, &in, 1); }, "", EBADF},
        {"recvfrom closed", [&] { return sk_msg_recvfrom(bad, &in, addr, &fromlen); },
         "Select() error from fd " + std::to_string(bad) + "errno:9/", EBADF},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        log.clear();
        errno = 0;
        EXPECT_EQ(row.call(), -1);
        if (row.err != 0) {
            EXPECT_EQ(errno, row.err);
        }
        EXPECT_TRUE(row.log.empty() ? log.text().empty() : log.contains(row.log)) << log.text();
    }
    EXPECT_EQ(rec.sock, -1);
    EXPECT_TRUE(drain().empty());
    uds_sock_close(nullptr);
    std::string long_path = dir + "/" + std::string(200 - dir.size() - 1, 'p');  // cut to 107
    ASSERT_GE(uds_sock_open_server(long_path.c_str(), &rec), 0);
    EXPECT_EQ(rec.local.sun_path, long_path.substr(0, 107));
    uds_sock_close(&rec);
    EXPECT_NE(access(long_path.substr(0, 107).c_str(), F_OK), 0);

    int sv[2];  // a stream peer that has gone: an error, not SIGPIPE
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    close(sv[1]);
    polls = 0;
    EXPECT_EQ(sk_msg_send(sv[0], &in, 1), -1);
    EXPECT_EQ(polls, 0);  // at once, without a wait
    EXPECT_TRUE(log.contains("[error] sk_msg.send_nonblocking(): errno:32/")) << log.text();
    close(sv[0]);
    // Gone mid-message: the first chunk stays in the buffer, the result is -1.
    std::vector<std::string> partial = framed(2, pattern(40000));
    send_raw({partial[0], partial[1]});
    close(fd[0]);
    fd[0] = -1;
    time_out = true;
    EXPECT_EQ(sk_msg_recv(fd[1], &in, 1), -1);
    EXPECT_EQ(received(), partial[1]);
    EXPECT_EQ(open_fd_count(), fds + 1);
}

TEST(Lock, InOneProcessAndAgainstAnotherHolder) {
    TempRoot root;
    LogCapture log;
    int fds = open_fd_count();
    const std::pair<int (*)(), int (*)()> locks[] = {{report_lock, report_unlock},
                                                     {inform_profile_lock, inform_profile_unlock}};
    const std::string paths[] = {"/var/run/report", "/var/run/inform-profile.lock"};
    EXPECT_EQ(report_lock() + inform_profile_lock(), -2);  // no /var/run yet
    root.mkdir(paths[0]);
    mode_t mask = umask(022);
    for (int i = 0; i < 2; i++) {
        SCOPED_TRACE(paths[i]);
        EXPECT_EQ(locks[i].first(), 0);
        EXPECT_EQ(locks[i].first(), -1);
        EXPECT_EQ(report_locked(), i == 0 ? 1 : 0);
        EXPECT_EQ(locks[i].second(), 0);
        EXPECT_EQ(locks[i].second(), -1);
        int other = open(root.path(paths[i]).c_str(), O_RDONLY | O_CLOEXEC);  // another holder
        ASSERT_EQ(flock(other, LOCK_EX), 0);
        slept = 0;
        EXPECT_EQ(locks[i].first(), -1);
        EXPECT_EQ(slept, 11);  // attempts one second apart
        close(other);
        std::string fn =
            i == 0 ? "[error] statistics.report_" : "[error] statistics.inform_profile_";
        for (const std::string &m :
             {"lock(): Can't open " + paths[i], "lock(): Locking " + paths[i] + " twice",
              "unlock(): unlocking " + paths[i] + " without locking",
              "lock(): couldn't lock " + paths[i]})
            EXPECT_TRUE(log.contains(fn + m)) << m;
    }
    umask(mask);
    EXPECT_EQ(open_fd_count(), fds);
    struct stat st;  // made 0640 and left in place
    ASSERT_EQ(stat(root.path(paths[1]).c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST(Avg, MeansAccumulatorsAndOutliers) {
    // Rounded half away from zero; a count of 0 is 0; INT64_MIN / -1 wraps.
    const int64_t rounds[][3] = {{5, 2, 3},   {-5, 2, -3}, {4, 3, 1},
                                 {-4, 3, -1}, {7, 0, 0},   {INT64_MIN, -1, INT64_MIN}};
    for (const auto &r : rounds) EXPECT_EQ(trel_avg_round(r[0], r[1]), r[2]) << r[0] << "/" << r[1];
    int64_t values[] = {1, 2, 2, -9}, mean = -1;
    EXPECT_EQ(trel_avg_array(values, 4), -1);
    EXPECT_EQ(trel_avg_array(nullptr, 4), 0);
    trel_avg a{}, w{}, wide{((int64_t)1 << 33) + 5, 1, 0};
    EXPECT_EQ(trel_avg_compute(&a, 0xFFFFFFFFu), -1);
    trel_avg_inc(&a, -7), trel_avg_inc(&a, 2);
    EXPECT_EQ(trel_avg_compute(&a, 77), -3);
    EXPECT_EQ(a.avg, -3);
    EXPECT_EQ(trel_avg_compute(&wide, 0), 5);  // the average is cut to 32 bits
    EXPECT_EQ(trel_avg_compute(nullptr, 9), 9);
    // -1 is no sample; the product wraps in 32 bits.
    trel_avg_inc_weighted(&w, -1, 100), trel_avg_inc_weighted(&w, 3, 4);
    trel_avg_inc_weighted(&w, INT32_MAX, 2);
    EXPECT_EQ(w.sum, 10);
    EXPECT_EQ(w.count, 6);

    uint64_t n = 0;
    EXPECT_EQ(trel_remove_outliers(values, &mean, &n), -1);
    EXPECT_EQ(trel_remove_outliers(nullptr, &mean, &(n = 1)), -1);
    const struct {
        std::vector<int64_t> in, kept;
        int64_t mean;
    } rows[] = {
        {{42}, {42}, 42},
        {{10, 10, 10, 10}, {10, 10, 10, 10}, 10},
        // sd 2846: the large value is 316 hundredths out; the mean is not redone.
        {{100, 100, 100, 100, 10000, 100, 100, 100, 100, 100, 100},
         std::vector<int64_t>(10, 100),
         1000},
        {{0, 0, 0, 0, 0, 0, 0, 0, 34}, {0, 0, 0, 0, 0, 0, 0, 0, 34}, 4},        // 300 out is kept
        {{0, 0, 0, -171, 0, 0, 0, 0, 0, 3}, {0, 0, 0, 0, 0, 0, 0, 0, 3}, -17},  // 301.96 goes
    };
    for (auto r : rows) {
        SCOPED_TRACE(::testing::PrintToString(r.in));
        EXPECT_EQ(trel_remove_outliers(r.in.data(), &mean, &(n = r.in.size())), 0);
        r.in.resize(n);
        EXPECT_EQ(r.in, r.kept);
        EXPECT_EQ(mean, r.mean);
    }
}

}  // namespace
