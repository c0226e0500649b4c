#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/Clock.h"
#include "ipc/SyncProtocolSharedTypes.h"

namespace guardian {

// A text field of the wire: a length byte and 255 bytes, of which those beyond the length are
// ignored.
struct TShortText {
  std::uint8_t Length;
  std::array<char, 255> Characters;

  // Stays valid as long as the field.
  [[nodiscard]] std::string_view Text() const noexcept { return {Characters.data(), Length}; }

  // Keeps the first 255 bytes of the text; the rest of the field becomes zero.
  void Set(std::string_view text) noexcept;
};

// The record of the scheduler protocol, as it stands on the wire: 3209 bytes without padding, in
// the byte order of the machine that both ends run on. A frame carries one or more of them back to
// back. Fields whose name ends in a number are the daemon's own; the Guardian does not read them.
#pragma pack(push, 1)
struct TSyncCommRecord {
  std::uint8_t Command;  // TSyncCommMessages; set by the sender of a command.
  std::uint8_t Message2;
  std::array<std::uint8_t, 4> Flags1;
  std::int32_t Number1;
  TDateTime TimeStamp1;
  TDateTime TimeStamp2;
  TShortText StatusText;  // Logged for tsaStatusUpdate.
  TShortText DetailText;  // Logged after ": ".
  TShortText Text3;
  TShortText Text4;
  std::array<std::int32_t, 10> Numbers;
  std::uint8_t Flag2;
  std::int32_t Number2;
  std::uint8_t SchedulerAction;  // TSchedulerActions; the kind of a status record.
  TShortText FirstText;          // Logged first.
  TShortText SecondText;         // Logged second.
  std::int32_t Number3;
  std::int32_t Number4;
  std::int64_t Pulse;  // With tsaSchedulerRunning.
  std::int64_t Number5;
  std::int32_t Number6;
  std::int32_t Number7;
  TShortText Text7;
  TShortText Text8;
  TDateTime TimeStamp3;
  TDateTime TimeStamp4;
  TShortText Text9;
  TShortText Text10;
  TShortText Text11;
  std::uint64_t Number8;
  std::uint64_t Number9;
  std::uint8_t SchedulerType;  // TSchedulerType.
  TShortText Text12;
};
#pragma pack(pop)

inline constexpr std::size_t kSyncCommRecordBytes = 3209;

static_assert(sizeof(TSyncCommRecord) == kSyncCommRecordBytes);
static_assert(offsetof(TSyncCommRecord, Command) == 0);
static_assert(offsetof(TSyncCommRecord, Message2) == 1);
static_assert(offsetof(TSyncCommRecord, Flags1) == 2);
static_assert(offsetof(TSyncCommRecord, Number1) == 6);
static_assert(offsetof(TSyncCommRecord, TimeStamp1) == 10);
static_assert(offsetof(TSyncCommRecord, TimeStamp2) == 18);
static_assert(offsetof(TSyncCommRecord, StatusText) == 26);
static_assert(offsetof(TSyncCommRecord, DetailText) == 282);
static_assert(offsetof(TSyncCommRecord, Text3) == 538);
static_assert(offsetof(TSyncCommRecord, Text4) == 794);
static_assert(offsetof(TSyncCommRecord, Numbers) == 1050);
static_assert(offsetof(TSyncCommRecord, Flag2) == 1090);
static_assert(offsetof(TSyncCommRecord, Number2) == 1091);
static_assert(offsetof(TSyncCommRecord, SchedulerAction) == 1095);
static_assert(offsetof(TSyncCommRecord, FirstText) == 1096);
static_assert(offsetof(TSyncCommRecord, SecondText) == 1352);
static_assert(offsetof(TSyncCommRecord, Number3) == 1608);
static_assert(offsetof(TSyncCommRecord, Number4) == 1612);
static_assert(offsetof(TSyncCommRecord, Pulse) == 1616);
static_assert(offsetof(TSyncCommRecord, Number5) == 1624);
static_assert(offsetof(TSyncCommRecord, Number6) == 1632);
static_assert(offsetof(TSyncCommRecord, Number7) == 1636);
static_assert(offsetof(TSyncCommRecord, Text7) == 1640);
static_assert(offsetof(TSyncCommRecord, Text8) == 1896);
static_assert(offsetof(TSyncCommRecord, TimeStamp3) == 2152);
static_assert(offsetof(TSyncCommRecord, TimeStamp4) == 2160);
static_assert(offsetof(TSyncCommRecord, Text9) == 2168);
static_assert(offsetof(TSyncCommRecord, Text10) == 2424);
static_assert(offsetof(TSyncCommRecord, Text11) == 2680);
static_assert(offsetof(TSyncCommRecord, Number8) == 2936);
static_assert(offsetof(TSyncCommRecord, Number9) == 2944);
static_assert(offsetof(TSyncCommRecord, SchedulerType) == 2952);
static_assert(offsetof(TSyncCommRecord, Text12) == 2953);

// The bytes of a command: all zero but the command itself.
[[nodiscard]] std::string CommandRecord(TSyncCommMessages command);

// Cuts the next record off a payload. Returns nothing when the bytes left are no whole number of
// records; such a rest is to be ignored.
[[nodiscard]] std::optional<TSyncCommRecord> TakeRecord(std::string_view& payload);

// The record's bytes as they travel.
[[nodiscard]] std::string RecordBytes(const TSyncCommRecord& record);

}  // namespace guardian
