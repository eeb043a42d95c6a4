// The clip in at the camera's end, and out of pipelines as users build them: real daemon, real
// camera tool, GStreamer's own elements.

#include <algorithm>
#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "end_to_end/daemon_stage.h"
#include "gstreamer/nal_units.h"
#include "gstreamer/ring_stage.h"
#include "tools/camera/annexb.h"

namespace kestrelbridge::test {
namespace {

// A pipeline of gst-launch's words, and how it ended.
class Pipeline {
 public:
  explicit Pipeline(const std::string& words) {
    GError* error = nullptr;
    pipeline_ = gst_parse_launch(words.c_str(), &error);
    if (error != nullptr) {
      ADD_FAILURE() << error->message;
      g_clear_error(&error);
    }
  }
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;
  ~Pipeline() {
    if (pipeline_ != nullptr) {
      gst_element_set_state(pipeline_, GST_STATE_NULL);
      gst_object_unref(pipeline_);
    }
  }

  void Play() { gst_element_set_state(pipeline_, GST_STATE_PLAYING); }

  // Empty when it ran to its end.
  std::string Run() {
    Play();
    GstBus* bus = gst_element_get_bus(pipeline_);
    GstMessage* message = gst_bus_timed_pop_filtered(
        bus, static_cast<GstClockTime>(Patience().count()) * GST_MSECOND,
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    gst_object_unref(bus);
    std::string problem = "neither an end nor an error";
    if (message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) {
      problem.clear();
    } else if (message != nullptr) {
      GError* error = nullptr;
      gst_message_parse_error(message, &error, nullptr);
      problem = error->message;
      g_clear_error(&error);
    }
    gst_clear_message(&message);
    return problem;
  }

  GstElement* pipeline() const { return pipeline_; }

  GstElement* Element(const char* name) {
    GstElement* element = gst_bin_get_by_name(GST_BIN(pipeline_), name);
    gst_object_unref(element);  // the pipeline's own reference keeps it
    return element;
  }

 private:
  GstElement* pipeline_ = nullptr;
};

class PipelineTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NO_FATAL_FAILURE(StartGstreamer());
    ForgetEarlierRuns();
    daemon_.emplace(DaemonCommandFor(kOtherCameraPort));
    ASSERT_TRUE(daemon_->WaitForLine("Init frame buffer for transcoding"));
    camera_.emplace(CameraTool(kTestPattern, 30, {"--loop"}));
  }

  TemporaryFolder folder_;
  std::optional<ChildProcess> daemon_;
  std::optional<ChildProcess> camera_;
};

// A unit's NAL units, each once: who takes a stream from the wire is free to choose the start
// codes, and to repeat parameter sets.
std::vector<Unit> NalUnitsOf(std::span<const std::uint8_t> unit) {
  std::vector<gstreamer::NalUnit> nals;
  gstreamer::SplitNalUnits(unit, gstreamer::Extent::kWhole, nals);
  std::vector<Unit> copies;
  for (const gstreamer::NalUnit nal : nals) {
    Unit copy(nal.begin(), nal.end());
    if (std::ranges::find(copies, copy) == copies.end()) {
      copies.push_back(std::move(copy));
    }
  }
  return copies;
}

// The file's access units, of which each must be the one that follows in the clip.
testing::AssertionResult IsStretchOfTheClip(const std::string& path, std::size_t count) {
  const std::string text = ReadFile(path);
  const Unit bytes(text.begin(), text.end());
  const auto units = tools::SplitAccessUnits(bytes);
  if (units.size() != count) {
    return testing::AssertionFailure() << units.size() << " units, not " << count;
  }
  const auto& clip = ClipUnits();
  const auto clip_unit = [&](std::size_t number) { return NalUnitsOf(clip[number % clip.size()]); };
  std::size_t first = 0;
  while (first < clip.size() && clip_unit(first) != NalUnitsOf(units[0])) {
    ++first;
  }
  for (std::size_t i = 0; i < units.size(); ++i) {
    if (clip_unit(first + i) != NalUnitsOf(units[i])) {
      return testing::AssertionFailure() << "unit " << i << " is not the clip's";
    }
  }
  return testing::AssertionSuccess();
}

TEST_F(PipelineTest, EveryAccessUnitGetsIntoAFileAndOverRtpByteForByte) {
  const std::string film = folder_.File("film.mkv");
  const std::string sent = folder_.File("sent.h264");
  const std::string stored = folder_.File("stored.h264");
  Pipeline pipeline(
      "kestrelbridgesrc num-buffers=150 ! tee name=t "
      "t. ! queue ! video/x-h264,stream-format=avc ! matroskamux ! filesink location=" +
      film +
      " kestrelbridgesrc num-buffers=150 ! rtph264pay ! rtph264depay ! "
      "video/x-h264,stream-format=byte-stream,alignment=au ! filesink location=" +
      sent);
  EXPECT_EQ(pipeline.Run(), "");
  EXPECT_TRUE(IsStretchOfTheClip(sent, 150));
  ChildProcess ffmpeg({"ffmpeg", "-v", "error", "-y", "-i", film, "-c", "copy", "-bsf:v",
                       "h264_mp4toannexb", "-f", "h264", stored});
  EXPECT_EQ(ffmpeg.WaitForExit(), ExitedWith(0)) << ffmpeg.Error();
  EXPECT_TRUE(IsStretchOfTheClip(stored, 150));
}

TEST_F(PipelineTest, ShownInTimeNoPictureIsDropped) {
  Pipeline pipeline(
      "kestrelbridgesrc num-buffers=150 ! fakesink name=window sync=true max-lateness=5000000 "
      "qos=true");
  EXPECT_EQ(pipeline.Run(), "");
  GstStructure* stats = nullptr;
  g_object_get(pipeline.Element("window"), "stats", &stats, nullptr);
  guint64 dropped = 1;
  guint64 rendered = 0;
  gst_structure_get_uint64(stats, "dropped", &dropped);
  gst_structure_get_uint64(stats, "rendered", &rendered);
  gst_structure_free(stats);
  EXPECT_EQ(rendered + dropped, 150U);
  EXPECT_LE(dropped, 5U) << "on a machine that is busy with other tests";
}

// Each unit is held for most of a second, and the source waits with it.
TEST_F(PipelineTest, ASinkThatWaitsDoesNotFallBehind) {
  Pipeline pipeline("kestrelbridgesrc num-buffers=150 ! fakesink sync=true");
  gst_pipeline_set_latency(GST_PIPELINE(pipeline.pipeline()), 800 * GST_MSECOND);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(pipeline.Run(), "");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10)) << "of 5 s";
}

TEST_F(PipelineTest, TheCameraIsListedWithItsPicture) {
  RingWatcher ring;
  ASSERT_FALSE(ring.Next().empty());
  GstDeviceMonitor* monitor = gst_device_monitor_new();
  gst_device_monitor_add_filter(monitor, "Source/Video", nullptr);
  ASSERT_TRUE(Eventually([&] {
    std::string found;
    GList* devices = gst_device_monitor_get_devices(monitor);
    for (GList* item = devices; item != nullptr; item = item->next) {
      gchar* name = gst_device_get_display_name(GST_DEVICE(item->data));
      GstCaps* caps = gst_device_get_caps(GST_DEVICE(item->data));
      gchar* text = gst_caps_to_string(caps);
      found += std::string(name) + ": " + text + "\n";
      g_free(text);
      gst_caps_unref(caps);
      g_free(name);
    }
    g_list_free_full(devices, gst_object_unref);
    return found.find("Camera of kestrelbridge: video/x-h264") != found.npos &&
           found.find("width=(int)1280, height=(int)720") != found.npos;
  }));
  gst_object_unref(monitor);
}

}  // namespace
}  // namespace kestrelbridge::test
