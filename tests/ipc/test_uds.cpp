// Unix-domain sockets: servers, clients, names, failure paths.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <vector>

#include "ipc_test.h"

using namespace ipc_test;
using trel_test::LogCapture;

namespace {

// Names of this process's client sockets under /var/run.
std::vector<std::string> client_files() {
    std::vector<std::string> out;
    std::string prefix = "uds_client-" + std::to_string(getpid()) + "-";
    if (DIR *d = opendir("/var/run")) {
        while (dirent *e = readdir(d))
            if (std::string(e->d_name).rfind(prefix, 0) == 0) out.push_back(e->d_name);
        closedir(d);
    }
    return out;
}

bool is_socket(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

bool exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

class UdsTest : public ::testing::Test {
protected:
    void SetUp() override { dir_ = trel_test::make_temp_dir(); }
    void TearDown() override { trel_test::remove_tree(dir_); }
    std::string dir_;
};

TEST_F(UdsTest, ServerAndClientExchangeDatagrams) {
    if (!can_bind_clients()) GTEST_SKIP() << "/var/run is not writable";
    int fds = trel_test::open_fd_count();
    std::string path = dir_ + "/server.sock";
    uds_sock server, client;
    ASSERT_GE(uds_sock_open_server(path.c_str(), &server), 0);
    EXPECT_EQ(uds_get_sock(&server), server.sock);
    EXPECT_EQ(server.local.sun_family, AF_UNIX);
    EXPECT_EQ(sun_path(server.local), path);
    EXPECT_TRUE(is_socket(path));

    ASSERT_GE(uds_sock_open_client(path.c_str(), &client), 0);
    EXPECT_NE(client.sock, server.sock);
    EXPECT_EQ(client.peer.sun_family, AF_UNIX);
    EXPECT_EQ(sun_path(client.peer), path);
    std::string name = sun_path(client.local);
    std::string prefix = "/var/run/uds_client-" + std::to_string(getpid()) + "-";
    ASSERT_EQ(name.rfind(prefix, 0), 0u) << name;
    int n = std::stoi(name.substr(prefix.size()));
    EXPECT_GE(n, 0);
    EXPECT_LE(n, 0xFFFF);
    EXPECT_TRUE(is_socket(name));

    // The server sees the client's name and can answer to it.
    ASSERT_EQ(send(client.sock, "ping", 4, 0), 4);
    char buf[16];
    sockaddr_un from{};
    socklen_t len = sizeof from;
    ASSERT_EQ(recvfrom(server.sock, buf, sizeof buf, 0, (sockaddr *)&from, &len), 4);
    EXPECT_EQ(sun_path(from), name);
    ASSERT_EQ(sendto(server.sock, "pong", 4, 0, (sockaddr *)&from, len), 4);
    ASSERT_EQ(recv(client.sock, buf, sizeof buf, 0), 4);
    EXPECT_EQ(std::string(buf, 4), "pong");

    // Closing removes each socket's own name and keeps the descriptor value.
    int client_fd = client.sock;
    uds_sock_close(&client);
    EXPECT_EQ(client.sock, client_fd);
    EXPECT_FALSE(exists(name));
    EXPECT_TRUE(exists(path));
    uds_sock_close(&server);
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(fcntl(client_fd, F_GETFD), -1);
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

TEST_F(UdsTest, ClientInForkedChild) {
    if (!can_bind_clients()) GTEST_SKIP() << "/var/run is not writable";
    std::string path = dir_ + "/server.sock";
    uds_sock server;
    ASSERT_GE(uds_sock_open_server(path.c_str(), &server), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        uds_sock client;
        int ok = uds_sock_open_client(path.c_str(), &client) >= 0;
        ok = ok && send(client.sock, "hello", 5, 0) == 5;
        char buf[8];
        ok = ok && recv(client.sock, buf, sizeof buf, 0) == 2 && memcmp(buf, "ok", 2) == 0;
        uds_sock_close(&client);
        _exit(ok ? 0 : 1);
    }
    char buf[16];
    sockaddr_un from{};
    socklen_t len = sizeof from;
    ASSERT_EQ(recvfrom(server.sock, buf, sizeof buf, 0, (sockaddr *)&from, &len), 5);
    EXPECT_EQ(sun_path(from).rfind("/var/run/uds_client-" + std::to_string(pid) + "-", 0), 0u);
    EXPECT_EQ(sendto(server.sock, "ok", 2, 0, (sockaddr *)&from, len), 2);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_FALSE(exists(sun_path(from)));
    uds_sock_close(&server);
}

TEST_F(UdsTest, StaleServerFileIsReplaced) {
    std::string path = dir_ + "/stale.sock";
    trel_test::write_file(path, "left over");
    uds_sock server;
    ASSERT_GE(uds_sock_open_server(path.c_str(), &server), 0);
    EXPECT_TRUE(is_socket(path));
    // A second server on the same name takes it over as well.
    uds_sock second;
    ASSERT_GE(uds_sock_open_server(path.c_str(), &second), 0);
    EXPECT_NE(second.sock, server.sock);
    close(server.sock);
    uds_sock_close(&second);
    EXPECT_FALSE(exists(path));
}

TEST_F(UdsTest, FailuresCloseTheSocketAndRemoveTheName) {
    LogCapture log;
    int fds = trel_test::open_fd_count();
    uds_sock rec;

    EXPECT_EQ(uds_socket_create("/x", nullptr, 1), -1);
    EXPECT_TRUE(log.contains("[error] uds.uds_socket_create(): invalid parameter")) << log.text();
    rec.sock = 42;
    EXPECT_EQ(uds_sock_open_server(nullptr, &rec), -1);
    EXPECT_EQ(rec.sock, -1);

    // Bind into a directory that does not exist.
    log.clear();
    std::string missing = dir_ + "/absent/server.sock";
    EXPECT_EQ(uds_sock_open_server(missing.c_str(), &rec), -1);
    EXPECT_EQ(rec.sock, -1);
    EXPECT_TRUE(log.contains("uds.uds_socket_create(): bind error, path:" + missing + ", errno:2/" +
                             strerror(ENOENT)))
        << log.text();

    if (can_bind_clients()) {
        // No server behind the name: nothing there, then a dead socket file.
        auto before = client_files();
        log.clear();
        std::string path = dir_ + "/server.sock";
        EXPECT_EQ(uds_sock_open_client(path.c_str(), &rec), -1);
        EXPECT_EQ(rec.sock, -1);
        EXPECT_TRUE(log.contains("[error] uds.uds_socket_create(): connect error, path:" + path +
                                 ", errno:2/" + strerror(ENOENT)))
            << log.text();
        uds_sock server;
        ASSERT_GE(uds_sock_open_server(path.c_str(), &server), 0);
        close(server.sock);
        log.clear();
        EXPECT_EQ(uds_sock_open_client(path.c_str(), &rec), -1);
        EXPECT_TRUE(
            log.contains("connect error, path:" + path + ", errno:111/" + strerror(ECONNREFUSED)))
            << log.text();
        EXPECT_EQ(client_files(), before);
        unlink(path.c_str());
    }

    // Nothing to do for null or never-opened records.
    EXPECT_EQ(uds_get_sock(nullptr), -1);
    uds_sock_close(nullptr);
    uds_sock blank;
    memset(&blank, 0, sizeof blank);
    blank.sock = -1;
    uds_sock_close(&blank);
    EXPECT_EQ(trel_test::open_fd_count(), fds);

    // Silent at level 0.
    log.clear();
    uint32_t level = libtrel_log_level;
    libtrel_log_level = 0;
    EXPECT_EQ(uds_sock_open_server(missing.c_str(), &rec), -1);
    libtrel_log_level = level;
    EXPECT_EQ(log.text(), "");
}

TEST_F(UdsTest, LongPathIsCutTo107Characters) {
    std::string path = dir_ + "/";
    path += std::string(200 - path.size(), 'p');
    ASSERT_EQ(path.size(), 200u);
    std::string cut = path.substr(0, 107);
    uds_sock server;
    ASSERT_GE(uds_sock_open_server(path.c_str(), &server), 0);
    EXPECT_EQ(sun_path(server.local), cut);
    EXPECT_TRUE(is_socket(cut));
    sockaddr_un bound{};
    socklen_t len = sizeof bound;
    ASSERT_EQ(getsockname(server.sock, (sockaddr *)&bound, &len), 0);
    EXPECT_EQ(sun_path(bound), cut);

    if (can_bind_clients()) {
        // A client given the long name reaches the server at the cut name.
        uds_sock client;
        ASSERT_GE(uds_sock_open_client(path.c_str(), &client), 0);
        EXPECT_EQ(sun_path(client.peer), cut);
        uds_sock_close(&client);
    }
    uds_sock_close(&server);
    EXPECT_FALSE(exists(cut));
}

}  // namespace
