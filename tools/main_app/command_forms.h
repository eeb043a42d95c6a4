// The main application's commands, as words on a command line: what there is, what is sent, and how
// telemetry shows the effect. Pure.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "tools/main_app/command_effect.h"

namespace kestrelbridge::tools {

// One word that a command takes, and how telemetry shows it then.
struct CommandWord {
  std::string_view word;
  EffectKind effect = EffectKind::kNone;
  std::string_view reported = {};  // kItems: the value of the command's item
};

struct CommandForm {
  std::string_view cmd;
  std::string_view param;                 // "camera mode WORD"; empty: WORD itself is the param
  std::vector<CommandWord> (*words)();    // null: the command takes no word
  std::string_view shown_by;              // of telemetry; empty: nothing shows the effect
  EffectKind effect = EffectKind::kNone;  // of a command without words
};

std::span<const CommandForm> CommandForms();

// The one word that takes a word more: a temperature, whole kelvin, behind "wb custom".
bool TakesTemperature(const CommandForm& form, std::string_view word);
inline constexpr int kLowestKelvin = 2000;
inline constexpr int kHighestKelvin = 10'000;

struct CommandRequest {
  std::string json;
  CommandEffect effect;
};

// Throws ToolError when there is no such command or word; the text lists those that exist.
CommandRequest RequestOfWords(std::span<const std::string> words);

// The same without a question: up to three words are "cmd", "param" and "value".
std::string JsonOfWords(std::span<const std::string> words);

// All commands with all their words, a few lines each.
std::string CommandFormsText();

}  // namespace kestrelbridge::tools
