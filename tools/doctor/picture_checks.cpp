#include <sys/stat.h>
#include <sys/statvfs.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "base/run_paths.h"
#include "kestrelbridge/frame_block.h"
#include "kestrelbridge/rc_block.h"
#include "tools/common/quiet_ring.h"
#include "tools/common/udp_table.h"
#include "tools/doctor/finding.h"

namespace kestrelbridge::tools {
namespace {

// "mode 640, of user 997 and group 996, since 2026-11-23 21:15"
std::string Rights(const struct stat& status) {
  std::tm made{};
  localtime_r(&status.st_mtime, &made);
  std::array<char, 20> since{};
  std::strftime(since.data(), since.size(), "%Y-%m-%d %H:%M", &made);
  std::array<char, 120> text{};
  std::snprintf(text.data(), text.size(), "mode %o, of user %u and group %u, since %s",
                status.st_mode & ALLPERMS, status.st_uid, status.st_gid, since.data());
  return text.data();
}

std::string Count(std::uint64_t number, const char* what) {
  return std::to_string(number) + " " + what;
}

std::uint64_t SumOf(const MetricsReading& metrics, std::string_view name) {
  std::uint64_t sum = 0;
  for (const Metric& metric : metrics.metrics) {
    sum += metric.name == name ? metric.value : 0;
  }
  return sum;
}

Finding NoMetrics() { return {Health::kNotLookedAt, std::string("no fresh ") + kMetricsPath}; }

constexpr char kJoinTheGroup[] = "sudo adduser $USER kestrelbridge, and log in again";

}  // namespace

Finding CheckRing(const Surroundings& around) {
  const std::string path = std::string("/dev/shm/") + kFrameBlockName;
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return {Health::kFault, path + ": " + std::strerror(errno),
            "sudo systemctl restart kestrelbridge"};
  }
  const std::string rights = Rights(status);
  FrameBlockMapping mapping;
  if (!mapping.Open()) {
    return {Health::kWarning, rights + ": this user may not read it (" + std::strerror(errno) + ")",
            kJoinTheGroup};
  }
  if (around.daemon == 0) {
    return {Health::kFault, rights + ": no process publishes there",
            "sudo systemctl start kestrelbridge"};
  }
  return {Health::kOk, rights + ": process " + std::to_string(around.daemon) + " publishes there"};
}

Finding CheckUnits(const Surroundings& /*around*/) {
  constexpr std::chrono::milliseconds kLook{1'500};
  FrameBlockMapping mapping;
  if (!mapping.Open()) {
    return {Health::kNotLookedAt, "the ring cannot be read"};
  }
  FrameBlockReader reader(mapping.data());
  std::vector<std::uint8_t> unit;
  const auto begin = std::chrono::steady_clock::now();
  for (auto left = kLook; left.count() > 0;
       left = kLook - std::chrono::duration_cast<std::chrono::milliseconds>(
                          std::chrono::steady_clock::now() - begin)) {
    if (!reader.Next(unit)) {
      reader.Wait(left);
    }
  }
  const double seconds = std::chrono::duration<double>(kLook).count();
  const double rate = static_cast<double>(reader.counters().units) / seconds;
  std::array<char, 80> text{};
  std::snprintf(text.data(), text.size(), "%.0f a second, %.1f Mbit/s", rate,
                static_cast<double>(reader.counters().bytes) * 8 / seconds / 1e6);
  if (rate == 0) {
    return {Health::kFault, "none: " + WhyTheRingIsQuiet(kFrameBlockName),
            "journalctl -u kestrelbridge -n 20"};
  }
  constexpr double kFew = 15;
  return {rate < kFew ? Health::kWarning : Health::kOk, text.data(),
          rate < kFew ? "nearer to the camera; kestrelctl stats" : ""};
}

Finding CheckLosses(const Surroundings& around) {
  if (!around.metrics) {
    return NoMetrics();
  }
  const MetricsReading& metrics = *around.metrics;
  const auto value = [&](const char* name, const char* label) {
    return metrics.Value(name, label).value_or(0);
  };
  const std::uint64_t published = value("kestrelbridge_units_total", R"(outcome="published")");
  const std::uint64_t corrupted = value("kestrelbridge_units_total", R"(outcome="corrupted")");
  const std::uint64_t dropped = SumOf(metrics, "kestrelbridge_kernel_drops_total");
  const std::string text = Count(corrupted, "units lost on the air of ") +
                           std::to_string(published + corrupted) + ", " +
                           Count(dropped, "datagrams dropped by the box itself");
  if (dropped > 0) {
    return {Health::kWarning, text + ": its processor was too busy", "top; kestrelctl stats"};
  }
  constexpr std::uint64_t kOneInHowMany = 100;
  if (corrupted * kOneInHowMany > published + corrupted) {
    return {Health::kWarning, text, "nearer to the camera, another channel, power saving off"};
  }
  return {Health::kOk, text};
}

Finding CheckPictureSize(const Surroundings& /*around*/) {
  const std::string width = FirstLine(kVideoWidthPath);
  const std::string height = FirstLine(kVideoHeightPath);
  if (width.empty() || height.empty()) {
    return {Health::kWarning, "unknown: no parameter set has come yet",
            "wait for the camera's next keyframe"};
  }
  return {Health::kOk, width + "x" + height};
}

Finding CheckTelemetry(const Surroundings& around) {
  constexpr std::uint16_t kMainAppPort = 5000;
  std::string text;
  for (const UdpTableRow& row : ReadUdpTable("/proc/net/udp")) {
    if (row.port == kMainAppPort && text.empty()) {
      text = "a program listens on port 5000";
    }
  }
  try {
    const MetricsReading share = ReadMetrics("/run/kestrelbridge/share.prom");
    if (const auto consumers = share.Value("kestrelbridge_share_consumers"); consumers) {
      text += (text.empty() ? "" : ", ") + Count(*consumers, "programs get it from kestrelshare");
    }
  } catch (const std::exception&) {
    // The share is turned off, or not installed.
  }
  if (text.empty()) {
    return {Health::kWarning, "nobody takes it",
            "kestrelctl telemetry, or a main application on port 5000"};
  }
  if (around.metrics && SumOf(*around.metrics, "kestrelbridge_telemetry_records_sent_total") == 0) {
    return {Health::kWarning, text + "; none has been sent: the camera has not told its state yet",
            "kestrelctl stats"};
  }
  return {Health::kOk, text};
}

Finding CheckRemoteControl(const Surroundings& /*around*/) {
  struct stat status {};
  const std::string path = std::string("/dev/shm") + kRcBlockName;
  if (stat(path.c_str(), &status) != 0) {
    return {Health::kNotLookedAt, "no block: it is made with the camera's first state"};
  }
  if ((status.st_mode & S_IWOTH) != 0) {
    return {Health::kWarning, Rights(status) + ": every user may work the camera's switches",
            "sudo chmod o-w " + path};
  }
  return {Health::kOk, Rights(status)};
}

Finding CheckMemory(const Surroundings& /*around*/) {
  struct statvfs status {};
  if (statvfs("/dev/shm", &status) != 0) {
    return {Health::kFault, std::string("/dev/shm: ") + std::strerror(errno), "mount | grep shm"};
  }
  constexpr unsigned long long kMegabyte = 1'000'000;
  const unsigned long long free =
      static_cast<unsigned long long>(status.f_bavail) * status.f_frsize / kMegabyte;
  const std::string text = std::to_string(free) + " MB free";
  constexpr unsigned long long kLittle = 16;
  return {free < kLittle ? Health::kWarning : Health::kOk, text,
          free < kLittle ? "df /dev/shm; ls -l /dev/shm" : ""};
}

}  // namespace kestrelbridge::tools
