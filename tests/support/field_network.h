// The network of the field: three hosts with a network namespace each, joined by two links.
//
//     camera                        box                          phone
//   192.168.2.1  ------  192.168.2.20   10.42.0.1  ------  10.42.0.2, default way: the box
//       wlan0                 wlan0     wlan1                 wlan0
//
// The box forwards, but translates nothing by itself. The camera knows its own network only, so it
// has no way to answer the phone.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "support/udp_socket.h"

namespace kestrelbridge {

inline constexpr char kCameraHost[] = "camera";
inline constexpr char kBoxHost[] = "box";
inline constexpr char kPhoneHost[] = "phone";

inline constexpr char kAccessPointInterface[] = "wlan1";
inline constexpr char kPhoneAddress[] = "10.42.0.2";

// Set up for as long as the object lives; one at a time. Needs the programs ip and nsenter; throws
// when the network cannot be set up, which fails the test.
class FieldNetwork {
 public:
  FieldNetwork();
  FieldNetwork(const FieldNetwork&) = delete;
  FieldNetwork& operator=(const FieldNetwork&) = delete;
  ~FieldNetwork();
};

// The command, to be run on that host: for ChildProcess, whose process is then the program itself.
std::vector<std::string> OnHost(const std::string& host, const std::vector<std::string>& command);

// While it lives, this thread opens its sockets on that host.
class HostScope {
 public:
  explicit HostScope(const std::string& host);
  HostScope(const HostScope&) = delete;
  HostScope& operator=(const HostScope&) = delete;
  ~HostScope();

 private:
  int home_ = -1;
};

// An object that opens sockets, made on that host.
template <typename Object, typename... Arguments>
Object MakeOnHost(const std::string& host, Arguments&&... arguments) {
  const HostScope there(host);
  return Object(std::forward<Arguments>(arguments)...);
}

}  // namespace kestrelbridge
