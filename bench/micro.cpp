// bench_micro: the small functions that are run for every frame, unit or record, with Google
// Benchmark.
//
//   bench_micro CLIP [options of Google Benchmark]

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "camera/command_frame_scanner.h"
#include "camera/crc.h"
#include "camera/packet_format.h"
#include "h264parse.h"
#include "state/camera_state.h"
#include "state/status_decoding.h"
#include "state/telemetry.h"
#include "tools/camera/camera_assignment.h"
#include "tools/camera/camera_pushes.h"
#include "tools/camera/clip.h"

namespace {

using namespace kestrelbridge;
using namespace kestrelbridge::tools;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kFrameBytes = 255;  // the longest frame
constexpr std::size_t kBatchBytes = 650;  // two datagrams of pushes, as the daemon gathers them

Bytes RandomBytes(std::size_t count) {
  std::mt19937 random(1);
  Bytes bytes(count);
  std::ranges::generate(bytes, [&] { return static_cast<std::uint8_t>(random()); });
  return bytes;
}

Bytes Pushes() {
  std::uint16_t frame_sequence = 0;
  Bytes batch;
  while (batch.size() < kBatchBytes) {
    const Bytes pushes = BuildPushes(StartModel({}), Histogram{}, frame_sequence);
    batch.insert(batch.end(), pushes.begin(), pushes.end());
  }
  return batch;
}

// What costs the scanner most: a datagram of headers with a right CRC-8, four bytes apart, each of
// which claims to open the longest frame.
Bytes OverlappingHeaders() {
  constexpr std::size_t kLargestPayload = 1452;
  const Bytes start = {kFrameStart, kFrameBytes, 0x04};
  Bytes batch;
  while (batch.size() < kLargestPayload) {
    batch.insert(batch.end(), start.begin(), start.end());
    batch.push_back(FrameCrc8(start));
  }
  return batch;
}

void CountBytes(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

template <auto crc>
void Crc(benchmark::State& state) {
  const Bytes bytes = RandomBytes(kFrameBytes);
  for (auto _ : state) {
    benchmark::DoNotOptimize(crc(bytes));
  }
  CountBytes(state, bytes.size());
}

// What is found is decoded into the state record too.
void Scan(benchmark::State& state, const Bytes& batch) {
  for (auto _ : state) {
    ScanCommandFrames(batch, DecodeSoundFrame);
  }
  CountBytes(state, batch.size());
}

void ParameterSet(benchmark::State& state, std::span<const std::uint8_t> parameter_set) {
  H264Parse parser;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(parser.ParseSps(
        parameter_set.data(), static_cast<std::uint32_t>(parameter_set.size()), &width, &height));
  }
  CountBytes(state, parameter_set.size());
}

void Telemetry(benchmark::State& state) {
  ScanCommandFrames(Pushes(), DecodeSoundFrame);
  const CameraState camera = SnapshotCameraState();
  for (auto _ : state) {
    benchmark::DoNotOptimize(BuildTextRecord(camera));
  }
  CountBytes(state, BuildTextRecord(camera).length);
}

// The bytes of the clip's first parameter set behind its NAL unit header, up to the next start
// code.
std::span<const std::uint8_t> FirstParameterSet(std::span<const std::uint8_t> clip) {
  constexpr std::size_t kHeaderEnd = 5;  // 00 00 00 01 67
  constexpr std::array<std::uint8_t, 3> kStartCode = {0, 0, 1};
  const auto body = clip.subspan(kHeaderEnd);
  const auto next = std::search(body.begin(), body.end(), kStartCode.begin(), kStartCode.end());
  return body.first(static_cast<std::size_t>(next - body.begin()));
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc < 2) {
    std::fprintf(stderr, "usage: bench_micro CLIP [options]\n");
    return 1;
  }
  const Bytes clip = ReadClip(argv[1]);
  benchmark::RegisterBenchmark("CRC-8, longest frame", Crc<FrameCrc8>);
  benchmark::RegisterBenchmark("CRC-16, longest frame", Crc<FrameCrc16>);
  benchmark::RegisterBenchmark("scanner, status pushes", Scan, Pushes());
  benchmark::RegisterBenchmark("scanner, noise", Scan, RandomBytes(kBatchBytes));
  benchmark::RegisterBenchmark("scanner, start bytes only", Scan, Bytes(kBatchBytes, 0x55));
  benchmark::RegisterBenchmark("scanner, overlapping headers", Scan, OverlappingHeaders());
  benchmark::RegisterBenchmark("parameter set", ParameterSet, FirstParameterSet(clip));
  benchmark::RegisterBenchmark("telemetry text", Telemetry);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
} catch (const std::exception& error) {
  std::fprintf(stderr, "bench_micro: %s\n", error.what());
  return 1;
}
