// What the doctor looks at, and what was found.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "tools/common/metrics_reading.h"

namespace kestrelbridge::tools {

enum class Health { kOk, kNotLookedAt, kWarning, kFault };  // the worse, the later

struct Finding {
  Health health = Health::kOk;
  std::string text;       // what was found and what it means, on one line
  std::string mend = {};  // a command, or what to do; empty where nothing is to be done
};

// What several checks want to know, found once.
struct Surroundings {
  pid_t daemon = 0;                                      // who publishes in the ring; 0: nobody
  std::string camera_host = "192.168.2.1";               // by the daemon's options
  std::string camera_interface = {};                     // empty: no way leads there
  bool camera_is_near = false;                           // its network is one of ours
  std::optional<MetricsReading> metrics = std::nullopt;  // fresh ones only
  std::string access_point = {};                         // by ap.iface
};

[[nodiscard]] Surroundings LookAround();

// One look each, in a file by subject. None takes longer than two seconds or changes anything.
Finding CheckService(const Surroundings& around);
Finding CheckOptions(const Surroundings& around);
Finding CheckAddress(const Surroundings& around);
Finding CheckPing(const Surroundings& around);
Finding CheckPowerSaving(const Surroundings& around);
Finding CheckCountry(const Surroundings& around);
Finding CheckRing(const Surroundings& around);
Finding CheckUnits(const Surroundings& around);
Finding CheckLosses(const Surroundings& around);
Finding CheckPictureSize(const Surroundings& around);
Finding CheckTelemetry(const Surroundings& around);
Finding CheckRemoteControl(const Surroundings& around);
Finding CheckRedirectRule(const Surroundings& around);
Finding CheckPhonePort(const Surroundings& around);
Finding CheckMemory(const Surroundings& around);
Finding CheckClock(const Surroundings& around);

// A small text file's first line, fit for a terminal; empty when it cannot be read.
[[nodiscard]] std::string FirstLine(const char* path);

}  // namespace kestrelbridge::tools
