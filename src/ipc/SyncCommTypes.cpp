#include "ipc/SyncCommTypes.h"

#include <algorithm>
#include <cstring>

namespace guardian {

void TShortText::Set(std::string_view text) noexcept {
  Length = static_cast<std::uint8_t>(std::min(text.size(), Characters.size()));
  const auto end = std::copy_n(text.data(), Length, Characters.begin());
  std::fill(end, Characters.end(), '\0');
}

std::string CommandRecord(TSyncCommMessages command) {
  std::string bytes(kSyncCommRecordBytes, '\0');
  bytes[offsetof(TSyncCommRecord, Command)] = static_cast<char>(command);
  return bytes;
}

std::optional<TSyncCommRecord> TakeRecord(std::string_view& payload) {
  if (payload.empty() || payload.size() % kSyncCommRecordBytes != 0) return std::nullopt;
  TSyncCommRecord record;
  std::memcpy(&record, payload.data(), sizeof(record));
  payload.remove_prefix(sizeof(record));
  return record;
}

std::string RecordBytes(const TSyncCommRecord& record) {
  std::string bytes(sizeof(record), '\0');
  std::memcpy(bytes.data(), &record, sizeof(record));
  return bytes;
}

}  // namespace guardian
