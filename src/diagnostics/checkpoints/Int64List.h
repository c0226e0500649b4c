#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace guardian {

class TCheckpointRecord;

// A named list of thread ids, sorted, with a checkpoint record each; a duplicate is ignored.
// Owner: the checkpoint facility. The list shares the records with their threads.
// Threads: not synchronised; the owner's lock guards it.
class TInt64List {
 public:
  struct TItem {
    std::int64_t Id = 0;
    std::shared_ptr<TCheckpointRecord> Record;
  };
  using TItems = std::vector<TItem>;

  TInt64List(std::string name, std::size_t capacity);
  TInt64List(const TInt64List&) = delete;
  TInt64List& operator=(const TInt64List&) = delete;

  // Does nothing when the id is listed already.
  void Add(std::int64_t id, std::shared_ptr<TCheckpointRecord> record);

  // Does nothing when the id is not listed.
  void Delete(std::int64_t id);

  // The id's record, null when it is not listed.
  [[nodiscard]] std::shared_ptr<TCheckpointRecord> Find(std::int64_t id) const;

  // Ascending by id.
  [[nodiscard]] const TItems& Items() const noexcept { return FItems; }

  [[nodiscard]] const std::string& Name() const noexcept { return FName; }

 private:
  const std::string FName;
  TItems FItems;
};

}  // namespace guardian
