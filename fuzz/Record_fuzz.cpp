// Input: a byte whose lowest bit fills the payload up to whole records, the payload of a frame.

#include <array>
#include <cstring>
#include <string>
#include <string_view>

#include "Fuzz.h"
#include "common/Texts.h"
#include "ipc/SyncCommTypes.h"

namespace guardian {
namespace {

// Where the record has its short texts.
constexpr std::array<std::size_t, 12> kTextOffsets = {26,   282,  538,  794,  1096, 1352,
                                                      1640, 1896, 2168, 2424, 2680, 2953};

void CheckText(std::string_view bytes, std::size_t offset) {
  TShortText text;
  std::memcpy(&text, bytes.data() + offset, sizeof(text));
  const auto length = static_cast<std::uint8_t>(bytes[offset]);
  Require(text.Text() == bytes.substr(offset + 1, length), "a short text is read wrongly");
  const std::string shown = HtmlEscape(text.Text());
  Require(shown.find_first_of("<>\"") == std::string::npos, "a short text is shown as markup");
  Require(HtmlDecode(shown) == text.Text(), "an escaped text does not come back");
}

void CheckSet(std::string_view text) {
  TShortText shortText{};
  shortText.Set(text);
  Require(shortText.Text() == text.substr(0, 255), "a short text is not what was set");
  for (std::size_t i = shortText.Length; i < shortText.Characters.size(); ++i) {
    Require(shortText.Characters.at(i) == '\0', "something stands behind a short text");
  }
}

void CheckRecord(const TSyncCommRecord& record, std::string_view bytes) {
  Require(RecordBytes(record) == bytes, "a record does not travel unchanged");
  for (const std::size_t offset : kTextOffsets) CheckText(bytes, offset);
  Require(!NameOf(static_cast<TSyncCommMessages>(record.Command)).empty(), "a nameless message");
  Require(!NameOf(static_cast<TSchedulerActions>(record.SchedulerAction)).empty(),
          "a nameless action");
}

void CheckPayload(std::string_view payload) {
  constexpr std::size_t kBytes = 3209;
  const std::size_t expected = payload.size() % kBytes == 0 ? payload.size() / kBytes : 0;
  std::string_view rest = payload;
  std::size_t records = 0;
  while (const auto record = TakeRecord(rest)) {
    CheckRecord(*record, payload.substr(records * kBytes, kBytes));
    ++records;
  }
  Require(records == expected, "another number of records than there is");
  Require(rest.size() == payload.size() - records * kBytes, "the rest is not what was left");
}

}  // namespace
}  // namespace guardian

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  guardian::TFuzzInput input(data, size);
  const bool fill = (input.Byte() & 1U) != 0;
  std::string payload(input.Rest());
  guardian::CheckSet(payload);
  if (fill) {
    const std::size_t records = payload.size() / guardian::kSyncCommRecordBytes + 1;
    payload.resize(records * guardian::kSyncCommRecordBytes);
  }
  guardian::CheckPayload(payload);
  return 0;
}
