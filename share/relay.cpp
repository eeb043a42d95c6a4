#include "share/relay.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <span>

#include "base/text_file.h"
#include "share/latest_records.h"
#include "share/share_counters.h"
#include "share/share_metrics.h"
#include "share/sockets.h"

namespace kestrelbridge::share {
namespace {

constexpr mode_t kTelemetryMode = 0666;  // telemetry is no secret on this box, and read only
constexpr mode_t kControlMode = 0660;
constexpr std::size_t kMostConnections = 256;    // of each socket
constexpr std::size_t kMostCommandSize = 9'999;  // what the daemon takes
constexpr int kConsumerBuffer = 65'536;  // seconds of telemetry, and a bound for what lies unread
constexpr int kMostAtOnce = 64;  // datagrams of one socket before the others have their turn

using Connections = std::map<int, OwnedDescriptor>;  // by descriptor

struct Share {
  OwnedDescriptor events;
  OwnedDescriptor daemon_socket;    // telemetry in, commands out
  OwnedDescriptor main_app_socket;  // telemetry out, commands in
  OwnedDescriptor telemetry_listener;
  OwnedDescriptor control_listener;
  OwnedDescriptor tick;         // once a second: the metrics file
  OwnedDescriptor stop_signal;  // SIGINT and SIGTERM
  Connections consumers;
  Connections commanders;
  UdpPeer main_app;
  UdpPeer daemon;  // who sent the latest telemetry; port 0 before the first
  LatestRecords latest;
  ShareCounters counters;
  std::string metrics_path;
  std::array<std::uint8_t, 65'536> buffer{};  // any datagram, so that none is cut
};

void Watch(const Share& share, int descriptor, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  if (epoll_ctl(share.events.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
    throw StartError(std::string("cannot watch a socket: ") + std::strerror(errno));
  }
}

// One datagram that has arrived; an empty span when there is none. `from` is who sent it.
std::span<const std::uint8_t> TakeDatagram(Share& share, int socket, UdpPeer& from) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  const ssize_t length = recvfrom(socket, share.buffer.data(), share.buffer.size(), 0,
                                  reinterpret_cast<sockaddr*>(&address), &size);
  if (length <= 0) {
    return {};  // an empty datagram is nobody's record or command, and would end the daemon
  }
  from = ToPeer(address);
  return std::span(share.buffer).first(static_cast<std::size_t>(length));
}

bool SendDatagram(int socket, std::span<const std::uint8_t> datagram, UdpPeer to) {
  const sockaddr_in address = ToSockaddr(to);
  return sendto(socket, datagram.data(), datagram.size(), 0,
                reinterpret_cast<const sockaddr*>(&address), sizeof address) != -1;
}

void Give(Share& share, int consumer, std::span<const std::uint8_t> record) {
  const ssize_t sent = send(consumer, record.data(), record.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  ++(sent != -1 ? share.counters.delivered : share.counters.dropped);
}

// --- the daemon and the main application
// ----------------------------------------------------------

void PassTelemetryOn(Share& share) {
  for (int i = 0; i < kMostAtOnce; ++i) {
    UdpPeer from;
    const auto record = TakeDatagram(share, share.daemon_socket.get(), from);
    if (record.empty()) {
      return;
    }
    share.daemon = from;
    if (!SendDatagram(share.main_app_socket.get(), record, share.main_app)) {
      ++share.counters.forward_failures;
    }
    for (const auto& [descriptor, consumer] : share.consumers) {
      Give(share, descriptor, record);
    }
    ++share.counters.records[static_cast<std::size_t>(KindOf(record))];
    Keep(share.latest, record, Clock::now());
  }
}

// Only whole commands that the daemon can take: it would end at an empty one, and cut a longer one.
void PassCommandOn(Share& share, std::span<const std::uint8_t> command, CommandSource source) {
  const bool passed = !command.empty() && command.size() <= kMostCommandSize &&
                      share.daemon.port != 0 &&
                      SendDatagram(share.daemon_socket.get(), command, share.daemon);
  ++(passed ? share.counters.commands
            : share.counters.commands_refused)[static_cast<std::size_t>(source)];
}

void TakeMainAppCommands(Share& share) {
  for (int i = 0; i < kMostAtOnce; ++i) {
    UdpPeer from;
    const auto command = TakeDatagram(share, share.main_app_socket.get(), from);
    if (command.empty()) {
      return;
    }
    if (from.address == share.main_app.address) {
      PassCommandOn(share, command, CommandSource::kMainApp);
    }
  }
}

// --- the local sockets
// ----------------------------------------------------------------------------

// The next connection, if it is within the limit; else it is closed at once.
int Accept(Share& share, const OwnedDescriptor& listener, Connections& connections) {
  OwnedDescriptor connection(
      accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (connection.get() == -1) {
    return -1;
  }
  if (connections.size() >= kMostConnections) {
    ++share.counters.connections_refused;
    return -1;
  }
  const int descriptor = connection.get();
  connections.emplace(descriptor, std::move(connection));
  return descriptor;
}

void AcceptConsumer(Share& share) {
  const int consumer = Accept(share, share.telemetry_listener, share.consumers);
  if (consumer == -1) {
    return;
  }
  ++share.counters.consumers_seen;
  setsockopt(consumer, SOL_SOCKET, SO_SNDBUF, &kConsumerBuffer, sizeof kConsumerBuffer);
  shutdown(consumer, SHUT_RD);  // whoever writes there learns at once that it is read only
  Watch(share, consumer, 0);    // its end is always reported
  const Clock::time_point now = Clock::now();
  for (const LatestRecords::Entry& entry : share.latest.entries) {
    if (const auto record = Fresh(entry, now); !record.empty()) {
      Give(share, consumer, record);
    }
  }
}

void AcceptCommander(Share& share) {
  const int commander = Accept(share, share.control_listener, share.commanders);
  if (commander != -1) {
    Watch(share, commander, EPOLLIN);
  }
}

// One command at a time: a flood of one commander is not in the way of the others.
void TakeCommand(Share& share, int commander) {
  const ssize_t length =
      recv(commander, share.buffer.data(), share.buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
  if (length == 0 || (length == -1 && errno != EAGAIN && errno != EINTR)) {
    share.commanders.erase(commander);
  } else if (length > static_cast<ssize_t>(share.buffer.size())) {
    PassCommandOn(share, {}, CommandSource::kControlSocket);  // refused, and counted so
  } else if (length > 0) {
    PassCommandOn(share, std::span(share.buffer).first(static_cast<std::size_t>(length)),
                  CommandSource::kControlSocket);
  }
}

// --- the loop
// -------------------------------------------------------------------------------------

OwnedDescriptor OpenTick() {
  OwnedDescriptor timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  const itimerspec every_second = {.it_interval = {.tv_sec = 1, .tv_nsec = 0},
                                   .it_value = {.tv_sec = 1, .tv_nsec = 0}};
  timerfd_settime(timer.get(), 0, &every_second, nullptr);
  return timer;
}

OwnedDescriptor OpenStopSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return OwnedDescriptor(signalfd(-1, &signals, SFD_CLOEXEC));
}

void WriteMetrics(Share& share) {
  std::uint64_t ticks = 0;
  [[maybe_unused]] const ssize_t taken = read(share.tick.get(), &ticks, sizeof ticks);
  // A folder that is gone is no reason to stop the telemetry.
  [[maybe_unused]] const int written = ReplaceTextFile(
      share.metrics_path.c_str(), ShareMetricsText(share.counters, share.consumers.size()));
}

void Handle(Share& share, const epoll_event& event) {
  const int descriptor = event.data.fd;
  if (descriptor == share.daemon_socket.get()) {
    PassTelemetryOn(share);
  } else if (descriptor == share.main_app_socket.get()) {
    TakeMainAppCommands(share);
  } else if (descriptor == share.telemetry_listener.get()) {
    AcceptConsumer(share);
  } else if (descriptor == share.control_listener.get()) {
    AcceptCommander(share);
  } else if (descriptor == share.tick.get()) {
    WriteMetrics(share);
  } else if (share.consumers.contains(descriptor)) {
    share.consumers.erase(descriptor);  // nothing but its end is reported
  } else if (share.commanders.contains(descriptor)) {
    TakeCommand(share, descriptor);
  }
}

void RelayUntilStopped(Share& share) {
  std::array<epoll_event, 64> events{};
  for (;;) {
    const int count = epoll_wait(share.events.get(), events.data(), events.size(), -1);
    for (int i = 0; i < count; ++i) {
      if (events[static_cast<std::size_t>(i)].data.fd == share.stop_signal.get()) {
        return;
      }
      Handle(share, events[static_cast<std::size_t>(i)]);
    }
  }
}

// Commands of the main application come from its own machine: a socket on the loopback is enough
// when that is this one, and nobody else can reach it there.
UdpPeer PlaceForMainApp(UdpPeer main_app) {
  const bool is_local = (ntohl(main_app.address) >> 24) == IN_LOOPBACKNET;
  return {.address = htonl(is_local ? INADDR_LOOPBACK : INADDR_ANY), .port = 0};
}

void OpenAll(Share& share, const ShareOptions& options) {
  share.main_app = options.main_app;
  share.metrics_path = options.folder + "/share.prom";
  share.events = OwnedDescriptor(epoll_create1(EPOLL_CLOEXEC));
  share.stop_signal = OpenStopSignal();
  share.daemon_socket = OpenUdpSocket(options.listen);
  share.main_app_socket = OpenUdpSocket(PlaceForMainApp(options.main_app));
  share.telemetry_listener = ListenAt(options.folder + "/telemetry", kTelemetryMode, "");
  share.control_listener = ListenAt(options.folder + "/control", kControlMode, options.group);
  share.tick = OpenTick();
  for (const int descriptor :
       {share.stop_signal.get(), share.daemon_socket.get(), share.main_app_socket.get(),
        share.telemetry_listener.get(), share.control_listener.get(), share.tick.get()}) {
    Watch(share, descriptor, EPOLLIN);
  }
}

}  // namespace

void RunShare(const ShareOptions& options) {
  Share share;
  OpenAll(share, options);
  RelayUntilStopped(share);
  unlink((options.folder + "/telemetry").c_str());
  unlink((options.folder + "/control").c_str());
}

}  // namespace kestrelbridge::share
