// The trel tool's http commands against a loopback server.
#include <stdio.h>
#include <sys/wait.h>

#include <string>

#include "http_test.h"
#include "trel_test.h"

namespace {

#ifdef TREL_TOOL_PATH
// Runs the tool with a shell argument string; standard output, then
// "exit <status>".
std::string run_tool(const std::string &args) {
    FILE *p = popen((TREL_TOOL_PATH " " + args + " 2>/dev/null").c_str(), "r");
    std::string out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
    int rc = pclose(p);
    return out + "exit " + std::to_string(WIFEXITED(rc) ? WEXITSTATUS(rc) : -1);
}

TEST(Tool, HttpCommands) {
    trel_test::HttpServer server;
    server.add_response({201, "0123456789"});
    server.add_response({404, "gone"});
    std::string dir = trel_test::make_temp_dir();
    trel_test::write_file(dir + "/p.json", "{ \"a\": [1, 2] }\n");
    EXPECT_EQ(
        run_tool("http post " + server.url("/in") + " --json " + dir + "/p.json --max-size 4"),
        "HTTP 201\n0123\nexit 0");
    trel_test::remove_tree(dir);
    std::string out = run_tool("--json http get " + server.url("/x"));
    EXPECT_NE(out.find("\"status\": 404"), std::string::npos) << out;
    EXPECT_NE(out.find("\"body\": \"gone\""), std::string::npos) << out;

    auto reqs = server.requests();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[0].line, "POST /in HTTP/1.1");
    EXPECT_EQ(reqs[0].body, "{\"a\":[1,2]}");
    EXPECT_EQ(reqs[1].line, "GET /x HTTP/1.1");
}
#endif

}  // namespace
