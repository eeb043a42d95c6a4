#include "console/news.h"

#include <algorithm>
#include <vector>

#include "tools/common/foreign_text.h"

namespace kestrelbridge::console {
namespace {

constexpr lws_usec_t kTickUs = 1'000'000;
constexpr lws_usec_t kCommandTickUs = 100'000;
// Who is not a viewer and does nothing is closed, whatever the library thinks of it.
constexpr std::chrono::seconds kLongestIdle{20};

void TellAll(Server& server) {
  for (const std::string& text : server.view.TakeMessages()) {
    const SharedMessage message = MessageOf(text);
    ForEach(server, ConnectionKind::kState, [&](Connection& viewer) { Enqueue(viewer, message); });
  }
}

void TellOutcomes(Server& server, const std::vector<CommandDesk::Outcome>& outcomes) {
  for (const CommandDesk::Outcome& outcome : outcomes) {
    ForEach(server, ConnectionKind::kState, [&](Connection& viewer) {
      if (viewer.number == outcome.viewer) {
        Enqueue(viewer, MessageOf(outcome.message));
      }
    });
  }
}

void TakeFeedNews(Server& server) {
  const auto news = server.feed->Take();
  if (!news) {
    return;
  }
  const Now now = WholeNow();
  server.stopping = server.stopping || news->stop;
  server.view.TakeFeed(*news, now);
  for (const tools::TelemetryRecord& record : news->records) {
    server.view.TakeRecord(record, now);
    TellOutcomes(server, server.desk.Take(record));
  }
  for (const FailedCommand& failed : news->failed) {
    TellOutcomes(server, server.desk.Fail(failed.ticket, failed.why));
  }
  server.view.Judge(server.history, now);
}

void TakeUnits(Server& server) {
  RingNews news = server.ring->Take();
  const Now now = WholeNow();
  server.view.TakeRing(news, now);
  if (news.units.empty()) {
    return;
  }
  for (Unit& unit : news.units) {
    server.history.Add(std::move(unit));
  }
  if (!server.view.facts().units_come || !server.view.facts().has_keyframe) {
    server.view.Judge(server.history, now);
  }
  ForEach(server, ConnectionKind::kVideo,
          [](Connection& viewer) { lws_callback_on_writable(viewer.wsi); });
}

void CloseIdle(Server& server, std::chrono::steady_clock::time_point now) {
  for (const auto& [wsi, connection] : server.connections) {
    if (!connection->is_established && now - connection->last_event > kLongestIdle) {
      lws_set_timeout(wsi, PENDING_TIMEOUT_USER_OK, LWS_TO_KILL_ASYNC);
    }
  }
}

void OnTick(lws_sorted_usec_list_t* entry) {
  Server& server = *reinterpret_cast<Timer*>(entry)->server;
  const Now now = WholeNow();
  CloseIdle(server, now.steady);
  server.view.Judge(server.history, now);
  server.view.Tick(now);
  TellReasons(server);
  TellAll(server);
  lws_sul_schedule(server.context, 0, &server.tick.entry, OnTick, kTickUs);
}

void OnCommandTick(lws_sorted_usec_list_t* entry) {
  Server& server = *reinterpret_cast<Timer*>(entry)->server;
  TellOutcomes(server, server.desk.Expire(SteadyNow()));
  if (!server.desk.IsIdle()) {
    lws_sul_schedule(server.context, 0, &server.command_tick.entry, OnCommandTick, kCommandTickUs);
  }
}

}  // namespace

void TakeNews(Server& server) {
  if (!server.ring || !server.feed) {
    return;
  }
  TakeUnits(server);
  TakeFeedNews(server);
  TellAll(server);
}

// Why a viewer sees nothing, whenever that changes.
void TellReasons(Server& server) {
  const auto problem = WhyNoPicture(server.view.facts());
  const std::string reason = problem ? std::string(problem->id) : "";
  ForEach(server, ConnectionKind::kVideo, [&](Connection& viewer) {
    // He has begun already: a keyframe is not what he waits for.
    const std::string his = viewer.place.next && reason == "no_keyframe" ? "" : reason;
    if (viewer.told_reason != his) {
      viewer.told_reason = his;
      Enqueue(viewer, MessageOf(his.empty() ? R"({"type":"streaming"})"
                                            : R"({"type":"waiting","reason":)" +
                                                  tools::JsonString(problem->id) + R"(,"text":)" +
                                                  tools::JsonString(problem->text) + "}"));
    }
  });
}

void StartTicking(Server& server) {
  server.tick.server = server.command_tick.server = &server;
  lws_sul_schedule(server.context, 0, &server.tick.entry, OnTick, 1);
}

void StopTicking(Server& server) {
  for (Timer* const timer : {&server.tick, &server.command_tick}) {
    lws_sul_schedule(server.context, 0, &timer->entry, nullptr, LWS_SET_TIMER_USEC_CANCEL);
  }
}

void WatchCommands(Server& server) {
  lws_sul_schedule(server.context, 0, &server.command_tick.entry, OnCommandTick, kCommandTickUs);
}

}  // namespace kestrelbridge::console
