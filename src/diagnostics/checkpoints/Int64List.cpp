#include "diagnostics/checkpoints/Int64List.h"

#include <algorithm>
#include <utility>

#include "diagnostics/checkpoints/CheckpointRecord.h"

namespace guardian {
namespace {

// The first item whose id is not below the given one.
template <typename TSomeItems>
auto LowerBound(TSomeItems& items, std::int64_t id) {
  return std::lower_bound(
      items.begin(), items.end(), id,
      [](const TInt64List::TItem& item, std::int64_t wanted) { return item.Id < wanted; });
}

}  // namespace

TInt64List::TInt64List(std::string name, std::size_t capacity) : FName(std::move(name)) {
  FItems.reserve(capacity);
}

void TInt64List::Add(std::int64_t id, std::shared_ptr<TCheckpointRecord> record) {
  const auto position = LowerBound(FItems, id);
  if (position != FItems.end() && position->Id == id) return;
  FItems.insert(position, TItem{id, std::move(record)});
}

void TInt64List::Delete(std::int64_t id) {
  const auto position = LowerBound(FItems, id);
  if (position != FItems.end() && position->Id == id) FItems.erase(position);
}

std::shared_ptr<TCheckpointRecord> TInt64List::Find(std::int64_t id) const {
  const auto position = LowerBound(FItems, id);
  if (position == FItems.end() || position->Id != id) return nullptr;
  return position->Record;
}

}  // namespace guardian
