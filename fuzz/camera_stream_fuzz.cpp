// Whatever sequence of datagrams the camera sends, the ring stays in order, its reader gets exactly
// the units that were published, and each unit is acknowledged at most once.
//
//   input: records     1 byte    bits 0-3: sent so many times more; bit 6: another process spoils
//                                write_index first, with the datagram's length;
//                                bit 7: the datagram's length fields and check sums are set right
//                      2 bytes   length of the datagram (modulo 10,001)
//                      ...       the datagram; where the input ends, zeros up to that length

#include <array>
#include <memory>

#include "camera/packet_format.h"
#include "fuzz/fuzz_stage.h"
#include "kestrelbridge/frame_block.h"
#include "session/camera_stream.h"
#include "support/camera_datagrams.h"
#include "support/mapped_block.h"
#include "tools/wire/unit_header.h"
#include "video/frame_buffers.h"

namespace kestrelbridge::test {
namespace {

constexpr std::size_t kLongestDatagram = 10'000;
using tools::kUnitHeaderEnd;
using tools::kUnitLengthOffset;

bool OpensUnit(std::span<const std::uint8_t> datagram) {
  return datagram.size() >= kUnitHeaderEnd && datagram[kWrapperKindOffset] == kKindVideo &&
         tools::HasUnitHeader(datagram);
}

// The ring as another process maps it.
class Ring {
 public:
  Ring() {
    Require(InitFrameBuffers() == 0, "the frame memory can be had");
    static const MappedBlock mapped(kFrameBlockName);
    block_ = mapped.data();
    reader_ = std::make_unique<FrameBlockReader>(block_);
  }

  void SpoilWriteIndex(std::uint16_t index) {
    StoreShared16(block_ + kWriteIndexOffset, index, __ATOMIC_RELAXED);
    write_index_ = index;
  }

  // After each datagram.
  void LookForUnit(std::span<const std::uint8_t> datagram) {
    const std::uint16_t before = write_index_;
    write_index_ = LoadShared16(block_ + kWriteIndexOffset, __ATOMIC_RELAXED);
    if (write_index_ != before) {
      Require(OpensUnit(datagram), "a unit is published when the next one opens");
      RequireUnitIn(clear_pending_ || before >= kSlotCount ? 0 : before);
    }
    if (OpensUnit(datagram)) {
      announced_length_ = LoadLe16(datagram, kUnitLengthOffset);
    }
  }

 private:
  void RequireUnitIn(std::uint16_t slot) {
    Require(write_index_ == (slot + 1) % kSlotCount, "a unit takes the one slot that is next");
    const std::span<const std::uint8_t> header(block_ + SlotOffset(slot), kSlotHeaderSize);
    const std::uint32_t length = LoadLe32(header, kChunkLengthOffset);
    Require(length == announced_length_ && length > 4, "a unit is as long as its header announced");
    Require(LoadLe16(header, kUnitSequenceOffset) == sequence_ &&
                LoadLe16({block_, kFrameBlockHeaderSize}, kLastSequenceOffset) == sequence_,
            "units are numbered without a gap");
    Require(header[kChunkIndexOffset] == 0 && header[kSlotReservedOffset] == 0 &&
                std::ranges::count(header.subspan(kSlotFlagsOffset), 1) == kSlotFlagCount,
            "the slot's other fields are as documented");
    const std::uint8_t* payload = block_ + SlotOffset(slot) + kSlotHeaderSize;
    Require(std::ranges::equal(std::span(payload, 4), std::array{0, 0, 0, 1}),
            "a unit opens with a start code");
    Require(LoadLe16({block_, 2}, kClearRequestOffset) == 0 &&
                std::ranges::count(std::span(block_ + 6, 18), 0) == 18,
            "the block's other fields are as documented");
    Require(reader_->Next(unit_) && std::ranges::equal(unit_, std::span(payload, length)),
            "the reader gets the unit, at once and whole");
    Require(!reader_->Next(unit_), "the reader gets a unit once");
    ++sequence_;
    clear_pending_ = false;
  }

  std::uint8_t* block_ = nullptr;
  std::unique_ptr<FrameBlockReader> reader_;
  std::vector<std::uint8_t> unit_;
  std::uint16_t write_index_ = 0;
  std::uint16_t announced_length_ = 0;
  bool clear_pending_ = true;  // the first unit of all empties the ring
  std::uint16_t sequence_ = 0;
};

void MakeSound(std::span<std::uint8_t> datagram) {
  if (OpensUnit(datagram)) {
    StoreLe16(datagram, kUnitLengthOffset,
              static_cast<std::uint16_t>(datagram.size() - kUnitHeaderEnd));
  } else if (datagram.size() > kReceivedWrapperSize) {
    SealFrames(datagram.subspan(kReceivedWrapperSize));
  }
}

void Process(Ring& ring, std::span<const std::uint8_t> datagram) {
  Require(ProcessCameraDatagram(datagram) == 0, "it always returns 0");
  ring.LookForUnit(datagram);
  RequireSoundPackets(1);
}

// Ends the unit and the batch in progress, so that no input depends on the one before.
void ComeToRest(Ring& ring) {
  Process(ring, UnitHeaderDatagram(0, 0, {}));
  Process(ring, CommandDataDatagram(0, EmptyCommandData()));
}

}  // namespace
}  // namespace kestrelbridge::test

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace kestrelbridge;
  using namespace kestrelbridge::test;
  static Ring ring;
  FuzzInput input(data, size);
  while (!input.empty()) {
    const std::uint8_t flags = input.Byte();
    const std::uint16_t length = input.Le16();
    std::vector<std::uint8_t> datagram = ExactCopy(input.Bytes(length % (kLongestDatagram + 1)));
    if (input.empty()) {
      datagram.resize(length % (kLongestDatagram + 1));
    }
    if ((flags & 0x40) != 0) {
      ring.SpoilWriteIndex(length);
    }
    if ((flags & 0x80) != 0) {
      MakeSound(datagram);
    }
    for (int times = 0; times <= (flags & 0x0F); ++times) {
      Process(ring, datagram);
    }
  }
  ComeToRest(ring);
  return 0;
}
