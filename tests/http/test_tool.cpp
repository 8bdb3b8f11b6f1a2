// The trel tool's http commands against a loopback server.
#include <stdio.h>
#include <sys/wait.h>

#include <string>

#include "http_test.h"
#include "trel_test.h"

namespace {

#ifdef TREL_TOOL_PATH
// The tool's http commands against a loopback server: standard output, then
// "exit <status>".
TEST(Tool, HttpCommands) {
    trel_test::HttpServer server;
    server.add_response({201, "0123456789"});
    server.add_response({404, "gone"});
    std::string dir = trel_test::make_temp_dir();
    trel_test::write_file(dir + "/p.json", "{ \"a\": [1, 2] }\n");
    const std::pair<std::string, std::string> rows[] = {
        {"http post " + server.url("/in") + " --json " + dir + "/p.json --max-size 4",
         "HTTP 201\n0123\nexit 0"},
        {"--json http get " + server.url("/x"), "\"status\": 404"},
    };
    for (const auto &[args, want] : rows) {
        SCOPED_TRACE(args);
        FILE *p = popen((TREL_TOOL_PATH " " + args + " 2>/dev/null").c_str(), "r");
        std::string out;
        for (int c; (c = fgetc(p)) != EOF;) out += (char)c;
        int rc = pclose(p);
        out += "exit " + std::to_string(WIFEXITED(rc) ? WEXITSTATUS(rc) : -1);
        EXPECT_NE(out.find(want), std::string::npos) << out;
    }
    trel_test::remove_tree(dir);
    auto reqs = server.requests();
    ASSERT_EQ(reqs.size(), 2u);
    EXPECT_EQ(reqs[0].line + reqs[0].body, "POST /in HTTP/1.1{\"a\":[1,2]}");
    EXPECT_EQ(reqs[1].line, "GET /x HTTP/1.1");
}
#endif

}  // namespace
