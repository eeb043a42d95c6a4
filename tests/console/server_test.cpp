// The console from outside: who is let in, what is answered, what is told of the box.

#include <sys/stat.h>

#include <cctype>
#include <deque>
#include <fstream>
#include <iterator>
#include <sstream>

#include "base/run_paths.h"
#include "console/console_stage.h"
#include "support/temporary_folder.h"

namespace kestrelbridge::test {
namespace {

constexpr char kPassword[] = "correct horse";
constexpr char kJsonType[] = "Content-Type: application/json\r\n";
constexpr char kIso[] = R"({"type":"command","id":1,"cmd":"iso","param":"400"})";

std::string PasswordFile(const TemporaryFolder& folder, mode_t mode = 0600) {
  const std::string path = folder.File("password");
  std::ofstream(path) << kPassword << "\n";
  chmod(path.c_str(), mode);
  return path;
}

HttpRequest SignIn(const std::string& password) {
  return {
      .line = "POST /sign-in", .headers = kJsonType, .body = R"({"password":")" + password + "\"}"};
}

std::string CookieOf(const HttpReply& reply) {
  const std::string cookie = reply.Header("set-cookie");
  return cookie.substr(0, cookie.find(';'));
}

TEST(Console, AnswersItsTableOfPathsAndNothingElse) {
  const ConsoleStage stage;
  const struct {
    const char* line;
    const char* headers;
    int status;
  } rows[] = {
      {"GET /session", "", 200},
      {"GET /healthz", "", 200},
      {"GET /metrics", "", 200},
      {"GET /snapshot.h264", "", 503},
      {"POST /sign-out", "", 204},
      {"POST /sign-in", kJsonType, 400},
      {"POST /sign-in", "", 415},
      {"GET /", "Accept-Encoding: gzip, br\r\n", 200},
      {"GET /", "", 406},
      {"GET /style.css", "Accept-Encoding: gzip\r\n", 200},
      {"GET /sign-in", "", 405},
      {"POST /session", "", 405},
      {"POST /", "", 404},
      {"GET /index.html", "", 404},
      {"GET /page", "", 404},
      {"GET /../../etc/passwd", "", 404},
      {"GET /%2e%2e/%2e%2e/etc/passwd", "", 404},
      {"GET /video", "", 404},
      {"POST /sign-out", "Origin: http://evil.example\r\n", 403},
  };
  for (const auto& row : rows) {
    const HttpReply reply = Fetch(stage.port, {.line = row.line, .headers = row.headers});
    EXPECT_EQ(reply.status, row.status) << row.line << reply.head;
    EXPECT_EQ(reply.Header("x-content-type-options"), "nosniff") << row.line;
    EXPECT_NE(reply.Header("content-security-policy").find("script-src 'self';"),
              std::string::npos);
  }
  const HttpReply page = Fetch(stage.port, {.headers = "Accept-Encoding: gzip\r\n"});
  EXPECT_EQ(page.Header("content-encoding"), "gzip");
  EXPECT_EQ(Fetch(stage.port, {.headers = "If-None-Match: " + page.Header("etag") + "\r\n"}).status,
            304);
  for (const char* const method : {"PUT /", "DELETE /session", "OPTIONS /", "HEAD /"}) {
    EXPECT_NE(Fetch(stage.port, {.line = method}).status, 200) << method;
  }
}

TEST(Console, AnswersToItsOwnNamesAndPagesAlone) {
  const ConsoleStage stage({"--allow-host", "kestrel.example"});
  for (const char* const host : {"localhost", "kestrel.example:1234", "10.1.2.3"}) {
    EXPECT_EQ(Fetch(stage.port, {.line = "GET /session", .host = host}).status, 200) << host;
  }
  for (const char* const path : {"GET /session", "GET /", "GET /metrics", "POST /sign-in"}) {
    EXPECT_EQ(Fetch(stage.port, {.line = path, .host = "evil.example"}).status, 403) << path;
  }
  const struct {
    const char* path;
    WebSocketClient::Options options;
    int status;
  } rows[] = {
      {"/state", {}, 101},
      {"/video", {.host = "kestrel.example:80", .origin = "http://kestrel.example"}, 101},
      {"/state", {.host = "evil.example"}, 403},
      {"/state", {.origin = "http://evil.example"}, 403},
      {"/video", {.origin = "http://127.0.0.1:1"}, 403},
      {"/video", {.origin = "null"}, 403},
      {"/state", {.origin = "-"}, 403},
      {"/session", {}, 404},
      {"/", {}, 404},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(WebSocketClient(stage.port, row.path, row.options).status(), row.status)
        << row.path << " " << row.options.host << " " << row.options.origin;
  }
  EXPECT_NE(Fetch(stage.port, {.line = "GET /metrics"})
                .body.find("kestrelbridge_console_requests_refused_total 11\n"),
            std::string::npos);
}

TEST(Console, CountsWhatTheDocumentsTell) {
  const ConsoleStage stage;
  std::istringstream text(Fetch(stage.port, {.line = "GET /metrics"}).body);
  std::ifstream file(KESTRELBRIDGE_SOURCE_DIR "/docs/metrics.md");
  const std::string document{std::istreambuf_iterator<char>(file), {}};
  int names = 0;
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with("kestrelbridge_console_")) {
      ++names;
      EXPECT_NE(document.find("| `" + line.substr(0, line.find(' ')) + "` |"), std::string::npos)
          << line;
    }
  }
  EXPECT_EQ(names, CountLines(document, "| `kestrelbridge_console_"));
}

TEST(Console, LetsNobodyInWithoutThePassword) {
  const TemporaryFolder folder;
  const ConsoleStage stage({"--password-file", PasswordFile(folder)});
  EXPECT_NE(Fetch(stage.port, {.line = "GET /session"})
                .body.find(R"("signed_in":false,"password_needed":true)"),
            std::string::npos);
  for (const char* const path : {"GET /metrics", "GET /snapshot.h264"}) {
    EXPECT_EQ(Fetch(stage.port, {.line = path}).status, 401) << path;
  }
  for (const char* const path : {"/video", "/state"}) {
    const WebSocketClient::Options made_up = {.cookie = "kestrel_session=0"};
    WebSocketClient stranger(stage.port, path, made_up);
    stranger.Send(kIso);
    EXPECT_EQ(stranger.Receive().CloseCode(), 4401) << "and nothing before";
  }
  const HttpReply signed_in = Fetch(stage.port, SignIn(kPassword));
  ASSERT_EQ(signed_in.status, 204);
  WebSocketClient viewer(stage.port, "/state", {.cookie = CookieOf(signed_in)});
  EXPECT_NE(viewer.ReceiveText("hello"), "");
  const std::string cookie = "Cookie: " + CookieOf(signed_in) + "\r\n";
  EXPECT_EQ(Fetch(stage.port, {.line = "GET /metrics", .headers = cookie}).status, 200);
  EXPECT_EQ(Fetch(stage.port, {.line = "POST /sign-out", .headers = cookie}).status, 204);
  EXPECT_EQ(viewer.ReceiveClose(), 4401) << "his sockets end with the session";
  EXPECT_EQ(Fetch(stage.port, {.line = "GET /metrics", .headers = cookie}).status, 401);
  int wrong = 0;
  HttpReply reply;
  while ((reply = Fetch(stage.port, SignIn("wrong"))).status == 403 && wrong < 10) {
    ++wrong;
  }
  EXPECT_EQ(wrong, 3);
  EXPECT_EQ(reply.status, 429);
  EXPECT_NE(reply.Header("retry-after"), "");
  EXPECT_EQ(Fetch(stage.port, SignIn(kPassword)).status, 429)
      << "the right one has to wait as well";
}

TEST(Console, StartsForStrangersWithAPasswordOrForViewingOnly) {
  const TemporaryFolder folder;
  const std::string readable = PasswordFile(folder, 0644);
  const std::string short_one = folder.File("short");
  std::ofstream(short_one) << "1234567\n";
  chmod(short_one.c_str(), 0600);
  const struct {
    std::vector<std::string> options;
    const char* text;
  } rows[] = {
      {{"--listen", "0.0.0.0:0"}, "add --password-file or --view-only"},
      {{"--listen", "192.168.2.1:0"}, "add --password-file or --view-only"},
      {{"--password-file", readable}, "everybody may read it"},
      {{"--password-file", short_one}, "has 7 characters"},
      {{"--password-file", "/nowhere"}, "No such file"},
      {{"--certificate", short_one, "--key", short_one, "--listen", "127.0.0.1:0"},
       "a certificate"},
      {{"--certificate", short_one}, "--key"},
      {{"--listen", "10.99.99.99:0", "--view-only"}, "cannot listen on 10.99.99.99:0"},
  };
  for (const auto& row : rows) {
    std::vector<std::string> command = {ProgramPath("kestrelconsole")};
    command.insert(command.end(), row.options.begin(), row.options.end());
    ChildProcess console(command);
    const auto end = console.WaitForExit();
    ASSERT_TRUE(end) << row.text;
    EXPECT_NE(end->exit_code, 0);
    EXPECT_NE((console.Error() + console.Output()).find(row.text), std::string::npos)
        << console.Error() << console.Output();
  }
  ChildProcess view_only({ProgramPath("kestrelconsole"), "--listen", "0.0.0.0:0", "--view-only"});
  EXPECT_TRUE(view_only.WaitForLine("http://0.0.0.0:"));
  view_only.Kill(SIGTERM);
  EXPECT_EQ(view_only.WaitForExit(), ExitedWith(0));
}

TEST(Console, TellsTheStateAndSendsCommandsUntilTheyAreSeen) {
  FakeShare share;
  const ConsoleStage stage;
  share.SendText("camera_detected=1,camera_mode=video,battery_level=9,sd=1G,iso_set=100,");
  WebSocketClient viewer(stage.port, "/state");
  const std::string hello = viewer.Receive().payload;
  EXPECT_NE(hello.find(R"({"type":"hello","version":")"), std::string::npos);
  EXPECT_NE(hello.find(R"({"name":"shutter","label":"Shutter","unit":"s"})"), std::string::npos);
  EXPECT_EQ(CountLines(hello, ""), 0) << "one line";
  EXPECT_NE(viewer.ReceiveText(R"("iso_set":"100")"), "");
  EXPECT_NE(viewer.ReceiveText(R"("type":"link")"), "");
  WebSocketClient second(stage.port, "/state");
  EXPECT_NE(second.ReceiveText(R"("shot":false)"), "") << "no shots in video mode";
  EXPECT_NE(second.ReceiveText(R"("id":"battery_low","text":"the camera's battery is at 9 %")"),
            "");
  ASSERT_TRUE(viewer.Send(std::string_view(kIso).substr(0, 10), kTextFrame, false));
  ASSERT_TRUE(viewer.Send(std::string_view(kIso).substr(10), 0));
  EXPECT_EQ(share.ReceiveCommand(), R"(!{"cmd":"iso","param":"400"})");
  EXPECT_NE(viewer.ReceiveText(R"("id":1,"state":"pending")"), "");
  share.SendText("camera_detected=1,camera_mode=video,battery_level=90,sd=1G,iso_set=400,");
  EXPECT_NE(viewer.ReceiveText(R"("id":1,"state":"done")"), "");
  ASSERT_TRUE(viewer.Send(R"({"type":"command","id":2,"cmd":"format","param":"sd"})"));
  EXPECT_NE(viewer.ReceiveText(R"("id":2,"state":"refused")"), "") << "it was not confirmed";
  ASSERT_TRUE(viewer.Send(R"({"type":"command","id":3,"cmd":"iso","param":"800"})"));
  EXPECT_EQ(share.ReceiveCommand(), R"(!{"cmd":"iso","param":"800"})");
  EXPECT_NE(viewer.ReceiveText(R"("id":3,"state":"failed")"), "") << "the camera never showed it";
  EXPECT_NE(second.ReceiveText(R"("id":"no_telemetry")"), "");
}

TEST(Console, TellsWhenThereIsNoShareAndTakesNothingForViewingOnly) {
  const ConsoleStage stage;
  WebSocketClient viewer(stage.port, "/state");
  ASSERT_TRUE(viewer.Send(kIso));
  EXPECT_NE(viewer.ReceiveText("kestrelshare does not run"), "");
  const ConsoleStage view_only({"--view-only"});
  WebSocketClient guest(view_only.port, "/state");
  EXPECT_NE(guest.ReceiveText(R"("view_only":true)"), "");
  EXPECT_EQ(guest.ReceiveText(R"("type":"allowed")").find("true"), std::string::npos);
  ASSERT_TRUE(guest.Send(kIso));
  EXPECT_NE(guest.ReceiveText(R"("id":1,"state":"refused")"), "");
}

// After each of them the console serves as before.
TEST(Console, OutlivesHostileClients) {
  const ConsoleStage stage;
  const auto still_serves = [&] {
    return Fetch(stage.port, {.line = "GET /healthz"}).body == "ok\n";
  };
  for (const std::string& bytes :
       {std::string("\0\0\0\0", 4), std::string("GET / HTTP/1.1\r\n\r\n"),
        std::string("GET\r\n\r\n"), "GET /" + std::string(20'000, 'a') + " HTTP/1.1\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: " + std::string(20'000, 'a') + "\r\n\r\n",
        "GET / HTTP/1.1\r\nHost: localhost\r\nCookie: " + std::string(20'000, 'a') + "\r\n\r\n",
        std::string("GET /session HTTP/1.1\r\nHost: localhost\r\nContent-Length: 5\r\n\r\nhello"),
        "POST /sign-in HTTP/1.1\r\nHost: localhost\r\nContent-Type: application/json\r\n"
        "Content-Length: 99999999\r\n\r\n" +
            std::string(20'000, 'x'),
        std::string("GET / HTTP/1.1\r\nHost: localhost\r\nConnection: Upgrade, HTTP2-Settings\r\n"
                    "Upgrade: h2c\r\nHTTP2-Settings: AAMAAABkAAQAAP__\r\n\r\n"),
        std::string("CONNECT box:80 HTTP/1.1\r\nHost: localhost\r\n\r\n"),
        std::string("POST /sign-in HTTP/1.1\r\nHost: localhost\r\n\r\n"),
        std::string("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n")}) {
    TcpClient client(stage.port);
    client.Send(bytes);
    EXPECT_TRUE(client.SeesTheEnd()) << bytes.substr(0, 40);
    EXPECT_TRUE(still_serves()) << bytes.substr(0, 40);
  }
  const struct {
    const char* path;
    std::string payload;
    int opcode;
    int close_code;
  } rows[] = {
      {"/state", "no json", kTextFrame, 1008},
      {"/state", R"({"type":"command"})", kTextFrame, 1008},
      {"/state", kIso, kBinaryFrame, 1008},
      {"/state", std::string(5'000, ' '), kTextFrame, 1009},
      {"/state", std::string(60'000, '['), kTextFrame, 1009},
      {"/video", "x", kTextFrame, 1008},
  };
  for (const auto& row : rows) {
    WebSocketClient viewer(stage.port, row.path);
    viewer.Send(row.payload, row.opcode);
    EXPECT_EQ(viewer.ReceiveClose(), row.close_code) << row.path << row.payload.substr(0, 40);
  }
  WebSocketClient flooder(stage.port, "/state");
  for (int i = 0; i < 30; ++i) {
    flooder.Send(kIso);
  }
  EXPECT_NE(flooder.ReceiveText("too many commands"), "");
  EXPECT_TRUE(still_serves());
}

TEST(Console, LeavesRoomForOthersWhateverOneDoes) {
  const ConsoleStage stage;
  std::deque<TcpClient> idle;
  for (int i = 0; i < 200; ++i) {
    idle.emplace_back(stage.port).Send("GET / HTTP/1.1\r\n");
  }
  // One address has half of the places: who comes too late is closed, who was there stays.
  EXPECT_TRUE(idle.back().SeesTheEnd());
  idle.front().Send("Host: localhost\r\n\r\n");
  EXPECT_NE(ReadReply(idle.front()).status, 0);
  // Nobody keeps a place by being silent.
  EXPECT_TRUE(idle[50].SeesTheEnd());
}

}  // namespace
}  // namespace kestrelbridge::test
