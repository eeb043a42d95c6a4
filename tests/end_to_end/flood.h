// More datagrams than anybody asked for.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

#include "support/camera_datagrams.h"
#include "support/peer_socket.h"

namespace kestrelbridge::test {

// Sends the datagrams to each of the ports, again and again, as fast as the machine can, for as
// long as it lives.
class Flood {
 public:
  Flood(std::vector<std::uint16_t> ports, std::vector<Bytes> datagrams)
      : thread_([this, ports = std::move(ports), datagrams = std::move(datagrams)] {
          while (!stop_) {
            for (const Bytes& datagram : datagrams) {
              for (const std::uint16_t port : ports) {
                socket_.Send(datagram, {.host = "127.0.0.1", .port = port});
              }
              sent_per_port_.fetch_add(1);
            }
          }
        }) {}
  Flood(const Flood&) = delete;
  Flood& operator=(const Flood&) = delete;
  ~Flood() {
    stop_ = true;
    thread_.join();
  }
  int sent_per_port() const { return sent_per_port_; }

 private:
  const PeerSocket socket_;
  std::atomic<bool> stop_{false};
  std::atomic<int> sent_per_port_{0};
  std::thread thread_;
};

}  // namespace kestrelbridge::test
