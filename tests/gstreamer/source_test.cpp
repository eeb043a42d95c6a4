// The element alone, on a test clock: caps, flags, time stamps, and whatever may become of the
// ring.

#include <gst/check/gstharness.h>
#include <gst/check/gsttestclock.h>
#include <sys/mman.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <initializer_list>
#include <memory>
#include <random>
#include <sstream>
#include <string>

#include "base/run_paths.h"
#include "gstreamer/ring_stage.h"
#include "kestrelbridge/frame_block.h"
#include "support/eventually.h"
#include "support/mapped_block.h"
#include "support/temporary_folder.h"
#include "video/frame_buffers.h"
#include "video/parameter_set_bits.h"

namespace kestrelbridge::test {
namespace {

using std::chrono::milliseconds;

constexpr GstClockTime kPeriod = 33'333'333;

struct Unref {
  void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
  void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
  void operator()(GstMessage* message) const { gst_message_unref(message); }
};
using BufferPtr = std::unique_ptr<GstBuffer, Unref>;
using CapsPtr = std::unique_ptr<GstCaps, Unref>;
using MessagePtr = std::unique_ptr<GstMessage, Unref>;

Unit BytesOf(const BufferPtr& buffer) {
  Unit bytes(gst_buffer_get_size(buffer.get()));
  gst_buffer_extract(buffer.get(), 0, bytes.data(), bytes.size());
  return bytes;
}

bool Has(const BufferPtr& buffer, guint flag) { return GST_BUFFER_FLAG_IS_SET(buffer.get(), flag); }

// The element in a harness, with its bus.
class Source {
 public:
  explicit Source(const char* sink_caps = "video/x-h264, stream-format=byte-stream",
                  const std::function<void(GstElement*)>& set_up = {})
      : harness_(gst_harness_new("kestrelbridgesrc")), bus_(gst_bus_new()) {
    gst_element_set_bus(harness_->element, bus_);
    gst_harness_set_sink_caps_str(harness_, sink_caps);
    gst_harness_set_time(harness_, now_);
    if (set_up) {
      set_up(element());
    }
  }
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;
  ~Source() {
    gst_element_set_bus(harness_->element, nullptr);
    gst_harness_teardown(harness_);
    gst_object_unref(bus_);
  }

  // Plays, and waits until it follows the ring, if there is one.
  void Play() {
    gst_harness_play(harness_);
    ASSERT_TRUE(Eventually([] {
      return !std::filesystem::exists(std::string("/dev/shm/") + kFrameBlockName) || IsWaiting();
    }));
  }

  BufferPtr Pull() { return BufferPtr(gst_harness_pull(harness_)); }
  // Nothing comes, for a moment.
  bool IsQuiet() {
    g_usleep(50'000);
    return gst_harness_try_pull(harness_) == nullptr;
  }
  CapsPtr Caps() { return CapsPtr(gst_pad_get_current_caps(harness_->sinkpad)); }
  std::string CapsText() {
    const CapsPtr caps = Caps();
    gchar* text = gst_caps_to_string(caps.get());
    std::string copy = text;
    g_free(text);
    return copy;
  }

  void Advance(GstClockTime by) {
    now_ += by;
    gst_harness_set_time(harness_, now_);
  }
  GstClockTime now() const { return now_; }

  // The next message of the element of that name, "error" for an error.
  MessagePtr Message(GstMessageType type) {
    return MessagePtr(gst_bus_timed_pop_filtered(
        bus_, static_cast<GstClockTime>(Patience().count()) * GST_MSECOND, type));
  }
  std::string Reason() {
    const MessagePtr message = Message(GST_MESSAGE_ELEMENT);
    const GstStructure* structure = message ? gst_message_get_structure(message.get()) : nullptr;
    if (structure == nullptr) {
      return "nothing";
    }
    const char* reason = gst_structure_get_string(structure, "reason");
    return reason != nullptr ? reason : gst_structure_get_name(structure);
  }

  guint64 Stat(const char* name) {
    GstStructure* stats = nullptr;
    g_object_get(element(), "stats", &stats, nullptr);
    guint64 value = 0;
    gst_structure_get_uint64(stats, name, &value);
    gst_structure_free(stats);
    return value;
  }

  // One of our threads sleeps on the word at which the ring's readers wait, in a mapping for
  // reading alone, as the daemon's writer in this process has none.
  static bool IsWaiting() {
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
      if (line.ends_with(kFrameBlockName) && line.find(" r--s ") != line.npos) {
        const auto word = std::stoull(line, nullptr, 16) + kWaitWordOffset;
        std::ostringstream argument;
        argument << " 0x" << std::hex << word << " ";
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
          if (ReadFile(task.path() / "syscall").find(argument.str()) != std::string::npos) {
            return true;
          }
        }
      }
    }
    return false;
  }

  GstElement* element() const { return harness_->element; }
  GstHarness* harness() const { return harness_; }

 private:
  GstHarness* harness_;
  GstBus* bus_;
  GstClockTime now_ = GST_SECOND;
};

class SourceTest : public RingStage {};

constexpr char kClipCaps[] =
    "width=(int)1280, height=(int)720, pixel-aspect-ratio=(fraction)1/1, framerate=(fraction)30/1, "
    "level=(string)3.1, profile=(string)high";

TEST_F(SourceTest, BeginsWithAKeyframeAndCompleteCaps) {
  StartDaemon();
  Source source;
  source.Play();
  next_ = 25;
  Publish(10);
  for (int number = 30; number < 35; ++number) {
    const BufferPtr buffer = source.Pull();
    ASSERT_EQ(BytesOf(buffer), ClipUnits()[static_cast<std::size_t>(number)]);
    EXPECT_EQ(Has(buffer, GST_BUFFER_FLAG_DELTA_UNIT), number != 30);
    EXPECT_EQ(Has(buffer, GST_BUFFER_FLAG_HEADER), number == 30);
  }
  EXPECT_EQ(source.CapsText(),
            std::string("video/x-h264, stream-format=(string)byte-stream, alignment=(string)au, "
                        "parsed=(boolean)true, ") +
                kClipCaps);
  EXPECT_EQ(source.Stat("skipped"), 5U);
  EXPECT_EQ(source.Stat("units"), 10U);
}

Unit WithoutStartCodes(const Unit& unit) {
  Unit bare;
  for (std::size_t at = 0; at < unit.size();) {
    const auto begins = [&](std::initializer_list<std::uint8_t> code) {
      return unit.size() - at >= code.size() &&
             std::equal(code.begin(), code.end(), unit.begin() + static_cast<long>(at));
    };
    if (begins({0, 0, 0, 1})) {
      at += 4;
    } else if (begins({0, 0, 1})) {
      at += 3;
    } else {
      bare.push_back(unit[at++]);
    }
  }
  return bare;
}

TEST_F(SourceTest, GivesFilesTheirFormAndChangesWhenThePeerDoes) {
  StartDaemon();
  Source source("video/x-h264, stream-format=avc, alignment=au");
  source.Play();
  Publish(2);
  const Unit buffer = BytesOf(source.Pull());
  // The same NAL units: behind their lengths here, behind start codes there.
  Unit nal_units;
  for (std::size_t at = 0; at + 4 <= buffer.size();) {
    const std::size_t length = std::size_t{buffer[at]} << 24 | std::size_t{buffer[at + 1]} << 16 |
                               std::size_t{buffer[at + 2]} << 8 | buffer[at + 3];
    at += 4;
    ASSERT_LE(length, buffer.size() - at);
    nal_units.insert(nal_units.end(), buffer.begin() + static_cast<long>(at),
                     buffer.begin() + static_cast<long>(at + length));
    at += length;
  }
  EXPECT_EQ(nal_units, WithoutStartCodes(ClipUnits()[0]));
  const std::string caps = source.CapsText();
  EXPECT_NE(caps.find("stream-format=(string)avc"), caps.npos) << caps;
  EXPECT_NE(caps.find(kClipCaps), caps.npos) << caps;
  EXPECT_NE(caps.find("codec_data=(buffer)0164001fffe100"), caps.npos) << caps;
  source.Pull();

  gst_harness_set_sink_caps_str(source.harness(), "video/x-h264, stream-format=byte-stream");
  gst_harness_push_upstream_event(source.harness(), gst_event_new_reconfigure());
  Publish(1);
  EXPECT_EQ(BytesOf(source.Pull()), ClipUnits()[2]);
  EXPECT_NE(source.CapsText().find("byte-stream"), std::string::npos);
}

// The element cannot get rid of its next unit.
class HeldUp {
 public:
  explicit HeldUp(const Source& source)
      : pad_(gst_element_get_static_pad(source.element(), "src")),
        probe_(gst_pad_add_probe(
            pad_, GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM,
            [](GstPad*, GstPadProbeInfo*, gpointer) { return GST_PAD_PROBE_OK; }, nullptr,
            nullptr)) {}
  HeldUp(const HeldUp&) = delete;
  HeldUp& operator=(const HeldUp&) = delete;
  ~HeldUp() { gst_object_unref(pad_); }
  void End() { gst_pad_remove_probe(pad_, probe_); }

 private:
  GstPad* pad_;
  gulong probe_;
};

TEST_F(SourceTest, WhenItWasTooSlowItGoesOnWithAKeyframeOrAtOnce) {
  for (const bool skips : {true, false}) {
    next_ = 0;
    StartDaemon();
    Source source("video/x-h264, stream-format=byte-stream", [&](GstElement* element) {
      gst_util_set_object_arg(G_OBJECT(element), "on-loss", skips ? "skip" : "pass");
    });
    source.Play();
    Publish(1);
    source.Pull();
    // Held up while the ring is lapped.
    HeldUp held_up(source);
    Publish(1);
    ASSERT_TRUE(Eventually([&] { return source.Stat("units") == 2; }));
    // It keeps 200 for the time when it can, and one in hand.
    Publish(100);
    ASSERT_TRUE(Eventually([&] { return source.Stat("units") == 102; }));
    Publish(101);
    ASSERT_TRUE(Eventually([&] { return source.Stat("units") == 203; }));
    Publish(310);
    held_up.End();
    for (std::size_t number = 1; number < 203; ++number) {
      ASSERT_EQ(BytesOf(source.Pull()), ClipUnits()[number % 120]);
    }
    const BufferPtr next = source.Pull();
    EXPECT_TRUE(Has(next, GST_BUFFER_FLAG_DISCONT));
    EXPECT_EQ(Has(next, GST_BUFFER_FLAG_DELTA_UNIT), !skips);
    EXPECT_EQ(source.Stat("laps"), 1U);
    EXPECT_EQ(source.Stat("lost"), 210U);
    EXPECT_EQ(source.Stat("skipped"), skips ? 7U : 0U);
  }
}

TEST_F(SourceTest, OutlivesEverythingThatHappensToTheRing) {
  shm_unlink(kFrameBlockName);
  Source source;
  gst_harness_play(source.harness());
  EXPECT_EQ(source.Reason(), "no-ring");
  StartDaemon();
  EXPECT_EQ(source.Reason(), "no-units");
  Publish(1);
  source.Pull();
  EXPECT_EQ(source.Reason(), "kestrelbridge-streaming");

  RequestClear(MappedBlock(kFrameBlockName).data());
  Publish(1);
  const BufferPtr cleared = source.Pull();
  EXPECT_TRUE(Has(cleared, GST_BUFFER_FLAG_DISCONT)) << "after a clear";
  EXPECT_EQ(BytesOf(cleared), ClipUnits()[1]) << "nothing was lost";

  StartDaemon();
  Publish(35);
  const BufferPtr restarted = source.Pull();
  EXPECT_TRUE(Has(restarted, GST_BUFFER_FLAG_DISCONT)) << "after a restart";
  EXPECT_EQ(BytesOf(restarted), ClipUnits()[30]);
  for (int i = 0; i < 6; ++i) {
    source.Pull();
  }

  shm_unlink(kFrameBlockName);
  StartDaemon();
  Publish(30);
  EXPECT_EQ(source.Stat("rings"), 0U);
  const BufferPtr replaced = source.Pull();
  EXPECT_TRUE(Has(replaced, GST_BUFFER_FLAG_DISCONT)) << "after another ring took its place";
  EXPECT_EQ(BytesOf(replaced), ClipUnits()[60]);
  EXPECT_EQ(source.Stat("rings"), 1U);
  EXPECT_EQ(source.Stat("restarts"), 1U);
}

TEST_F(SourceTest, SaysThatNoKeyframeComesAndEndsAfterItsTimeout) {
  StartDaemon();
  Source source("video/x-h264, stream-format=byte-stream", [](GstElement* element) {
    g_object_set(element, "timeout", guint64{4} * GST_SECOND, nullptr);
  });
  source.Play();
  next_ = 1;
  ASSERT_TRUE(Eventually([&] {
    Publish(1);
    next_ = 1 + next_ % 28;
    const MessagePtr message(
        gst_bus_pop_filtered(GST_ELEMENT_BUS(source.element()), GST_MESSAGE_ELEMENT));
    return message && std::string(gst_structure_get_string(gst_message_get_structure(message.get()),
                                                           "reason")) == "no-keyframe";
  }));
  const MessagePtr message = source.Message(GST_MESSAGE_ERROR);
  ASSERT_TRUE(message);
  GError* error = nullptr;
  gst_message_parse_error(message.get(), &error, nullptr);
  EXPECT_NE(std::string(error->message).find("No access unit came for 4."), std::string::npos)
      << error->message;
  g_error_free(error);
}

TEST_F(SourceTest, StopsWithinTenMilliseconds) {
  for (const bool has_ring : {false, true}) {
    if (has_ring) {
      StartDaemon();
    } else {
      shm_unlink(kFrameBlockName);
    }
    auto shortest = std::chrono::steady_clock::duration::max();
    for (int attempt = 0; attempt < 10; ++attempt) {
      Source source;
      source.Play();
      const auto begin = std::chrono::steady_clock::now();
      gst_element_set_state(source.element(), GST_STATE_PAUSED);
      gst_element_set_state(source.element(), GST_STATE_READY);
      shortest = std::min(shortest, std::chrono::steady_clock::now() - begin);
    }
    EXPECT_LT(shortest, milliseconds(10)) << (has_ring ? "at a quiet ring" : "without a ring");
  }
}

TEST_F(SourceTest, StampsAreSmoothAndNeitherJitterNorAPauseLeavesALag) {
  StartDaemon();
  Source source;
  source.Play();
  std::mt19937 random(1);
  std::uniform_int_distribution<GstClockTime> jitter(0, 8 * GST_MSECOND);
  GstClockTime last = 0;
  GstClockTime late = 0;  // the latest unit's delay on its way
  for (int unit = 0; unit < 400; ++unit) {
    if (unit == 300) {
      source.Advance(5 * GST_SECOND);
    }
    const GstClockTime delay = jitter(random);
    source.Advance(kPeriod + delay - late);
    late = delay;
    Publish(1);
    const GstClockTime stamp = GST_BUFFER_PTS(source.Pull().get());
    ASSERT_GT(stamp, last);
    if (unit >= 100 && unit != 300) {
      ASSERT_NEAR(static_cast<double>(stamp - last), 33.3e6, 2e6) << unit;
    }
    // The unit was whole a period before it was found, and 20 ms are for the jitter.
    ASSERT_GE(stamp + kPeriod + 22 * GST_MSECOND, source.now() - GST_SECOND + GST_SECOND) << unit;
    ASSERT_LE(stamp, source.now());
    last = stamp;
  }
}

TEST_F(SourceTest, AnswersForItsLatencyByTheDaemonsWord) {
  for (const bool at_once : {false, true}) {
    std::ofstream(kMetricsPath) << "kestrelbridge_low_latency " << at_once << "\n";
    StartDaemon();
    Source source;
    source.Play();
    Publish(1);
    const GstClockTime stamp = GST_BUFFER_PTS(source.Pull().get());
    const GstClockTime latency = gst_harness_query_latency(source.harness());
    EXPECT_NEAR(static_cast<double>(latency), at_once ? 20e6 : 53.3e6, 1e6);
    EXPECT_NEAR(static_cast<double>(source.now() - stamp), at_once ? 10e6 : 43.3e6, 1e6);
    next_ = 0;
  }
}

TEST_F(SourceTest, BringsWhatTheRingStillHoldsInItsOwnTime) {
  StartDaemon();
  Publish(65);
  Source source("video/x-h264, stream-format=byte-stream", [](GstElement* element) {
    gst_util_set_object_arg(G_OBJECT(element), "start", "oldest");
  });
  source.Play();
  GstClockTime first = 0;
  GstClockTime last = 0;
  for (std::size_t number = 0; number < 65; ++number) {
    const BufferPtr buffer = source.Pull();
    ASSERT_EQ(BytesOf(buffer), ClipUnits()[number]);
    last = GST_BUFFER_PTS(buffer.get());
    first = number == 0 ? last : first;
  }
  EXPECT_NEAR(static_cast<double>(last - first), 64 * 33.3e6, 20e6);
  source.Advance(kPeriod / 2);
  Publish(1);
  EXPECT_NEAR(static_cast<double>(GST_BUFFER_PTS(source.Pull().get()) - last), 33.3e6, 15e6);
}

TEST_F(SourceTest, AfterAPauseItIsLive) {
  for (const bool is_held_up : {false, true}) {
    StartDaemon();
    Source source;
    source.Play();
    next_ = 0;
    Publish(1);
    source.Pull();
    HeldUp held_up(source);
    if (is_held_up) {
      Publish(1);
      ASSERT_TRUE(Eventually([&] { return source.Stat("units") == 2; }));
    } else {
      ASSERT_TRUE(Eventually([&] { return source.IsWaiting(); }));
    }
    gst_element_set_state(source.element(), GST_STATE_PAUSED);
    held_up.End();
    Publish(101 - next_);
    ASSERT_TRUE(Eventually([&] { return source.Stat("units") == 101; }));
    if (is_held_up) {
      EXPECT_EQ(BytesOf(source.Pull()), ClipUnits()[1]) << "from before the pause";
    }
    source.Play();
    Publish(25);
    const BufferPtr buffer = source.Pull();
    ASSERT_TRUE(buffer);
    EXPECT_TRUE(Has(buffer, GST_BUFFER_FLAG_DISCONT));
    EXPECT_FALSE(Has(buffer, GST_BUFFER_FLAG_DELTA_UNIT));
    EXPECT_EQ(BytesOf(buffer), ClipUnits()[0]) << "the clip's fifth keyframe is its first again";
  }
}

// A keyframe of that size, as far as anybody but a decoder can tell.
Unit KeyframeOf(std::uint32_t width_in_mbs, std::uint32_t height_in_mbs) {
  BitWriter bits = ParameterSetStart(66);
  const Unit sps = ParameterSetTail(bits, width_in_mbs, height_in_mbs).U(1, 1).Bytes();
  Unit unit = {0, 0, 0, 1, 0x67};
  unit.insert(unit.end(), sps.begin(), sps.end());
  const Unit rest = {0, 0, 0, 1, 0x68, 0xCE, 0x38, 0x80, 0, 0, 0, 1, 0x65, 0x88, 0x84};
  unit.insert(unit.end(), rest.begin(), rest.end());
  return unit;
}

TEST_F(SourceTest, FollowsThePictureSizeAndRefusesWhatNoPictureHas) {
  StartDaemon();
  Source source;
  source.Play();
  PublishVideoUnit(KeyframeOf(40, 30));
  source.Pull();
  EXPECT_NE(source.CapsText().find("width=(int)640, height=(int)480"), std::string::npos);
  EXPECT_EQ(source.CapsText().find("framerate"), std::string::npos) << "the stream does not say";

  PublishVideoUnit(KeyframeOf(40'000, 30));
  PublishVideoUnit(KeyframeOf(1, 0));  // 2^32 rows of macroblocks
  PublishVideoUnit(Unit{0, 0, 0, 1, 0x67});
  PublishVideoUnit(Unit{0, 0, 0, 1, 0x67, 0xFF, 0, 0, 3, 0, 0, 3, 0, 0, 0, 1, 0x68});
  PublishVideoUnit(ClipUnits()[1]);  // of no use before the next keyframe
  PublishVideoUnit(KeyframeOf(80, 45));
  const BufferPtr buffer = source.Pull();
  EXPECT_EQ(BytesOf(buffer), KeyframeOf(80, 45));
  EXPECT_NE(source.CapsText().find("width=(int)1280, height=(int)720"), std::string::npos);
  EXPECT_EQ(source.Stat("refused"), 4U);
  EXPECT_EQ(source.Stat("skipped"), 5U);
}

// Whatever stands in the ring: nothing is read beyond a unit (AddressSanitizer looks on), and the
// next sound unit comes.
TEST_F(SourceTest, SurvivesHostileUnits) {
  for (const char* format : {"byte-stream", "avc"}) {
    StartDaemon();
    Source source((std::string("video/x-h264, stream-format=") + format).c_str());
    source.Play();
    std::mt19937 random(7);
    for (int round = 0; round < 150; ++round) {
      Unit unit = ClipUnits()[static_cast<std::size_t>(round) % 120];
      unit.resize(1 + random() % 200);
      for (int fault = 0; fault < 6; ++fault) {
        unit[random() % unit.size()] =
            static_cast<std::uint8_t>(random() % 4 == 0 ? random() : random() % 2);
      }
      PublishVideoUnit(unit);
    }
    next_ = 0;
    Publish(1);
    BufferPtr buffer;
    while ((buffer = source.Pull()) && gst_buffer_get_size(buffer.get()) < 10'000) {
    }
    EXPECT_TRUE(buffer);
  }
}

TEST_F(SourceTest, ChangesItsStateAThousandTimes) {
  StartDaemon();
  GstElement* pipeline = gst_pipeline_new(nullptr);
  GstElement* source = gst_element_factory_make("kestrelbridgesrc", nullptr);
  GstElement* sink = gst_element_factory_make("fakesink", nullptr);
  ASSERT_TRUE(source != nullptr && sink != nullptr);
  gst_bin_add_many(GST_BIN(pipeline), source, sink, nullptr);
  ASSERT_TRUE(gst_element_link(source, sink));
  for (int round = 0; round < 1000; ++round) {
    ASSERT_NE(gst_element_set_state(pipeline, GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
    if (round % 3 == 0) {
      Publish(1);
    }
    ASSERT_EQ(gst_element_set_state(pipeline, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
  }
  gst_object_unref(pipeline);
}

}  // namespace
}  // namespace kestrelbridge::test
