#include "gstreamer/kestrelbridge_src.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "gstreamer/avc_format.h"
#include "gstreamer/debug_category.h"
#include "gstreamer/stream_caps.h"
#include "gstreamer/unit_feed.h"
#include "gstreamer/unit_times.h"
#include "gstreamer/waiting.h"

namespace kestrelbridge::gstreamer {
namespace {

using namespace std::chrono_literals;

// So long at most until a new reason to wait is seen.
constexpr std::chrono::milliseconds kPatience = 250ms;

// After the daemon's start it writes its metrics within a second.
constexpr std::chrono::seconds kMetricsAreThere = 3s;

enum Property { kStart = 1, kWaitForKeyframe, kOnLoss, kTimeout, kStats };
enum OnLoss { kSkip, kPass };

// One run of the element, from READY to PAUSED and back. The streaming thread's, but for what the
// feed opens to any thread.
struct Run {
  Run(FrameBlockReader::Start start, std::function<UnitPolicy()> policy)
      : feed(start, std::move(policy)) {}

  UnitFeed feed;
  UnitTimes times;
  Waiting waiting;
  std::optional<StreamFormat> format;         // as long as the peer has not changed its mind
  std::shared_ptr<const ParameterSets> sets;  // of the caps in force
  bool caps_are_set = false;
  bool wants_keyframe = false;  // units were thrown away
  std::vector<NalUnit> nals;
  std::uint64_t skipped = 0;   // as of the last look, as are
  std::uint64_t restarts = 0;  // these
  Waiting::Clock::time_point ask_daemon_at = Waiting::Clock::now();
};

struct Settings {
  FrameBlockReader::Start start = FrameBlockReader::Start::kLive;
  UnitPolicy policy;
  GstClockTime timeout = 0;
};

// What others than the streaming thread see, under the object's lock.
struct Shared {
  Settings settings;
  Nanoseconds latency{0};
  // Units that were found before do not go on: the time of PAUSED after PLAYING. GstBaseSrc may be
  // waiting for the unit that it asked for before, and would keep it till the end of the pause.
  Waiting::Clock::time_point awake_since = Waiting::Clock::time_point::min();
};

struct KestrelbridgeSrc {
  GstPushSrc parent;
  Shared* shared;
  Run* run;  // of the latest start; never null
};
struct KestrelbridgeSrcClass {
  GstPushSrcClass parent;
};

G_DEFINE_TYPE(KestrelbridgeSrc, kestrelbridge_src, GST_TYPE_PUSH_SRC)

KestrelbridgeSrc* ElementOf(gpointer object) { return reinterpret_cast<KestrelbridgeSrc*>(object); }

// Calls what is given with the shared part locked.
auto WithShared(KestrelbridgeSrc* element, auto function) {
  GST_OBJECT_LOCK(element);
  struct Unlocking {
    KestrelbridgeSrc* element;
    ~Unlocking() { GST_OBJECT_UNLOCK(element); }
  } const unlocking{element};
  return function(*element->shared);
}

Settings SettingsOf(KestrelbridgeSrc* element) {
  return WithShared(element, [](const Shared& shared) { return shared.settings; });
}

// --- properties
// -----------------------------------------------------------------------------------

GType StartType() {
  static const GEnumValue values[] = {
      {static_cast<gint>(FrameBlockReader::Start::kLive),
       "What is published from now on, from the next keyframe", "live"},
      {static_cast<gint>(FrameBlockReader::Start::kOldest),
       "Also what the ring still holds, three seconds of it: pre-roll for a recording. A window "
       "stays as far behind",
       "oldest"},
      {0, nullptr, nullptr}};
  static const GType type = g_enum_register_static("KestrelbridgeSrcStart", values);
  return type;
}

GType OnLossType() {
  static const GEnumValue values[] = {
      {kSkip, "Pass nothing on until the next keyframe: no smeared pictures", "skip"},
      {kPass, "Pass on what comes: the decoder conceals what is missing", "pass"},
      {0, nullptr, nullptr}};
  static const GType type = g_enum_register_static("KestrelbridgeSrcOnLoss", values);
  return type;
}

UnitSource::Counters CountersOf(KestrelbridgeSrc* element) {
  return WithShared(element, [&](const Shared&) { return element->run->feed.counters(); });
}

GstStructure* StatsOf(KestrelbridgeSrc* element) {
  const UnitSource::Counters now = CountersOf(element);
  return gst_structure_new("kestrelbridge-stats", "units", G_TYPE_UINT64, guint64{now.units},
                           "bytes", G_TYPE_UINT64, guint64{now.bytes}, "lost", G_TYPE_UINT64,
                           guint64{now.lost}, "laps", G_TYPE_UINT64, guint64{now.laps}, "restarts",
                           G_TYPE_UINT64, guint64{now.restarts}, "rings", G_TYPE_UINT64,
                           guint64{now.rings}, "skipped", G_TYPE_UINT64, guint64{now.skipped},
                           "refused", G_TYPE_UINT64, guint64{now.refused}, nullptr);
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
  KestrelbridgeSrc* element = ElementOf(object);
  GST_OBJECT_LOCK(element);
  Settings& settings = element->shared->settings;
  switch (id) {
    case kStart:
      settings.start = static_cast<FrameBlockReader::Start>(g_value_get_enum(value));
      break;
    case kWaitForKeyframe:
      settings.policy.wait_for_keyframe = g_value_get_boolean(value) != FALSE;
      break;
    case kOnLoss:
      settings.policy.skip_on_loss = g_value_get_enum(value) == kSkip;
      break;
    case kTimeout:
      settings.timeout = g_value_get_uint64(value);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
  }
  GST_OBJECT_UNLOCK(element);
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* spec) {
  KestrelbridgeSrc* element = ElementOf(object);
  const Settings settings = SettingsOf(element);
  switch (id) {
    case kStart:
      g_value_set_enum(value, static_cast<gint>(settings.start));
      break;
    case kWaitForKeyframe:
      g_value_set_boolean(value, settings.policy.wait_for_keyframe ? TRUE : FALSE);
      break;
    case kOnLoss:
      g_value_set_enum(value, settings.policy.skip_on_loss ? kSkip : kPass);
      break;
    case kTimeout:
      g_value_set_uint64(value, settings.timeout);
      break;
    case kStats:
      g_value_take_boxed(value, StatsOf(element));
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
  }
}

void InstallProperties(GObjectClass* klass) {
  constexpr auto kFlags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
  constexpr auto kStopped = static_cast<GParamFlags>(kFlags | GST_PARAM_MUTABLE_READY);
  constexpr auto kPlaying = static_cast<GParamFlags>(kFlags | GST_PARAM_MUTABLE_PLAYING);
  const Settings usual;
  klass->set_property = SetProperty;
  klass->get_property = GetProperty;
  g_object_class_install_property(
      klass, kStart,
      g_param_spec_enum("start", "Start", "With which of the ring's access units to begin",
                        StartType(), static_cast<gint>(usual.start), kStopped));
  g_object_class_install_property(
      klass, kWaitForKeyframe,
      g_param_spec_boolean("wait-for-keyframe", "Wait for keyframe",
                           "Begin with a keyframe, so that no decoder sees what it cannot decode",
                           TRUE, kStopped));
  g_object_class_install_property(
      klass, kOnLoss,
      g_param_spec_enum("on-loss", "On loss",
                        "What to do after access units were lost: this pipeline was too slow, or "
                        "the daemon was started anew",
                        OnLossType(), kSkip, kPlaying));
  g_object_class_install_property(
      klass, kTimeout,
      g_param_spec_uint64("timeout", "Timeout",
                          "Nanoseconds without an access unit after which the element ends with "
                          "an error; 0: waits for ever",
                          0, G_MAXUINT64, 0, kPlaying));
  g_object_class_install_property(
      klass, kStats,
      g_param_spec_boxed(
          "stats", "Statistics",
          "Since the start: units and bytes read; units lost because they were overwritten before "
          "they could be read; laps, the times that this happened or the ring was cleared; "
          "restarts of the daemon; rings that took another one's place; units skipped while "
          "waiting for a keyframe; parameter sets refused because they tell of no picture",
          GST_TYPE_STRUCTURE, static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS)));
}

// --- one unit
// -------------------------------------------------------------------------------------

Nanoseconds RunningTime(KestrelbridgeSrc* element) {
  GstClockTime now = 0;
  GstClock* clock = gst_element_get_clock(GST_ELEMENT(element));
  if (clock != nullptr) {
    const GstClockTime time = gst_clock_get_time(clock);
    const GstClockTime base = gst_element_get_base_time(GST_ELEMENT(element));
    now = time > base ? time - base : 0;
    gst_object_unref(clock);
  }
  return Nanoseconds(static_cast<std::int64_t>(now));
}

// The form of the stream is the peer's choice, its contents are the camera's. False when the peer
// takes neither.
bool SetCaps(KestrelbridgeSrc* element, Run& run, std::shared_ptr<const ParameterSets> sets) {
  if (run.caps_are_set && run.sets == sets) {
    return true;
  }
  GstCaps* caps = StreamCaps(*run.format, sets.get());
  const bool taken = gst_base_src_set_caps(GST_BASE_SRC(element), caps) != FALSE;
  GST_INFO_OBJECT(element, "caps %" GST_PTR_FORMAT "%s", static_cast<void*>(caps),
                  taken ? "" : " refused");
  gst_caps_unref(caps);
  run.caps_are_set = taken;
  run.sets = std::move(sets);
  return taken;
}

// The unit itself becomes the buffer, and is freed with it.
GstBuffer* ByteStreamBuffer(std::vector<std::uint8_t> unit) {
  auto* bytes = new std::vector<std::uint8_t>(std::move(unit));
  return gst_buffer_new_wrapped_full(
      GST_MEMORY_FLAG_READONLY, bytes->data(), bytes->size(), 0, bytes->size(), bytes,
      [](gpointer data) { delete static_cast<std::vector<std::uint8_t>*>(data); });
}

// Null when there is no memory.
GstBuffer* AvcBuffer(Run& run, std::span<const std::uint8_t> unit) {
  SplitNalUnits(unit, Extent::kWhole, run.nals);
  GstBuffer* buffer = gst_buffer_new_allocate(nullptr, AvcSize(run.nals), nullptr);
  GstMapInfo map;
  if (buffer != nullptr && gst_buffer_map(buffer, &map, GST_MAP_WRITE) != FALSE) {
    WriteAvc(run.nals, {map.data, map.size});
    gst_buffer_unmap(buffer, &map);
  }
  return buffer;
}

void Describe(GstBuffer* buffer, const OutgoingUnit& unit, Nanoseconds stamp, Nanoseconds period) {
  GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(stamp.count());
  GST_BUFFER_DURATION(buffer) = static_cast<GstClockTime>(period.count());
  if (!unit.is_keyframe) {
    GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
  }
  if (unit.has_parameter_sets) {
    GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_HEADER);
  }
  if (unit.is_discontinuous) {
    GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
  }
}

// Whether units are published at once is told by the daemon that runs now, so after a restart there
// may be another answer.
void FollowLatency(KestrelbridgeSrc* element, Run& run) {
  const auto now = Waiting::Clock::now();
  const std::uint64_t restarts = run.feed.counters().restarts;
  if (std::exchange(run.restarts, restarts) != restarts) {
    run.ask_daemon_at = now + kMetricsAreThere;
  }
  if (now >= run.ask_daemon_at) {
    run.ask_daemon_at = Waiting::Clock::time_point::max();
    run.times.AskTheDaemon();
  }
  if (run.times.LatencyHasChanged()) {
    WithShared(element, [&](Shared& shared) { shared.latency = run.times.Latency(); });
    gst_element_post_message(GST_ELEMENT(element), gst_message_new_latency(GST_OBJECT(element)));
  }
}

// Waits for the next unit. GST_FLOW_OK when there is one.
GstFlowReturn TakeUnit(KestrelbridgeSrc* element, Run& run, OutgoingUnit& unit) {
  for (;;) {
    const RingState state = run.feed.Take(unit, kPatience);
    if (state == RingState::kInterrupted) {
      return GST_FLOW_FLUSHING;
    }
    if (state == RingState::kUnit) {
      run.waiting.End(GST_ELEMENT(element));
      return GST_FLOW_OK;
    }
    const std::uint64_t skipped = run.feed.counters().skipped;
    run.waiting.Note(GST_ELEMENT(element), state, std::exchange(run.skipped, skipped) != skipped);
    const auto waited = static_cast<GstClockTime>(run.waiting.length().count());
    const GstClockTime timeout = SettingsOf(element).timeout;
    if (timeout != 0 && waited >= timeout) {
      GST_ELEMENT_ERROR(element, RESOURCE, READ,
                        ("No access unit came for %.1f s.", static_cast<double>(waited) / 1e9),
                        ("property timeout; GST_DEBUG=kestrelbridgesrc:2 tells why"));
      return GST_FLOW_ERROR;
    }
  }
}

// The next unit that a decoder wants. GST_FLOW_OK when there is one.
GstFlowReturn TakeWantedUnit(KestrelbridgeSrc* element, Run& run, OutgoingUnit& unit) {
  for (;;) {
    const GstFlowReturn flow = TakeUnit(element, run, unit);
    if (flow != GST_FLOW_OK) {
      return flow;
    }
    const auto awake_since =
        WithShared(element, [](const Shared& shared) { return shared.awake_since; });
    if (unit.found < awake_since) {
      run.wants_keyframe = true;
    } else if (unit.is_keyframe || !run.wants_keyframe) {
      unit.is_discontinuous = std::exchange(run.wants_keyframe, false) || unit.is_discontinuous;
      return GST_FLOW_OK;
    }
  }
}

GstFlowReturn Create(GstPushSrc* base, GstBuffer** buffer) {
  KestrelbridgeSrc* element = ElementOf(base);
  Run& run = *element->run;
  OutgoingUnit unit;
  do {
    const GstFlowReturn flow = TakeWantedUnit(element, run, unit);
    if (flow != GST_FLOW_OK) {
      return flow;
    }
    if (gst_pad_check_reconfigure(GST_BASE_SRC_PAD(element)) != FALSE || !run.format) {
      run.format = ChooseFormat(GST_BASE_SRC_PAD(element));
      run.caps_are_set = false;
    }
  } while (unit.sets == nullptr && *run.format == StreamFormat::kAvc);  // that cannot begin so
  const Nanoseconds found = RunningTime(element) - (Waiting::Clock::now() - unit.found);
  if (unit.sets != nullptr && run.sets != unit.sets) {
    run.times.ExpectRate(unit.sets->format.frame_rate);
  }
  FollowLatency(element, run);
  if (!SetCaps(element, run, unit.sets)) {
    return GST_FLOW_NOT_NEGOTIATED;
  }
  const Nanoseconds stamp = run.times.Stamp(unit, found);
  *buffer = *run.format == StreamFormat::kAvc ? AvcBuffer(run, unit.bytes)
                                              : ByteStreamBuffer(std::move(unit.bytes));
  if (*buffer == nullptr) {
    return GST_FLOW_ERROR;
  }
  Describe(*buffer, unit, stamp, run.times.period());
  return GST_FLOW_OK;
}

// --- what GstBaseSrc asks
// -------------------------------------------------------------------------

Run* MakeRun(KestrelbridgeSrc* element) {
  return new Run(SettingsOf(element).start, [element] { return SettingsOf(element).policy; });
}

// Who asks for the counters may be on another thread.
void ReplaceRun(KestrelbridgeSrc* element, Run* run) {
  delete WithShared(element, [&](Shared&) { return std::exchange(element->run, run); });
}

gboolean Start(GstBaseSrc* base) {
  KestrelbridgeSrc* element = ElementOf(base);
  ReplaceRun(element, MakeRun(element));
  WithShared(element, [&](Shared& shared) {
    shared.latency = element->run->times.Latency();
    shared.awake_since = Waiting::Clock::time_point::min();
  });
  return TRUE;
}

gboolean Unlock(GstBaseSrc* base) {
  ElementOf(base)->run->feed.Interrupt();
  return TRUE;
}

gboolean UnlockStop(GstBaseSrc* base) {
  ElementOf(base)->run->feed.Continue();
  return TRUE;
}

// With the next unit: not before are there parameter sets. Called by the streaming thread.
gboolean Negotiate(GstBaseSrc* base) {
  KestrelbridgeSrc* element = ElementOf(base);
  element->run->format.reset();
  return TRUE;
}

gboolean Query(GstBaseSrc* base, GstQuery* query) {
  KestrelbridgeSrc* element = ElementOf(base);
  if (GST_QUERY_TYPE(query) != GST_QUERY_LATENCY) {
    return GST_BASE_SRC_CLASS(kestrelbridge_src_parent_class)->query(base, query);
  }
  const Nanoseconds least =
      WithShared(element, [](const Shared& shared) { return shared.latency; });
  // A pipeline that holds us up loses nothing until the ring has come round.
  const Nanoseconds most = least + (kSlotCount - 2) * std::chrono::milliseconds(16);
  gst_query_set_latency(query, TRUE, static_cast<GstClockTime>(least.count()),
                        static_cast<GstClockTime>(most.count()));
  return TRUE;
}

GstStateChangeReturn ChangeState(GstElement* base, GstStateChange transition) {
  KestrelbridgeSrc* element = ElementOf(base);
  WithShared(element, [&](Shared& shared) {
    using Time = Waiting::Clock::time_point;
    if (transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED) {
      shared.awake_since = Time::max();
    } else if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING &&
               shared.awake_since != Time::min()) {
      shared.awake_since = Waiting::Clock::now();
    }
  });
  return GST_ELEMENT_CLASS(kestrelbridge_src_parent_class)->change_state(base, transition);
}

// --- the type
// -------------------------------------------------------------------------------------

void Finalize(GObject* object) {
  KestrelbridgeSrc* element = ElementOf(object);
  delete element->run;
  delete element->shared;
  G_OBJECT_CLASS(kestrelbridge_src_parent_class)->finalize(object);
}

void kestrelbridge_src_init(KestrelbridgeSrc* element) {
  element->shared = new Shared;
  element->run = MakeRun(element);
  gst_base_src_set_live(GST_BASE_SRC(element), TRUE);
  gst_base_src_set_format(GST_BASE_SRC(element), GST_FORMAT_TIME);
}

void kestrelbridge_src_class_init(KestrelbridgeSrcClass* klass) {
  InstallProperties(G_OBJECT_CLASS(klass));
  G_OBJECT_CLASS(klass)->finalize = Finalize;
  GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
  element_class->change_state = ChangeState;
  gst_element_class_set_static_metadata(
      element_class, "Camera bridge source", "Source/Video",
      "The camera's live H.264 picture, from the shared memory of the kestrelbridge daemon",
      "kestrelbridge authors");
  GstCaps* caps = TemplateCaps();
  gst_element_class_add_pad_template(
      element_class, gst_pad_template_new("src", GST_PAD_SRC, GST_PAD_ALWAYS, caps));
  gst_caps_unref(caps);
  GstBaseSrcClass* base_class = GST_BASE_SRC_CLASS(klass);
  base_class->start = Start;
  base_class->unlock = Unlock;
  base_class->unlock_stop = UnlockStop;
  base_class->negotiate = Negotiate;
  base_class->query = Query;
  GST_PUSH_SRC_CLASS(klass)->create = Create;
  gst_type_mark_as_plugin_api(StartType(), static_cast<GstPluginAPIFlags>(0));
  gst_type_mark_as_plugin_api(OnLossType(), static_cast<GstPluginAPIFlags>(0));
}

}  // namespace

GType ElementType() { return kestrelbridge_src_get_type(); }

GstDebugCategory* DebugCategory() {
  static GstDebugCategory* const category = [] {
    GstDebugCategory* made = nullptr;
    GST_DEBUG_CATEGORY_INIT(made, kElementName, 0, "camera bridge source");
    return made;
  }();
  return category;
}

}  // namespace kestrelbridge::gstreamer
