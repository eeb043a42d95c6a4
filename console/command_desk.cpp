#include "console/command_desk.h"

#include <cjson/cJSON.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <memory>
#include <utility>

#include "tools/common/foreign_text.h"
#include "tools/common/tool_error.h"

namespace kestrelbridge::console {
namespace {

using tools::CommandForm;
using tools::CommandWord;
using tools::EffectKind;
using tools::JsonString;

// How the controls are called where the command's own name would not do.
struct Label {
  std::string_view cmd;
  std::string_view label;
};
constexpr Label kLabels[] = {
    {"camera", "Camera mode"},
    {"video_mode", "Exposure"},
    {"iso", "ISO"},
    {"ev", "EV"},
    {"wb", "White balance"},
    {"color", "Colour"},
    {"video_resolution", "Video"},
    {"video_aspect", "Aspect"},
    {"shotmode", "Photo format"},
    {"antiflicker", "Anti-flicker"},
    {"video_std", "Standard"},
    {"wifi", "Wi-Fi band"},
    {"resetcamera", "Reset camera"},
    {"format", "Format card"},
};

// What destroys something is asked again: the page sends the word that was typed.
struct Question {
  std::string_view cmd;
  std::string_view word;  // empty: the command takes none
  std::string_view answer;
};
constexpr Question kQuestions[] = {
    {"format", "sd", "format"},
    {"resetcamera", "", "reset"},
    {"power", "shutdown", "shutdown"},
};

std::string_view AnswerFor(std::string_view cmd, std::string_view word) {
  const auto row = std::ranges::find_if(
      kQuestions, [&](const Question& asked) { return asked.cmd == cmd && asked.word == word; });
  return row == std::end(kQuestions) ? std::string_view() : row->answer;
}

std::string LabelOf(std::string_view cmd) {
  const auto row = std::ranges::find(kLabels, cmd, &Label::cmd);
  std::string label(row == std::end(kLabels) ? cmd : row->label);
  if (label[0] >= 'a' && label[0] <= 'z') {
    label[0] = static_cast<char>(label[0] - 'a' + 'A');
  }
  return label;
}

void AppendMember(std::string& json, const char* name, std::string_view value) {
  json += json.ends_with('{') ? "\"" : ",\"";
  json.append(name).append("\":").append(JsonString(value));
}

std::string WordJson(const CommandForm& form, const CommandWord& word) {
  std::string json = "{";
  AppendMember(json, "word", word.word);
  AppendMember(json, "shows", word.effect == EffectKind::kItems ? word.reported : "");
  if (tools::TakesTemperature(form, word.word)) {
    json += R"(,"value":{"min":)" + std::to_string(tools::kLowestKelvin) + R"(,"max":)" +
            std::to_string(tools::kHighestKelvin) + R"(,"step":100,"unit":"K","item":"wb_temp"})";
  }
  if (const auto answer = AnswerFor(form.cmd, word.word); !answer.empty()) {
    AppendMember(json, "ask", answer);
  }
  return json + "}";
}

std::string FormJson(const CommandForm& form) {
  std::string json = "{";
  AppendMember(json, "cmd", form.cmd);
  AppendMember(json, "label", LabelOf(form.cmd));
  AppendMember(json, "kind", form.words == nullptr ? "action" : "choice");
  AppendMember(json, "item", form.shown_by);
  if (const auto answer = AnswerFor(form.cmd, ""); !answer.empty()) {
    AppendMember(json, "ask", answer);
  }
  if (form.words != nullptr) {
    json += ",\"words\":[";
    for (const CommandWord& word : form.words()) {
      json += (json.ends_with('[') ? "" : ",") + WordJson(form, word);
    }
    json += "]";
  }
  return json + "}";
}

struct JsonDeleter {
  void operator()(cJSON* tree) const { cJSON_Delete(tree); }
};
using JsonTree = std::unique_ptr<cJSON, JsonDeleter>;

// Empty when there is no such member, or it is no string.
std::string TextMember(const JsonTree& object, const char* name) {
  const char* const text =
      cJSON_GetStringValue(cJSON_GetObjectItemCaseSensitive(object.get(), name));
  return text == nullptr ? "" : text;
}

std::optional<int> IdOf(const JsonTree& object) {
  const cJSON* const id = cJSON_GetObjectItemCaseSensitive(object.get(), "id");
  if (cJSON_IsNumber(id) == 0 || !(id->valuedouble >= 0) || id->valuedouble > INT_MAX ||
      id->valuedouble != static_cast<double>(static_cast<int>(id->valuedouble))) {
    return std::nullopt;
  }
  return static_cast<int>(id->valuedouble);
}

// As the tables want them: where the parameter is always the same, the page leaves it out.
std::vector<std::string> WordsOf(const JsonTree& object) {
  std::vector<std::string> words = {TextMember(object, "cmd")};
  const auto form = std::ranges::find(tools::CommandForms(), words[0], &CommandForm::cmd);
  const std::string param = TextMember(object, "param");
  if (form != tools::CommandForms().end() && !form->param.empty() && param != form->param) {
    words.emplace_back(form->param);
  }
  for (const std::string& word : {param, TextMember(object, "value")}) {
    if (!word.empty()) {
      words.push_back(word);
    }
  }
  return words;
}

// The tables' own texts are for a command line: their first line is enough.
std::string FirstLine(std::string_view text) {
  return std::string(text.substr(0, text.find('\n')));
}

PageCommand CommandOf(const JsonTree& object, int id) {
  PageCommand command{.id = id, .request = {}};
  const std::vector<std::string> words = WordsOf(object);
  try {
    command.request = tools::RequestOfWords(words);
  } catch (const tools::ToolError& error) {
    command.refusal = FirstLine(error.what());
    return command;
  }
  const std::string_view answer = AnswerFor(words[0], words.size() < 2 ? "" : words.back());
  if (!answer.empty() && TextMember(object, "confirm") != answer) {
    command.refusal = "not confirmed: type \"" + std::string(answer) + "\"";
  }
  return command;
}

}  // namespace

std::string CommandsJson() {
  std::string json = "[";
  for (const CommandForm& form : tools::CommandForms()) {
    json += (json.ends_with('[') ? "" : ",") + FormJson(form);
  }
  return json + "]";
}

std::optional<PageCommand> ParsePageCommand(std::string_view text) {
  // An escaped NUL would end a string early: no word has one.
  if (text.find("\\u0000") != text.npos) {
    return std::nullopt;
  }
  const JsonTree object(cJSON_ParseWithLength(text.data(), text.size()));
  const auto id = IdOf(object);
  if (!id || TextMember(object, "type") != "command") {
    return std::nullopt;
  }
  return CommandOf(object, *id);
}

std::string CommandStateJson(int id, std::string_view state, std::string_view why) {
  std::string json = R"({"type":"command","id":)" + std::to_string(id);
  AppendMember(json, "state", state);
  AppendMember(json, "why", why);
  return json + "}";
}

std::uint64_t CommandDesk::Open(std::uint64_t viewer, const PageCommand& command,
                                const tools::TelemetryRecord& before, SteadyTime now) {
  const tools::CommandEffect& effect = command.request.effect;
  const bool is_end =
      effect.kind == EffectKind::kRecordingStands || effect.kind == EffectKind::kHistogramOff;
  // One that nothing shows stays as well: sending it may fail.
  pending_.push_back({.ticket = ++last_ticket_,
                      .viewer = viewer,
                      .id = command.id,
                      .effect = effect,
                      .watch = tools::EffectWatch(effect, before),
                      .deadline = now + (is_end ? kPatienceForAnEnd : kPatience)});
  return last_ticket_;
}

std::string CommandDesk::FirstState(const PageCommand& command) {
  const bool is_shown = command.request.effect.kind != EffectKind::kNone;
  return CommandStateJson(command.id, is_shown ? "pending" : "sent",
                          tools::EffectText(command.request.effect));
}

std::vector<CommandDesk::Outcome> CommandDesk::Take(const tools::TelemetryRecord& record) {
  std::vector<Outcome> outcomes;
  std::erase_if(pending_, [&](Pending& pending) {
    const bool is_seen = pending.effect.kind != EffectKind::kNone && pending.watch.Take(record);
    if (is_seen) {
      outcomes.push_back({pending.viewer,
                          CommandStateJson(pending.id, "done", tools::EffectText(pending.effect))});
    }
    return is_seen;
  });
  return outcomes;
}

std::vector<CommandDesk::Outcome> CommandDesk::Fail(std::uint64_t ticket, std::string_view why) {
  std::vector<Outcome> outcomes;
  std::erase_if(pending_, [&](const Pending& pending) {
    if (pending.ticket == ticket) {
      outcomes.push_back({pending.viewer, CommandStateJson(pending.id, "failed", why)});
    }
    return pending.ticket == ticket;
  });
  return outcomes;
}

std::vector<CommandDesk::Outcome> CommandDesk::Expire(SteadyTime now) {
  std::vector<Outcome> outcomes;
  std::erase_if(pending_, [&](const Pending& pending) {
    const bool is_over = now >= pending.deadline;
    if (is_over && pending.effect.kind != EffectKind::kNone) {
      const std::string why = "the camera has not shown it; its telemetry says " +
                              tools::PrintableText(pending.watch.Latest());
      outcomes.push_back({pending.viewer, CommandStateJson(pending.id, "failed", why)});
    }
    return is_over;
  });
  return outcomes;
}

void CommandDesk::Forget(std::uint64_t viewer) {
  std::erase_if(pending_, [viewer](const Pending& pending) { return pending.viewer == viewer; });
}

}  // namespace kestrelbridge::console
