#include "tools/camera_assignment.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "state/vocabulary.h"
#include "tools/camera_words.h"
#include "tools/tool_error.h"

namespace kestrelbridge {
namespace {

using Assignments = std::vector<std::string>;

TEST(CameraAssignment, EveryWordOfEveryFieldIsTakenAndReportedBack) {
  for (const auto& fields : {kStatusPushFields, kSettingsPushFields, kBatteryPushFields}) {
    for (const PushField& field : fields) {
      const std::string name(field.name);
      if (field.setting == nullptr) {
        const Assignments number = {name + (name.starts_with("shutter") ? "=1/100" : "=1")};
        const Assignments hundreds = {name + "=100"};
        EXPECT_NO_THROW(StartModel(name == "wb_temp" ? hundreds : number)) << name;
        continue;
      }
      for (const SettingWord& word : field.setting->words) {
        const Assignments assignments = {name + "=" + std::string(word.reported)};
        EXPECT_EQ(test::WordOf(StartModel(assignments), name), word.reported) << name;
      }
    }
  }
  for (const std::string_view word : kShutterWords) {
    const Assignments assignments = {"shutter_set=" + std::string(word)};
    EXPECT_EQ(test::WordOf(StartModel(assignments), "shutter_set"), word);
  }
}

TEST(CameraAssignment, NumbersAndShortNamesShowInTelemetry) {
  struct Row {
    Assignments assignments;
    const char* key;
    const char* word;
  };
  const Row rows[] = {
      {{}, "camera_detected", "1"},
      {{}, "format", "1920x1080@30"},
      {{"camera_model=DJI Osmo Action"}, "camera_model", "DJI Osmo Action"},
      {{"model=DJI Pocket Osmo"}, "camera_model", "DJI Pocket Osmo"},
      {{"mode=photo"}, "camera_mode", "photo"},
      {{"mode=photo", "camera_mode=video"}, "camera_mode", "video"},
      {{"sd_free_mb=59640"}, "sd", "59.6G"},
      {{"sd=12.3G"}, "sd", "12.3G"},
      {{"sd=0"}, "sd", ""},
      {{"shots_left=2147483647"}, "shots_left", "2147483647"},
      {{"rec_time=65535"}, "rec_time", "18:12:15"},
      {{"rec_time_left=01:02:05"}, "rec_time_left", "01:02:05"},
      {{"rec_time_left=360000"}, "rec_time_left", "100:00:00"},
      {{"battery_level=57"}, "battery_level", "57"},
      {{"battery=0"}, "battery_level", "0"},
      {{"charging=1"}, "battery_charging", "1"},
      {{"fps=60"}, "framerate", "60"},
      {{"color=black white"}, "color_mode", "black white"},
      {{"aspect=4:3"}, "ratio", "4:3"},
      {{"aperture=2"}, "aperture", "2"},
      {{"aperture=5.6"}, "aperture", "5.6"},
      {{"wb=custom", "wb_temp=4300"}, "wb_temp", "4300"},
      // In use and asked for: each follows the other, in any order.
      {{"iso=400"}, "iso_set", "400"},
      {{"iso=640"}, "iso_set", "auto"},
      {{"iso_set=800"}, "iso", "800"},
      {{"iso_set=auto"}, "iso", "100"},
      {{"iso_set=auto", "iso=200"}, "iso_set", "auto"},
      {{"iso=200", "iso_set=auto"}, "iso", "200"},
      {{"iso=65535"}, "iso", "65535"},
      {{"shutter=1/500"}, "shutter_set", "1/500"},
      {{"shutter_set=2.5\""}, "shutter", "2.5\""},
      {{"shutter_set=1/240", "shutter=1/500"}, "shutter_set", "1/240"},
      {{"image_mode=manual"}, "ae", "0"},
      {{"image_mode=manual", "ae=1"}, "ae", "1"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(test::WordOf(StartModel(row.assignments), row.key), row.word)
        << testing::PrintToString(row.assignments) << " " << row.key;
  }
}

TEST(CameraAssignment, WhatDoesNotExistIsNamedAndWhatDoesIsListed) {
  struct Row {
    const char* assignment;
    const char* named;
    const char* listed;
  };
  const Row rows[] = {
      {"", "\"\"", "NAME=WORD"},
      {"iso_set", "\"iso_set\"", "NAME=WORD"},
      {"=400", "\"\"", "camera_model, camera_mode"},
      {"voltage=3", "\"voltage\"", "antiflicker, shutter_set"},
      {"ISO=400", "\"ISO\"", "sd_free_mb"},
      {"iso_set=450", "\"450\" is nothing that iso_set", "auto, 100, 200"},
      {"iso_set=", "\"\" is nothing that iso_set", "6400"},
      {"mode=Photo", "\"Photo\" is nothing that mode", "photo, video"},
      {"resolution=1920x1080@30", "\"1920x1080@30\"", "1280x720, 1920x1080"},
      {"shutter=1/7", "\"1/7\"", "1/5, 1/6.25, 1/8"},
      {"battery_level=101", "\"101\"", "0 to 100"},
      {"battery_level=-1", "\"-1\"", "0 to 100"},
      {"battery_level=57%", "\"57%\"", "0 to 100"},
      {"ae=2", "\"2\"", "0 or 1"},
      {"iso=65536", "\"65536\"", "0 to 65535"},
      {"iso=1e3", "\"1e3\"", "0 to 65535"},
      {"sd=4294967296", "\"4294967296\"", "59.6G"},
      {"sd=G", "\"G\"", "59.6G"},
      {"sd=1.2.3G", "\"1.2.3G\"", "59.6G"},
      {"shots_left=99999999999999999999", "\"99999999999999999999\"", "0 to 2147483647"},
      {"rec_time=18:12:16", "\"18:12:16\"", "01:02:05"},
      {"rec_time=0:0:0:1", "\"0:0:0:1\"", "01:02:05"},
      {"rec_time=1:", "\"1:\"", "01:02:05"},
      {"wb_temp=5650", "\"5650\"", "0 to 25500"},
      {"wb_temp=25600", "\"25600\"", "0 to 25500"},
      {"aperture=nan", "\"nan\"", "0 to 655.35"},
      {"aperture=.", "\".\"", "0 to 655.35"},
      {"aperture=655.36", "\"655.36\"", "0 to 655.35"},
  };
  for (const Row& row : rows) {
    const Assignments assignments = {"iso_set=400", row.assignment};
    try {
      StartModel(assignments);
      ADD_FAILURE() << row.assignment << " was taken";
    } catch (const ToolError& error) {
      EXPECT_NE(std::string(error.what()).find(row.named), std::string::npos) << error.what();
      EXPECT_NE(std::string(error.what()).find(row.listed), std::string::npos) << error.what();
    }
    EXPECT_NE(AssignmentValidator()(assignments[1]), "") << "as an option";
  }
}

}  // namespace
}  // namespace kestrelbridge
