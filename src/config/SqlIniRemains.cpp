#include "config/SqlIniRemains.h"

#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>
#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <optional>

#include "config/SqlIniComponents.h"

namespace guardian {
namespace {

// A cell takes four bytes at least.
constexpr const char* kMaxRows =
    "SELECT page_count * page_size / 4 FROM pragma_page_count, pragma_page_size";
constexpr const char* kSectionIds = "SELECT ID, SECTIONNAME FROM SECTIONS NOT INDEXED WHERE ID>=?";
constexpr const char* kSectionIndex =
    "SELECT SECTIONNAME, ID FROM SECTIONS INDEXED BY sqlite_autoindex_SECTIONS_1 "
    "WHERE SECTIONNAME>=? ORDER BY SECTIONNAME";
constexpr const char* kRowIds = "SELECT ID FROM DATA NOT INDEXED WHERE ID>=? ORDER BY ID";
constexpr const char* kRowIndex =
    "SELECT NAME, SECTIONID, ID FROM DATA INDEXED BY sqlite_autoindex_DATA_1 "
    "WHERE NAME>=? ORDER BY NAME";
constexpr const char* kRowById =
    "SELECT NAME, SECTIONID, COALESCE(VALUE, BINVALUE) FROM DATA WHERE ID=?";
constexpr const char* kSectionByName = "SELECT ID FROM SECTIONS WHERE SECTIONNAME=?";
constexpr const char* kValueByName =
    "SELECT COALESCE(VALUE, BINVALUE) FROM DATA WHERE SECTIONID=? AND NAME=?";

enum class TStep { Row, End, Damage };

// The column, when it holds a name as a store takes it.
std::optional<std::string> NameIn(const SQLite::Column& column) {
  if (!column.isText()) return std::nullopt;
  std::string name = column.getString();
  if (name.find('\0') != std::string::npos) return std::nullopt;
  return name;
}

std::optional<std::int64_t> NextId(std::int64_t id) {
  if (id == std::numeric_limits<std::int64_t>::max()) return std::nullopt;
  return id + 1;
}

}  // namespace

// A statement over a damaged store that goes on where a row cannot be read. It finds nothing when
// the schema no longer has what the statement names.
class TSqlIniScan {
 public:
  TSqlIniScan(SQLite::Database& connection, const char* text) : FConnection(connection) {
    try {
      FStatement = std::make_unique<SQLite::Statement>(connection, text);
    } catch (const SQLite::Exception&) {
      const TSqlIniFault fault = CurrentSqlIniFault();
      if (fault != TSqlIniFault::Damaged && fault != TSqlIniFault::NoStore) throw;
    }
  }

  // The row that the parameters lead to; null when there is none or when it cannot be read. Valid
  // until the next call.
  template <typename... TParameter>
  [[nodiscard]] SQLite::Statement* Find(const TParameter&... parameters) {
    if (!FStatement) return nullptr;
    Begin(parameters...);
    return Step() == TStep::Row ? FStatement.get() : nullptr;
  }

  // Visits the rows from the key on; a visit returns the key of its row. Behind damage it goes on
  // at the key that `after` names for the last one, and ends when there is none. Damage can lead
  // round in circles, so it ends after `maxSteps` as well.
  template <typename TKey, typename TVisit, typename TAfter>
  void Walk(TKey key, std::int64_t maxSteps, const TVisit& visit, const TAfter& after) {
    std::optional<TKey> next = std::move(key);
    while (FStatement && next && maxSteps > 0) {
      Begin(*next);
      TStep step = TStep::Row;
      while (maxSteps-- > 0 && (step = Step()) == TStep::Row) {
        next = std::max<TKey>(*next, visit(*FStatement));
      }
      if (step != TStep::Damage) return;
      next = after(*next);
    }
  }

 private:
  template <typename... TParameter>
  void Begin(const TParameter&... parameters) {
    FStatement->tryReset();
    int index = 0;
    (FStatement->bind(++index, parameters), ...);
  }

  // What cannot be read for another reason than damage is not lost, so the repair has to wait.
  TStep Step() {
    const int code = FStatement->tryExecuteStep();
    switch (code & 0xFF) {
      case SQLITE_ROW:
        return TStep::Row;
      case SQLITE_DONE:
        return TStep::End;
      case SQLITE_CORRUPT:
      case SQLITE_NOTADB:
        return TStep::Damage;
      default:
        throw SQLite::Exception(FConnection.getHandle(), code);
    }
  }

  SQLite::Database& FConnection;
  std::unique_ptr<SQLite::Statement> FStatement;
};

TSqlIniRemains::TSqlIniRemains(SQLite::Database& damaged)
    : FDamaged(damaged),
      FRowById(std::make_unique<TSqlIniScan>(damaged, kRowById)),
      FSectionByName(std::make_unique<TSqlIniScan>(damaged, kSectionByName)),
      FValueByName(std::make_unique<TSqlIniScan>(damaged, kValueByName)) {
  TSqlIniScan size(damaged, kMaxRows);
  if (const SQLite::Statement* row = size.Find()) FMaxRows = row->getColumn(0).getInt64();
}

TSqlIniRemains::~TSqlIniRemains() = default;

void TSqlIniRemains::TakeRows(TSqlIniComponents& target) {
  FindSections();
  for (const auto& [id, name] : FSectionNames) target.NameSection(id, name);
  const auto visit = [this](const SQLite::Statement& row) {
    return *FRows.insert(row.getColumn(0).getInt64()).first;
  };
  TSqlIniScan(FDamaged, kRowIds).Walk<std::int64_t>(1, FMaxRows, visit, NextId);
  TakeEachRow(target);
  const std::size_t found = FRows.size();
  FindIndexedRows();
  if (FRows.size() > found) TakeEachRow(target);
}

void TSqlIniRemains::FindSections() {
  const auto visitRow = [this](const SQLite::Statement& row) {
    const std::int64_t id = row.getColumn(0).getInt64();
    if (auto name = NameIn(row.getColumn(1))) FSectionNames.emplace(id, std::move(*name));
    return id;
  };
  TSqlIniScan(FDamaged, kSectionIds).Walk<std::int64_t>(1, FMaxRows, visitRow, NextId);
  const auto visitEntry = [this](const SQLite::Statement& entry) {
    if (const auto name = NameIn(entry.getColumn(0))) {
      FIndexedSections.insert(*name);
      FSectionNames.emplace(entry.getColumn(1).getInt64(), *name);
    }
    return entry.getColumn(0).getString();
  };
  const auto nextName = [this](const std::string& last) {
    std::optional<std::string> next;
    for (const auto& [id, name] : FSectionNames) {
      if (name > last && (!next || name < *next)) next = name;
    }
    return next;
  };
  TSqlIniScan(FDamaged, kSectionIndex).Walk(std::string(), FMaxRows, visitEntry, nextName);
}

void TSqlIniRemains::FindIndexedRows() {
  const auto visit = [this](const SQLite::Statement& entry) {
    const auto name = NameIn(entry.getColumn(0));
    if (name && entry.getColumn(1).isInteger()) {
      FKeys[entry.getColumn(1).getInt64()].insert(*name);
    }
    FRows.insert(entry.getColumn(2).getInt64());
    return entry.getColumn(0).getString();
  };
  const auto nextName = [this](const std::string& last) {
    std::optional<std::string> next;
    for (const auto& [section, keys] : FKeys) {
      const auto key = keys.upper_bound(last);
      if (key != keys.end() && (!next || *key < *next)) next = *key;
    }
    return next;
  };
  TSqlIniScan(FDamaged, kRowIndex).Walk(std::string(), FMaxRows, visit, nextName);
}

// In the order of the ids, so that the last of two rows of a key is the later one.
void TSqlIniRemains::TakeEachRow(TSqlIniComponents& target) {
  for (const std::int64_t id : FRows) {
    const SQLite::Statement* const row = FRowById->Find(id);
    if (row == nullptr || !row->getColumn(1).isInteger()) continue;
    const auto key = NameIn(row->getColumn(0));
    if (!key) continue;
    std::int64_t section = row->getColumn(1).getInt64();
    FKeys[section].insert(*key);
    const auto name = FSectionNames.find(section);
    if (name != FSectionNames.end()) section = target.SectionId(name->second).value_or(section);
    Put(row->getColumn(2).getString(), section, *key, target);
  }
}

void TSqlIniRemains::TakeAnswers(TSqlIniComponents& target) {
  std::set<std::string> names = FIndexedSections;
  for (const TSqlIniSection& section : target.Sections()) names.insert(section.Name);
  for (const std::string& name : names) TakeSection(name, target);
}

void TSqlIniRemains::TakeSection(const std::string& name, TSqlIniComponents& target) {
  const SQLite::Statement* const section = FSectionByName->Find(name);
  if (section == nullptr) return;
  const std::int64_t id = section->getColumn(0).getInt64();
  std::optional<std::int64_t> targetId = target.SectionId(name);
  std::set<std::string> keys = FKeys[id];
  if (targetId) {
    for (std::string& key : target.Keys(*targetId)) keys.insert(std::move(key));
  }
  for (const std::string& key : keys) {
    const SQLite::Statement* const value = FValueByName->Find(id, key);
    if (value == nullptr) continue;
    if (!targetId) targetId = target.InsertSection(name);
    Put(value->getColumn(0).getString(), *targetId, key, target);
  }
}

void TSqlIniRemains::Put(const std::string& value, std::int64_t sectionId, const std::string& key,
                         TSqlIniComponents& target) {
  if (target.Value(sectionId, key) == value) return;
  target.PutValue(sectionId, key, value, TSqlIniEdit::LookFirst);
  ++FTaken;
}

}  // namespace guardian
