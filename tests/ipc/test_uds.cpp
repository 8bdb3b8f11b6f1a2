// Unix-domain sockets: servers, clients, names and failure paths.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <vector>

#include "ipc_test.h"

using namespace ipc_test;

namespace {

bool is_socket(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
}

bool exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

// This process's client socket files under /var/run.
int client_files() {
    int n = 0;
    std::string prefix = "uds_client-" + std::to_string(getpid()) + "-";
    if (DIR *d = opendir("/var/run")) {
        while (dirent *e = readdir(d)) n += std::string(e->d_name).rfind(prefix, 0) == 0;
        closedir(d);
    }
    return n;
}

struct UdsTest : ::testing::Test {
    std::string dir = trel_test::make_temp_dir();
    ~UdsTest() override { trel_test::remove_tree(dir); }
};

TEST_F(UdsTest, ServerAndClientInOneProcess) {
    if (!can_bind_clients()) GTEST_SKIP() << "/var/run is not writable";
    int fds = trel_test::open_fd_count();
    std::string path = dir + "/server.sock";
    trel_test::write_file(path, "stale");
    uds_sock server, client;
    ASSERT_GE(uds_sock_open_server(path.c_str(), &server), 0);
    EXPECT_EQ(uds_get_sock(&server), server.sock);
    EXPECT_EQ(sun_path(server.local), path);
    EXPECT_TRUE(is_socket(path));

    ASSERT_GE(uds_sock_open_client(path.c_str(), &client), 0);
    EXPECT_EQ(client.peer.sun_family, AF_UNIX);
    EXPECT_EQ(sun_path(client.peer), path);
    std::string name = sun_path(client.local);
    std::string prefix = "/var/run/uds_client-" + std::to_string(getpid()) + "-";
    ASSERT_EQ(name.rfind(prefix, 0), 0u) << name;
    EXPECT_LE(std::stoi(name.substr(prefix.size())), 0xFFFF);
    EXPECT_TRUE(is_socket(name));

    // The server sees the client's name and answers to it.
    char buf[8];
    sockaddr_un from{};
    socklen_t len = sizeof from;
    ASSERT_EQ(send(client.sock, "ping", 4, 0), 4);
    ASSERT_EQ(recvfrom(server.sock, buf, sizeof buf, 0, (sockaddr *)&from, &len), 4);
    EXPECT_EQ(sun_path(from), name);
    ASSERT_EQ(sendto(server.sock, "pong", 4, 0, (sockaddr *)&from, len), 4);
    ASSERT_EQ(recv(client.sock, buf, sizeof buf, 0), 4);

    // Each close removes its own name and leaves the descriptor value alone.
    int client_fd = client.sock;
    uds_sock_close(&client);
    EXPECT_EQ(client.sock, client_fd);
    EXPECT_FALSE(exists(name));
    EXPECT_TRUE(exists(path));
    uds_sock_close(&server);
    EXPECT_FALSE(exists(path));
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

TEST_F(UdsTest, FailuresCloseTheSocketAndRemoveTheName) {
    trel_test::LogCapture log;
    int fds = trel_test::open_fd_count(), clients = client_files();
    uds_sock rec;
    EXPECT_EQ(uds_socket_create("/x", nullptr, 1), -1);
    EXPECT_TRUE(log.contains("[error] uds.uds_socket_create(): invalid parameter")) << log.text();
    rec.sock = 42;
    EXPECT_EQ(uds_sock_open_client(nullptr, &rec), -1);
    EXPECT_EQ(rec.sock, -1);

    std::string missing = dir + "/absent/server.sock";
    EXPECT_EQ(uds_sock_open_server(missing.c_str(), &rec), -1);
    EXPECT_TRUE(log.contains("[error] uds.uds_socket_create(): bind error, path:" + missing +
                             ", errno:2/" + strerror(ENOENT)))
        << log.text();

    if (can_bind_clients()) {
        std::string path = dir + "/server.sock";
        EXPECT_EQ(uds_sock_open_client(path.c_str(), &rec), -1);
        EXPECT_TRUE(log.contains("[error] uds.uds_socket_create(): connect error, path:" + path +
                                 ", errno:2/" + strerror(ENOENT)))
            << log.text();
        // A socket file nobody serves any more.
        uds_sock dead;
        ASSERT_GE(uds_sock_open_server(path.c_str(), &dead), 0);
        close(dead.sock);
        EXPECT_EQ(uds_sock_open_client(path.c_str(), &rec), -1);
        EXPECT_EQ(rec.sock, -1);
        EXPECT_TRUE(log.contains("connect error, path:" + path + ", errno:111/")) << log.text();
        EXPECT_EQ(client_files(), clients);
    }

    EXPECT_EQ(uds_get_sock(nullptr), -1);
    uds_sock_close(nullptr);
    uds_sock blank{};
    blank.sock = -1;
    uds_sock_close(&blank);
    EXPECT_EQ(trel_test::open_fd_count(), fds);
}

TEST_F(UdsTest, LongPathIsCutTo107Characters) {
    std::string path = dir + "/";
    path += std::string(200 - path.size(), 'p');
    std::string cut = path.substr(0, 107);
    uds_sock server;
    ASSERT_GE(uds_sock_open_server(path.c_str(), &server), 0);
    EXPECT_EQ(sun_path(server.local), cut);
    EXPECT_TRUE(is_socket(cut));
    if (can_bind_clients()) {
        uds_sock client;
        ASSERT_GE(uds_sock_open_client(path.c_str(), &client), 0);
        EXPECT_EQ(sun_path(client.peer), cut);
        uds_sock_close(&client);
    }
    uds_sock_close(&server);
    EXPECT_FALSE(exists(cut));
}

}  // namespace
