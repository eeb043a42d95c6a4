#include "app/metrics.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "app/options.h"
#include "base/counters.h"
#include "base/run_paths.h"
#include "base/text_file.h"
#include "base/thread.h"
#include "bridge/phone_app_bridge.h"
#include "camera/camera_link.h"
#include "net/socket_drops.h"
#include "net/udp_endpoint.h"
#include "state/main_app_link_record.h"

namespace kestrelbridge {
namespace {

constexpr useconds_t kWritePeriodUs = 1'000'000;

// One line of a family. No counter: the list ends.
struct Series {
  const char* labels = "";
  const Counter* counter = nullptr;
};
constexpr std::size_t kMostSeries = 4;
using SeriesList = std::array<Series, kMostSeries>;

// Counters that measure the same thing at different places.
struct Family {
  const char* name;
  const char* help;
  SeriesList series;
};

constexpr char kCamera[] = R"({link="camera"})";
constexpr char kMainApp[] = R"({link="main_app"})";
constexpr char kPhone[] = R"({link="phone"})";
constexpr char kMainAppSecond[] = R"({link="main_app_second"})";

constexpr Counters& kCounters = GetCounters();

template <typename Kind>
constexpr SeriesList AllLinks(Kind LinkCounters::*counter) {
  return {{{kCamera, &(kCounters.camera.*counter)},
           {kMainApp, &(kCounters.main_app.*counter)},
           {kPhone, &(kCounters.phone.*counter)},
           {kMainAppSecond, &(kCounters.main_app_second.*counter)}}};
}

// Nothing is sent through the second endpoint of the main application.
template <typename Kind>
constexpr SeriesList SendingLinks(Kind LinkCounters::*counter) {
  return {{{kCamera, &(kCounters.camera.*counter)},
           {kMainApp, &(kCounters.main_app.*counter)},
           {kPhone, &(kCounters.phone.*counter)}}};
}

// The loss of the camera ends the process: nobody would see it counted.
template <typename Kind>
constexpr SeriesList LosableLinks(Kind LinkCounters::*counter) {
  return {{{kMainApp, &(kCounters.main_app.*counter)},
           {kPhone, &(kCounters.phone.*counter)},
           {kMainAppSecond, &(kCounters.main_app_second.*counter)}}};
}

constexpr Family kFamilies[] = {
    {"kestrelbridge_received_datagrams_total", "Datagrams received by the daemon.",
     AllLinks(&LinkCounters::received_datagrams)},
    {"kestrelbridge_received_bytes_total", "Bytes of the datagrams received.",
     AllLinks(&LinkCounters::received_bytes)},
    {"kestrelbridge_sent_datagrams_total", "Datagrams sent.",
     SendingLinks(&LinkCounters::sent_datagrams)},
    {"kestrelbridge_sent_bytes_total", "Bytes of the datagrams sent.",
     SendingLinks(&LinkCounters::sent_bytes)},
    {"kestrelbridge_send_failures_total", "Datagrams that could not be sent.",
     SendingLinks(&LinkCounters::send_failures)},
    {"kestrelbridge_links_found_total", "Times that a link came up.",
     AllLinks(&LinkCounters::found)},
    {"kestrelbridge_links_lost_total", "Times that a link was lost by silence.",
     LosableLinks(&LinkCounters::lost)},
    {"kestrelbridge_camera_datagrams_total",
     "Datagrams received from the camera, by kind.",
     {{{R"({kind="video"})", &kCounters.video_datagrams},
       {R"({kind="command_data"})", &kCounters.command_data_datagrams},
       {R"({kind="ignored"})", &kCounters.ignored_datagrams},
       {R"({kind="short"})", &kCounters.short_datagrams}}}},
    {"kestrelbridge_stray_video_datagrams_total",
     "Video datagrams that belong to no unit.",
     {{{"", &kCounters.stray_video_datagrams}}}},
    {"kestrelbridge_units_total",
     "Access units, by what became of them.",
     {{{R"({outcome="published"})", &kCounters.units_published},
       {R"({outcome="corrupted"})", &kCounters.units_corrupted},
       {R"({outcome="not_published"})", &kCounters.units_not_published}}}},
    {"kestrelbridge_units_spoiled_total",
     "Units published with --low-latency that then gathered further bytes.",
     {{{"", &kCounters.units_spoiled}}}},
    {"kestrelbridge_published_bytes_total",
     "Bytes of the access units published.",
     {{{"", &kCounters.published_bytes}}}},
    {"kestrelbridge_overflows_total",
     "Times that a buffer overflowed and was emptied.",
     {{{R"({buffer="video"})", &kCounters.video_overflows},
       {R"({buffer="command_data"})", &kCounters.command_data_overflows}}}},
    {"kestrelbridge_acknowledgements_sent_total",
     "Unit acknowledgements sent to the camera.",
     {{{"", &kCounters.acknowledgements}}}},
    {"kestrelbridge_connection_requests_sent_total",
     "Connection requests sent to the camera.",
     {{{"", &kCounters.connection_requests}}}},
    {"kestrelbridge_keepalives_sent_total",
     "Keepalives sent to the camera.",
     {{{"", &kCounters.keepalives}}}},
    {"kestrelbridge_command_frames_found_total",
     "Sound command frames found in the camera's command data.",
     {{{"", &kCounters.frames_found}}}},
    {"kestrelbridge_pushes_decoded_total",
     "Pushes taken into the camera's state.",
     {{{R"({kind="status"})", &kCounters.status_pushes},
       {R"({kind="settings"})", &kCounters.settings_pushes},
       {R"({kind="battery"})", &kCounters.battery_pushes},
       {R"({kind="histogram"})", &kCounters.histogram_pushes}}}},
    {"kestrelbridge_command_frames_sent_total",
     "Command frames sent to the camera, by who asked.",
     {{{R"({source="main_app"})", &kCounters.app_command_frames},
       {R"({source="remote_control"})", &kCounters.rc_command_frames}}}},
    {"kestrelbridge_app_messages_ignored_total",
     "Datagrams of the main application that are no known command.",
     {{{"", &kCounters.app_messages_ignored}}}},
    {"kestrelbridge_telemetry_records_sent_total",
     "Telemetry records sent to the main application.",
     {{{R"({kind="text"})", &kCounters.text_records},
       {R"({kind="status"})", &kCounters.status_records},
       {R"({kind="histogram"})", &kCounters.histogram_records}}}},
    {"kestrelbridge_relayed_datagrams_total",
     "Datagrams relayed between the phone app and the camera.",
     {{{R"({direction="to_camera"})", &kCounters.relayed_to_camera},
       {R"({direction="to_phone"})", &kCounters.relayed_to_phone}}}},
    {"kestrelbridge_phone_peer_changes_total",
     "Times that the phone app's stream was taken over by another address.",
     {{{"", &kCounters.phone_peer_changes}}}},
    {"kestrelbridge_log_lines_dropped_total",
     "Lines of the log that standard error had no room for.",
     {{{"", &kCounters.log_lines_dropped}}}},
};

void AppendHead(std::string& text, const char* name, const char* type, const char* help) {
  text.append("# HELP ").append(name).append(" ").append(help);
  text.append("\n# TYPE ").append(name).append(" ").append(type).append("\n");
}

void AppendLine(std::string& text, const char* name, const char* labels, std::uint64_t value) {
  text.append(name).append(labels).append(" ").append(std::to_string(value)).append("\n");
}

struct Link {
  const char* labels;
  const UdpEndpoint& endpoint;
};
using Links = std::array<Link, 4>;

Links AllEndpoints() {
  return {{{kCamera, GetCameraLink().endpoint},
           {kMainApp, GetMainAppLink().command_endpoint},
           {kPhone, PhoneAppEndpoint()},
           {kMainAppSecond, GetMainAppLink().second_endpoint}}};
}

void AppendKernelDrops(std::string& text, const Links& links) {
  std::array<SocketDrops, std::tuple_size_v<Links>> sockets;
  for (std::size_t i = 0; i < links.size(); ++i) {
    sockets[i].socket = links[i].endpoint.socket.load(std::memory_order_relaxed);
  }
  if (!ReadSocketDrops(sockets)) {
    return;  // no line at all: a 0 would claim that nothing was dropped
  }
  constexpr char kName[] = "kestrelbridge_kernel_drops_total";
  AppendHead(text, kName, "counter", "Datagrams that the kernel dropped before the daemon's turn.");
  for (std::size_t i = 0; i < links.size(); ++i) {
    AppendLine(text, kName, links[i].labels, sockets[i].drops);
  }
}

void AppendGauges(std::string& text, const Links& links, std::time_t start) {
  constexpr char kLinkUp[] = "kestrelbridge_link_up";
  AppendHead(text, kLinkUp, "gauge", "1 while the link's peer is heard, 0 when not.");
  for (const Link& link : links) {
    AppendLine(text, kLinkUp, link.labels, LinkIsUp(link.endpoint) ? 1 : 0);
  }
  constexpr char kCommandPort[] = "kestrelbridge_command_port";
  AppendHead(text, kCommandPort, "gauge", "UDP port that takes the main application's commands.");
  AppendLine(text, kCommandPort, "", LocalPort(GetMainAppLink().command_endpoint));
  constexpr char kLowLatency[] = "kestrelbridge_low_latency";
  AppendHead(text, kLowLatency, "gauge", "1 when units are published as soon as they are whole.");
  AppendLine(text, kLowLatency, "", GetConfig().low_latency ? 1 : 0);
  constexpr char kBuildInfo[] = "kestrelbridge_build_info";
  AppendHead(text, kBuildInfo, "gauge", "Always 1; the label tells the daemon's version.");
  AppendLine(text, kBuildInfo, R"({version=")" KESTRELBRIDGE_VERSION R"("})", 1);
  constexpr char kStart[] = "kestrelbridge_start_time_seconds";
  AppendHead(text, kStart, "gauge", "When the daemon started, in seconds since 1970.");
  AppendLine(text, kStart, "", static_cast<std::uint64_t>(start));
}

// Set before the thread exists, which alone uses it after.
constinit std::time_t start_time = 0;
constinit pthread_t metrics_thread{};

void* MetricsThread(void* /*argument*/) {
  for (;;) {
    ReplaceTextFile(kMetricsPath, MetricsText(start_time));
    usleep(kWritePeriodUs);
  }
}

}  // namespace

std::string MetricsText(std::time_t start) {
  constexpr std::size_t kUsualLength = 8192;
  std::string text;
  text.reserve(kUsualLength);
  for (const Family& family : kFamilies) {
    AppendHead(text, family.name, "counter", family.help);
    for (const Series& series : family.series) {
      if (series.counter != nullptr) {
        AppendLine(text, family.name, series.labels, series.counter->Value());
      }
    }
  }
  const Links links = AllEndpoints();
  AppendKernelDrops(text, links);
  AppendGauges(text, links, start);
  return text;
}

int StartMetrics(std::time_t start) {
  start_time = start;
  return StartThread(&metrics_thread, "metrics", MetricsThread, nullptr);
}

}  // namespace kestrelbridge
