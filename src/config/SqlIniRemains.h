#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>

// NOLINTNEXTLINE(readability-identifier-naming): the library's name.
namespace SQLite {
class Database;
class Statement;
}  // namespace SQLite

namespace guardian {

class TSqlIniComponents;
class TSqlIniScan;

// What a damaged store still answers: rows by their ids, names and keys by the indexes, values by
// the look-ups of a store. Each look-up is made for itself, so a damaged page costs what is on it.
// Nothing is written to the damaged store. Every operation throws SQLite::Exception for an error
// that does not tell of damage.
// Owner: the repair.
// Threads: not shared.
// Lifetime: the connection outlives it. Nobody may write to the damaged store meanwhile.
class TSqlIniRemains {
 public:
  explicit TSqlIniRemains(SQLite::Database& damaged);
  ~TSqlIniRemains();
  TSqlIniRemains(const TSqlIniRemains&) = delete;
  TSqlIniRemains& operator=(const TSqlIniRemains&) = delete;

  // Takes over the rows that can be read by their ids; of two rows of a key the later. Keys of a
  // section with two ids come together. Call it while all that the target has comes from the
  // damaged store: a new section could get an id that lost sections of that store have.
  void TakeRows(TSqlIniComponents& target);
  // Makes the target answer each look-up that the damaged store answers as that does.
  void TakeAnswers(TSqlIniComponents& target);

  // How many values the target did not have, or not so.
  [[nodiscard]] std::int64_t Taken() const noexcept { return FTaken; }

 private:
  using TKey = std::pair<std::int64_t, std::string>;  // The id of a section, the name of a key.
  using TVisitRow = std::function<void(std::int64_t id, const SQLite::Statement& row)>;

  void FindIndexedSections();
  void FindRows();
  void FindIndexedRows(std::set<std::string> knownNames);
  // Visits name, section and value of each row that can be read and that has a key.
  void VisitRows(const TVisitRow& visit);
  void TakeRow(std::int64_t id, const SQLite::Statement& row, TSqlIniComponents& target);
  // The id of the damaged store's section there, which gets the section's name if need be.
  [[nodiscard]] std::int64_t IdInTarget(std::int64_t section, TSqlIniComponents& target);
  void TakeSection(const std::string& name, TSqlIniComponents& target);
  void TakeAnswer(const std::string& section, std::int64_t id, const std::string& key,
                  TSqlIniComponents& target);
  [[nodiscard]] bool HasLaterRow(std::int64_t id, const std::string& key, std::int64_t latest);
  void Put(const std::string& value, std::int64_t sectionId, const std::string& key,
           TSqlIniComponents& target);

  SQLite::Database& FDamaged;
  std::int64_t FMaxRows = 0;  // More than fit into the file.
  std::multimap<std::int64_t, std::string> FIndexedSections;
  std::map<std::int64_t, std::int64_t> FIdsInTarget;  // Of sections, by their ids here.
  std::set<TKey> FIndexedKeys;
  std::multimap<std::int64_t, TKey> FIndexedRows;  // By their ids.
  std::map<TKey, std::int64_t> FLatest;            // The id of the last row of a key in the target.
  std::set<std::int64_t> FRows;                    // The ids of rows that may be readable.
  std::unique_ptr<TSqlIniScan> FRowById;
  std::unique_ptr<TSqlIniScan> FSectionById;
  std::unique_ptr<TSqlIniScan> FSectionByName;
  std::unique_ptr<TSqlIniScan> FValueByName;
  std::int64_t FTaken = 0;
};

}  // namespace guardian
