// What a user sees: on stdout the listings, and when the tool cannot work, one clear line on
// stderr and the documented exit status; never a crash, the access token, a terminal escape or a
// storage made for nothing. And the demo end to end. Then `serve` speaks the HTTP that the offline
// service relies on: strong entity tags, byte ranges with If-Range, conditional requests, the
// lease in Cache-Control, and a query (with the access token) that changes nothing and is never
// logged.

#include <httplib.h>
#include <signal.h>

#include <tuple>

#include "tool_test_support.hpp"

namespace terrane::tool::test {
namespace {

std::string replaceAll(std::string text, const std::map<std::string, std::string>& names) {
    // No replacement holds a name.
    for (const auto& [name, replacement] : names) {
        for (std::size_t at; (at = text.find(name)) != std::string::npos;) {
            text.replace(at, name.size(), replacement);
        }
    }
    return text;
}

// The words of `text`, split at spaces.
std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

using ToolCommandLine = ToolTest;

TEST_F(ToolCommandLine, EveryCommandGetsItsStatusAndItsWordsAndServeItsHttp) {
    const std::string token = "secret-token-4711";
    const std::string dir = scratch_.string();
    environment_ = {"TERRANE_ACCESS_TOKEN=" + token, "HOME=", "XDG_DATA_HOME="};
    writeFile(scratch_ / "plain-file", "x");
    writeFile(scratch_ / "blank", "\n  \n");
    writeFile(scratch_ / "token", token + "\n");
    writeSource();
    publish();
    serve({"--port", "0", "--max-age", "120"});
    // The catalogue has nothing for "nobody", and garbage for "garbage".
    writeFile(www() / "offline-data" / "v1" / "garbage" / "regions", "<html>");
    // A catalogue server that refuses every access token.
    httplib::Server refusing;
    refusing.Get(".*", [](const httplib::Request&, httplib::Response& response) {
        response.status = 401;
        response.set_content(R"({"message":"Invalid access token"})", "application/json");
    });
    const int lockedPort = refusing.bind_to_any_port("127.0.0.1");
    std::thread serving([&] { refusing.listen_after_bind(); });
    // Nothing listens on a privileged port of loopback.
    const std::string url = "http://127.0.0.1:1";
    const auto globals = [&](const std::string& storage, const std::string& at,
                             const std::string& user = "alice") {
        return "--storage " + dir + "/" + storage + " --base-url " + at + " --user " + user;
    };
    // {fresh} is a storage that nothing may create: listings, status and refused token files
    // need none.
    const std::map<std::string, std::string> names{
        {"{s}", globals("s", url)},
        {"{fresh}", globals("fresh", url)},
        {"{file}", globals("plain-file/s", url)},
        {"{locked}", globals("s", "http://127.0.0.1:" + std::to_string(lockedPort))},
        {"{served}", globals("s", baseUrl_)},
        {"{nobody}", globals("s", baseUrl_, "nobody")},
        {"{garbage}", globals("s", baseUrl_, "garbage")},
        {"{publish}", "publish " + dir + "/source " + dir + "/out --user alice"},
        {"{url}", url},
        {"{catalogue}", "the catalogue at " + baseUrl_},
        {"{dir}", dir},
    };
    const auto region = [](const std::string& members) {
        return "{\"regions\": {\"r\": {\"revision\": 1, " + members + "}}}";
    };
    const struct {
        std::string command;
        int status;
        // On stdout for a success, else in the one line on stderr (empty for CLI11's own errors).
        std::string says;
        // What `publish` finds as regions.json, when not empty.
        std::string regions = "";
    } rows[] = {
        {"", 2, ""},
        {"--help", 0, "Downloads and manages offline map and navigation packs."},
        {"demo --rate 0", 0, "The sample server answered"},
        {"{s} download x --domain roads", 2, ""},
        {"--storage {dir}/s regions", 2, "regions needs --user NAME"},
        {"publish {dir}/source {dir}/www", 2, "publish needs --user NAME"},
        {"publish {dir}/source {dir}/www --user ../eve", 2, "--user must be a name of letters"},
        {"publish {dir}/source {dir}/token --user alice", 5, "cannot create '{dir}/token/"},
        {"--base-url ftp://x --user a regions", 2, "--base-url must be an http://"},
        {"{file} download harbour", 5, "directory '{dir}/plain-file/s' is not usable"},
        {"{fresh} --token-file {dir}/none regions", 5, "'{dir}/none': No such file or directory"},
        {"{fresh} --token-file {dir}/blank regions", 5, "'{dir}/blank' holds no token"},
        {"{fresh} --token-file {dir}/token regions", 4, "cannot reach the catalogue at {url}: "},
        {"{locked} regions", 3, "refused access for user 'alice': Invalid access token"},
        {"{served} regions", 0,
         "harbour  revision 2  \"Harbour City\"  updated 2024-03-01 10:00:00 UTC\n    Test "
         "region\n    maps         256.0 KiB  data version 2024.03\n"},
        {"{served} regions", 0, "plain  revision 5  \"plain\""},
        {"{served} --json regions", 0, R"("last_updated": "2024-03-01T10:00:00.000Z")"},
        {"{served} --json regions", 0, R"("url": "terrane://offline-data/alice/packs/harbour/2/)"},
        // Server text is shown, never obeyed by the terminal.
        {"{served} regions", 0, "Plain\\x1b[2J\\r\\nforged line"},
        {"{served} download plain --domain navigation", 1, "revision 5 has no navigation pack"},
        {"{served} download nowhere", 1, "no region 'nowhere' (it offers: harbour, plain)"},
        {"{served} download plain --revision 9", 1, "revision 5 of region 'plain', not revision 9"},
        {"{nobody} regions", 1, "{catalogue} has nothing for user 'nobody': "},
        {"{garbage} download harbour", 1, "{catalogue} gave an unusable answer: "},
        {"{fresh} status", 0, "No packs stored in {dir}/fresh"},
        {"--user a status", 5, "no storage directory: neither XDG_DATA_HOME nor HOME is set"},
        {"{s} delete harbour --revision 3", 1, "no stored pack of region 'harbour' revision 3"},
        {"{s} update harbour", 1, "nothing to update: no stored pack of region 'harbour'"},
        {"serve {dir} --port 0 --access-log {dir}", 5, "cannot open access log '{dir}'"},
        {"{publish}", 5, "must be an object with a \"regions\" object inside", "[]"},
        {"{publish}", 5, "'r': \"revision\" must be a whole number", R"({"regions": {"r": {}}})"},
        {"{publish}", 5, "nope.bin' does not exist", region(R"("packs": {"maps": "nope.bin"})")},
        {"{publish}", 5, "unknown pack domain 'roads'", region(R"("packs": {"roads": "x"})")},
        {"{publish}", 5, "region ids may use", R"({"regions": {"../r": {"revision": 1}}})"},
        {"{publish}", 5, "must be an RFC 3339 time", region(R"("last_updated": "yesterday")")},
    };
    for (const auto& row : rows) {
        if (!row.regions.empty()) {
            writeFile(source() / "regions.json", row.regions);
        }
        const Child result = run(words(replaceAll(row.command, names)));
        const std::string says = replaceAll(row.says, names);
        const std::string out = result->out();
        const std::string err = result->err();
        SCOPED_TRACE(row.command + "\n" + out + err);
        EXPECT_EQ(result->status(), row.status);
        if (row.status == 0) {
            EXPECT_TRUE(out.contains(says));
        } else if (!says.empty()) {
            EXPECT_TRUE(err.starts_with("terrane-offline: ") && err.contains(says));
            EXPECT_EQ(err.find('\n'), err.size() - 1) << "one line";
        }
        EXPECT_FALSE((out + err).contains(token) || (out + err).contains('\x1b'));
    }
    refusing.stop();
    serving.join();
    // What `publish` serves: a Feature outline as its geometry (and the files as they are, below).
    const auto published = parseJson(readFile(www() / "offline-data/v1/alice/regions"));
    EXPECT_STREQ(published["harbour"]["configuration"]["geography"]["type"].GetString(), "Point");
    EXPECT_TRUE(published["plain"]["configuration"]["geography"].IsNull());
    EXPECT_FALSE(fs::exists(scratch_ / "fresh"));
    EXPECT_FALSE(fs::exists(scratch_ / "out" / "offline-data" / "v1" / "alice" / "regions"));

    httplib::Client client(baseUrl_);
    client.set_url_encode(false);
    const std::string pack = "/offline-data/v1/alice/packs/harbour/2/maps.pack";
    const std::string data = readFile(source() / "harbour-maps.bin");
    const std::string tag = client.Head(pack)->get_header_value("ETag");
    const httplib::Headers matching{{"Range", "bytes=1-2"}, {"If-Range", tag}};
    EXPECT_TRUE(tag.starts_with("\"") && tag.ends_with("\"")) << tag;
    // Every answer that is not an error carries the lease and the tag.
    const std::string notFound = R"({"message":"Not found"})";
    const struct {
        std::string target;
        httplib::Headers headers;
        int status;
        std::string range;
        std::string body;
        std::string method = "GET";
    } requests[] = {
        {pack, matching, 206, "bytes 1-2/262144", data.substr(1, 2)},
        {pack, {{"Range", "bytes=-5"}}, 206, "bytes 262139-262143/262144", data.substr(262139)},
        {pack, {{"Range", "bytes=10-"}, {"If-Range", "\"another\""}}, 200, "", data},
        {pack, {{"Range", "bytes=262144-"}}, 416, "bytes */262144", ""},
        {pack, {{"If-None-Match", tag}}, 304, "", "", "HEAD"},
        {pack + "?access_token=very-secret-token&x=1", {}, 200, "", data},
        {"/offline-data/v1/alice/packs", {}, 404, "", notFound},
        {"/offline-data/%2e%2e/%2e%2e/%2e%2e/%2e%2e/%2e%2e/etc/passwd", {}, 404, "", notFound},
        {pack, {}, 405, "", R"({"message":"Method not allowed"})", "POST"},
    };
    for (const auto& row : requests) {
        SCOPED_TRACE(row.method + " " + row.target);
        httplib::Request request;
        request.method = row.method;
        request.path = row.target;
        request.headers = row.headers;
        const auto answer = client.send(request);
        ASSERT_TRUE(answer);
        EXPECT_EQ(std::tuple(answer->status, answer->get_header_value("Content-Range")),
                  std::tuple(row.status, row.range));
        EXPECT_TRUE(answer->body == row.body) << "not the body expected";
        if (answer->status < 400) {
            EXPECT_EQ(std::tuple(answer->get_header_value("Cache-Control"),
                                 answer->get_header_value("ETag")),
                      std::tuple("max-age=120", tag));
        }
    }
    writeFile(servedPack(2, "maps"), patternBytes(data.size(), 10));
    EXPECT_EQ(client.Head(pack, {{"If-None-Match", tag}})->status, 200) << "same size, new tag";

    server_->signal(SIGINT);
    EXPECT_EQ(server_->wait(10s), 0) << server_->err();
    EXPECT_TRUE(server_->out().contains("Stopped after"));
    const std::string logged = readFile(accessLog());
    EXPECT_FALSE(logged.contains("very-secret-token") || logged.contains(token));
    EXPECT_FALSE(logged.contains('?')) << "the query is never logged";
}

}  // namespace
}  // namespace terrane::tool::test
