// Whatever stands in the frame block, its reader reads nothing outside of it, hands out chunks that
// fit, and comes to an end.
//
//   input: records     1 byte    what happens to the block, or who reads it
//                      ...       its arguments, below

#include <optional>

#include "fuzz/fuzz_stage.h"
#include "kestrelbridge/frame_block.h"

namespace kestrelbridge::test {
namespace {

constexpr int kMostUnitsAtRest = 2 * kSlotCount;

// Of exactly the block's size, so that AddressSanitizer sees every step outside of it.
std::vector<std::uint8_t> block(kFrameBlockSize);
std::vector<std::uint8_t> unit;

std::span<std::uint8_t> SlotHeader(std::size_t slot) {
  return std::span(block).subspan(SlotOffset(slot), kSlotHeaderSize);
}

void Clear() {
  std::ranges::fill(std::span(block).first(kFrameBlockHeaderSize), std::uint8_t{0});
  for (std::size_t slot = 0; slot < kSlotCount; ++slot) {
    std::ranges::fill(SlotHeader(slot), std::uint8_t{0});
  }
}

void FillSlot(std::size_t slot, std::uint32_t length, std::uint16_t sequence, std::uint8_t index) {
  StoreLe32(SlotHeader(slot), kChunkLengthOffset, length);
  StoreLe16(SlotHeader(slot), kUnitSequenceOffset, sequence);
  SlotHeader(slot)[kChunkIndexOffset] = index;
}

// As the daemon would, `count` units more.
void Publish(std::uint8_t count, std::uint16_t first_sequence) {
  for (std::uint16_t i = 0; i < count; ++i) {
    const std::size_t slot = LoadLe16(block, kWriteIndexOffset) % kSlotCount;
    const auto sequence = static_cast<std::uint16_t>(first_sequence + i);
    FillSlot(slot, 10, sequence, 0);
    StoreLe16(block, kWriteIndexOffset, static_cast<std::uint16_t>((slot + 1) % kSlotCount));
    StoreLe16(block, kLastSequenceOffset, sequence);
  }
}

void ReadOne(FrameBlockReader& reader) {
  const FrameBlockReader::Counters before = reader.counters();
  const bool found = reader.Next(unit);
  const FrameBlockReader::Counters& after = reader.counters();
  Require(!found || (!unit.empty() && unit.size() <= kChunkCapacity), "a unit fits into a slot");
  Require(after.units == before.units + (found ? 1 : 0) &&
              after.bytes == before.bytes + (found ? unit.size() : 0),
          "what is handed out is counted");
  Require(found || !reader.Wait({}), "who found nothing does not spin");
}

void ReadAll(FrameBlockReader& reader) {
  const std::uint64_t at_start = reader.counters().units;
  for (std::uint64_t before = at_start - 1; before != reader.counters().units;) {
    before = reader.counters().units;
    ReadOne(reader);
    Require(before - at_start <= kMostUnitsAtRest, "a ring at rest is read once");
  }
}

enum Ways : std::uint8_t {
  kSetIndex,
  kSetNewest,
  kSetSlot,
  kPublish,
  kClear,
  kAttach,
  kRead,
  kWays
};

void Act(FuzzInput& input, std::optional<FrameBlockReader>& reader) {
  switch (input.Byte() % kWays) {
    case kSetIndex:
      StoreLe16(block, kWriteIndexOffset, input.Le16());
      break;
    case kSetNewest:
      StoreLe16(block, kLastSequenceOffset, input.Le16());
      break;
    case kSetSlot: {
      const std::size_t slot = input.Byte() % kSlotCount;
      const std::uint32_t length = input.Le32();
      const std::uint16_t sequence = input.Le16();
      FillSlot(slot, length, sequence, input.Byte());
      break;
    }
    case kPublish: {
      const std::uint8_t count = input.Byte();
      Publish(count, input.Le16());
      break;
    }
    case kClear:
      Clear();
      break;
    case kAttach:
      reader.emplace(block.data(), (input.Byte() & 1) != 0 ? FrameBlockReader::Start::kOldest
                                                           : FrameBlockReader::Start::kLive);
      break;
    default:
      ReadOne(*reader);
      break;
  }
}

}  // namespace
}  // namespace kestrelbridge::test

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kestrelbridge;
  using namespace kestrelbridge::test;
  Clear();
  std::optional<FrameBlockReader> reader(std::in_place, block.data());
  FuzzInput input(data, size);
  while (!input.empty()) {
    Act(input, reader);
  }
  ReadAll(*reader);
  return 0;
}
