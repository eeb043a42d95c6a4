// The page's commands against the daemon's tables, and their proof by telemetry.

#include "console/command_desk.h"

#include <gtest/gtest.h>

#include <string>

#include "support/camera_datagrams.h"

namespace kestrelbridge::test {
namespace {

using namespace console;  // NOLINT(google-build-using-namespace): the subject
using std::chrono::milliseconds;
using std::chrono::seconds;

std::string Json(const std::string& members) {
  return R"({"type":"command","id":7,)" + members + "}";
}

tools::TelemetryRecord Text(const std::string& items) {
  const std::string text = "\x07" + items;
  return tools::ParseTelemetryRecord(
      {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

TEST(CommandDesk, SendsWhatTheTablesHaveAndNothingElse) {
  const struct {
    const char* members;
    const char* sent;  // "": refused
  } rows[] = {
      {R"("cmd":"iso","param":"400")", R"({"cmd":"iso","param":"400"})"},
      {R"("cmd":"shot")", R"({"cmd":"shot"})"},
      {R"("cmd":"camera","param":"photo")", R"({"cmd":"camera","param":"mode","value":"photo"})"},
      {R"("cmd":"camera","param":"mode","value":"photo")",
       R"({"cmd":"camera","param":"mode","value":"photo"})"},
      {R"("cmd":"wb","param":"custom","value":"5600")",
       R"({"cmd":"wb","param":"custom","value":"5600"})"},
      {R"("cmd":"format","param":"sd","confirm":"format")", R"({"cmd":"format","param":"sd"})"},
      {R"("cmd":"resetcamera","confirm":"reset")", R"({"cmd":"resetcamera"})"},
      {R"("cmd":"power","param":"sleep")", R"({"cmd":"power","param":"sleep"})"},
      {R"("cmd":"iso","param":"401")", ""},
      {R"("cmd":"iso")", ""},
      {R"("cmd":"iso","param":400)", ""},
      {R"("cmd":"shot","param":"now")", ""},
      {R"("cmd":"wb","param":"custom")", ""},
      {R"("cmd":"wb","param":"custom","value":"99999999999")", ""},
      {R"("cmd":"wb","param":"sunny","value":"5600")", ""},
      {R"("cmd":"format","param":"sd")", ""},
      {R"("cmd":"format","param":"sd","confirm":"reset")", ""},
      {R"("cmd":"resetcamera","confirm":true)", ""},
      {R"("cmd":"power","param":"shutdown","confirm":"Shutdown")", ""},
      {R"("cmd":"exec","param":"rm")", ""},
      {R"("cmd":"")", ""},
      {R"("param":"400")", ""},
  };
  for (const auto& row : rows) {
    const auto command = ParsePageCommand(Json(row.members));
    ASSERT_TRUE(command) << row.members;
    EXPECT_EQ(command->id, 7);
    EXPECT_EQ(command->refusal.empty(), row.sent[0] != '\0') << row.members << command->refusal;
    if (command->refusal.empty()) {
      EXPECT_EQ(command->request.json, row.sent);
    }
  }
}

TEST(CommandDesk, TakesNothingElseForACommand) {
  for (const char* const text :
       {"", "{}", "[]", "null", "\"command\"", R"({"type":"command","cmd":"shot"})",
        R"({"type":"command","id":-1,"cmd":"shot"})", R"({"type":"command","id":1.5,"cmd":"shot"})",
        R"({"type":"command","id":1e99,"cmd":"shot"})",
        R"({"type":"command","id":"1","cmd":"shot"})", R"({"type":"x","id":1,"cmd":"shot"})",
        R"({"type":"command","id":1,"cmd":"shot\u0000x"})",
        R"({"type":"command","id":1,"cmd":"shot")", "\xFF\xFE"}) {
    EXPECT_FALSE(ParsePageCommand(text)) << text;
  }
  EXPECT_FALSE(ParsePageCommand(std::string(100'000, '[')));
}

TEST(CommandDesk, TellsEveryWordOfTheTables) {
  const std::string json = CommandsJson();
  for (const tools::CommandForm& form : tools::CommandForms()) {
    EXPECT_NE(json.find(R"("cmd":")" + std::string(form.cmd) + "\""), json.npos) << form.cmd;
  }
  for (const char* const part :
       {R"({"word":"1/8000","shows":"1/8000"})", R"({"word":"start","shows":""})",
        R"({"word":"shutdown","shows":"","ask":"shutdown"})", R"({"word":"8\"","shows":"8\""})",
        R"("kind":"action","item":"","ask":"reset")",
        R"({"word":"custom","shows":"custom","value":{"min":2000,"max":10000,)"}) {
    EXPECT_NE(json.find(part), json.npos) << part << "\n" << json;
  }
}

TEST(CommandDesk, WaitsForTheProofAndNotForever) {
  CommandDesk desk;
  const SteadyTime start{seconds{100}};
  const auto open = [&](const char* members, std::uint64_t viewer = 1) {
    return desk.Open(viewer, *ParsePageCommand(Json(members)), Text("rec_time=00:00:07,"), start);
  };
  open(R"("cmd":"iso","param":"400")");
  EXPECT_TRUE(desk.Take(Text("iso_set=200,")).empty());
  const auto done = desk.Take(Text("iso_set=400,"));
  ASSERT_EQ(done.size(), 1U);
  EXPECT_EQ(done[0].viewer, 1U);
  EXPECT_NE(done[0].message.find(R"("id":7,"state":"done")"), std::string::npos);

  open(R"("cmd":"iso","param":"800")");
  EXPECT_TRUE(desk.Take(Text("iso_set=200,")).empty());
  EXPECT_TRUE(desk.Expire(start + milliseconds{2'999}).empty());
  const auto failed = desk.Expire(start + CommandDesk::kPatience);
  ASSERT_EQ(failed.size(), 1U);
  EXPECT_NE(failed[0].message.find("iso_set=200"), std::string::npos) << failed[0].message;

  open(R"("cmd":"record","param":"stop")");
  EXPECT_TRUE(desk.Expire(start + CommandDesk::kPatience).empty()) << "that takes three records";
  EXPECT_TRUE(desk.Take(Text("rec_time=00:00:08,")).empty());
  EXPECT_TRUE(desk.Take(Text("rec_time=00:00:08,")).empty());
  EXPECT_EQ(desk.Take(Text("rec_time=00:00:08,")).size(), 1U);

  open(R"("cmd":"histogram","param":"0")");
  EXPECT_TRUE(desk.Expire(start + seconds{5}).empty()) << "histograms go on for three seconds";
  EXPECT_EQ(desk.Expire(start + CommandDesk::kPatienceForAnEnd).size(), 1U);

  const auto ticket = open(R"("cmd":"wifi","param":"5.8")");
  EXPECT_EQ(desk.Fail(ticket, "no share").size(), 1U);
  open(R"("cmd":"wifi","param":"5.8")");
  EXPECT_TRUE(desk.Expire(start + seconds{10}).empty()) << "nothing shows it, so nothing fails";
  open(R"("cmd":"iso","param":"100")", 2);
  desk.Forget(2);
  EXPECT_TRUE(desk.IsIdle());
}

}  // namespace
}  // namespace kestrelbridge::test
