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

// A row and its entry in the index take sixteen bytes at least.
constexpr const char* kMaxRows =
    "SELECT page_count * page_size / 16 FROM pragma_page_count, pragma_page_size";
constexpr const char* kSectionIndex =
    "SELECT SECTIONNAME, rowid FROM SECTIONS INDEXED BY sqlite_autoindex_SECTIONS_1 WHERE "
    "SECTIONNAME";
constexpr const char* kRowIds = "SELECT rowid FROM DATA NOT INDEXED WHERE rowid>=? ORDER BY rowid";
constexpr const char* kRowIndex =
    "SELECT NAME, rowid, SECTIONID FROM DATA INDEXED BY sqlite_autoindex_DATA_1 WHERE NAME";
constexpr const char* kRowById =
    "SELECT NAME, SECTIONID, COALESCE(VALUE, BINVALUE) FROM DATA WHERE rowid=?";
constexpr const char* kSectionById = "SELECT SECTIONNAME FROM SECTIONS WHERE rowid=?";
constexpr const char* kSectionByName = "SELECT ID FROM SECTIONS WHERE SECTIONNAME=?";
constexpr const char* kValueByName =
    "SELECT COALESCE(VALUE, BINVALUE), rowid FROM DATA WHERE SECTIONID=? AND NAME=?";

constexpr const char* kLastName = "\xff\xff\xff\xff";
constexpr std::int64_t kLastId = std::numeric_limits<std::int64_t>::max();

enum class TStep { Row, End, Damage };

bool IsName(const SQLite::Column& column) {
  return column.isText() && column.getString().find('\0') == std::string::npos;
}

std::optional<std::string> Stop(const std::string& /*last*/) { return std::nullopt; }

}  // namespace

// A statement over a damaged store that goes on where a row cannot be read. It finds nothing when
// the schema no longer has what the statement names.
class TSqlIniScan {
 public:
  TSqlIniScan(SQLite::Database& connection, const std::string& text) : FConnection(connection) {
    try {
      FStatement = std::make_unique<SQLite::Statement>(connection, text);
    } catch (const SQLite::Exception& error) {
      if (error.getErrorCode() != SQLITE_ERROR && CurrentSqlIniFault() != TSqlIniFault::Damaged) {
        throw;
      }
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

  // Visits the rows from the key on, until a visit returns false. Then, and behind damage, it
  // begins anew at the key that `next` gives for the last begin, until that gives none. Damage can
  // lead round in circles, so it ends after `maxRows` as well.
  template <typename TKey, typename TVisit, typename TNext>
  void Walk(const TKey& from, std::int64_t maxRows, const TVisit& visit, const TNext& next) {
    std::optional<TKey> key = from;
    while (FStatement && key) {
      Begin(*key);
      TStep step = TStep::Damage;
      while (maxRows-- > 0 && (step = Step()) == TStep::Row && visit(*FStatement)) continue;
      if (step == TStep::End || maxRows < 0) return;
      key = next(*key);
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

namespace {

// Visits the entries of an index of names, whose second column is the id. Behind damage it goes on
// at the next of the known names that was not visited, and from there back to the damage as well.
template <typename TVisit>
void WalkNames(SQLite::Database& damaged, const std::string& index, std::int64_t maxRows,
               std::set<std::string> known, const TVisit& visit) {
  TSqlIniScan forward(damaged, index + ">=? ORDER BY 1");
  TSqlIniScan back(damaged, index + "<=? ORDER BY 1 DESC");
  std::set<std::pair<std::string, std::int64_t>> visited;
  const auto visitBack = [&](const SQLite::Statement& entry) {
    if (IsName(entry.getColumn(0))) visit(entry);
    return !visited.contains({entry.getColumn(0), entry.getColumn(1)});
  };
  const auto visitForward = [&](const SQLite::Statement& entry) {
    const bool isNew = visitBack(entry);
    known.erase(entry.getColumn(0));
    visited.insert({entry.getColumn(0), entry.getColumn(1)});
    return isNew;
  };
  const auto next = [&](const std::string& last) -> std::optional<std::string> {
    const auto found = known.upper_bound(last);
    const bool isLast = found == known.end();
    back.Walk(isLast ? std::string(kLastName) : *found, maxRows, visitBack, Stop);
    if (isLast) return std::nullopt;
    return *found;
  };
  forward.Walk(std::string(), maxRows, visitForward, next);
}

}  // namespace

TSqlIniRemains::TSqlIniRemains(SQLite::Database& damaged)
    : FDamaged(damaged),
      FRowById(std::make_unique<TSqlIniScan>(damaged, kRowById)),
      FSectionById(std::make_unique<TSqlIniScan>(damaged, kSectionById)),
      FSectionByName(std::make_unique<TSqlIniScan>(damaged, kSectionByName)),
      FValueByName(std::make_unique<TSqlIniScan>(damaged, kValueByName)) {
  TSqlIniScan size(damaged, kMaxRows);
  if (const SQLite::Statement* row = size.Find()) FMaxRows = row->getColumn(0).getInt64();
}

TSqlIniRemains::~TSqlIniRemains() = default;

void TSqlIniRemains::TakeRows(TSqlIniComponents& target) {
  FindIndexedSections();
  FindRows();
  std::set<std::string> names;
  VisitRows(
      [&](std::int64_t /*id*/, const SQLite::Statement& row) { names.insert(row.getColumn(0)); });
  FindIndexedRows(std::move(names));
  VisitRows([&](std::int64_t id, const SQLite::Statement& row) { TakeRow(id, row, target); });
}

void TSqlIniRemains::FindIndexedSections() {
  const auto visit = [this](const SQLite::Statement& entry) {
    FIndexedSections.emplace(entry.getColumn(1), entry.getColumn(0));
  };
  WalkNames(FDamaged, kSectionIndex, FMaxRows, {}, visit);
}

// Ids up to the number of rows that fit into the file are tried one by one, since a damaged page
// can hide others from a walk. Most stores have no higher ones.
void TSqlIniRemains::FindRows() {
  for (std::int64_t id = 1; id <= FMaxRows; ++id) {
    if (FRowById->Find(id) != nullptr) FRows.insert(id);
  }
  const auto visit = [this](const SQLite::Statement& row) {
    return FRows.insert(row.getColumn(0)).second;
  };
  const auto nextId = [this](std::int64_t last) {
    if (!FRows.empty()) last = std::max(last, *FRows.rbegin());
    return last < kLastId ? std::optional(last + 1) : std::nullopt;
  };
  TSqlIniScan(FDamaged, kRowIds).Walk(FMaxRows + 1, FMaxRows, visit, nextId);
}

void TSqlIniRemains::FindIndexedRows(std::set<std::string> knownNames) {
  const auto visit = [this](const SQLite::Statement& entry) {
    FRows.insert(entry.getColumn(1));
    if (!entry.getColumn(2).isInteger()) return;
    const TKey key(entry.getColumn(2), entry.getColumn(0));
    FIndexedKeys.insert(key);
    FIndexedRows.emplace(entry.getColumn(1), key);
  };
  WalkNames(FDamaged, kRowIndex, FMaxRows, std::move(knownNames), visit);
}

// In the order of the ids, so that the last of two rows of a key is the later one.
void TSqlIniRemains::VisitRows(const TVisitRow& visit) {
  for (const std::int64_t id : FRows) {
    const SQLite::Statement* const row = FRowById->Find(id);
    if (row == nullptr || !IsName(row->getColumn(0)) || !row->getColumn(1).isInteger()) continue;
    visit(id, *row);
  }
}

void TSqlIniRemains::TakeRow(std::int64_t id, const SQLite::Statement& row,
                             TSqlIniComponents& target) {
  const TKey key(row.getColumn(1), row.getColumn(0));
  const std::int64_t section = IdInTarget(key.first, target);
  Put(row.getColumn(2), section, key.second, target);
  // A row that the index has under other keys alone has its own by damage.
  const auto [begin, end] = FIndexedRows.equal_range(id);
  const bool isMisnamed =
      begin != end && std::none_of(begin, end, [&](const auto& at) { return at.second == key; });
  if (!isMisnamed) FLatest[{section, key.second}] = id;
}

std::int64_t TSqlIniRemains::IdInTarget(std::int64_t section, TSqlIniComponents& target) {
  const auto [found, isNew] = FIdsInTarget.emplace(section, section);
  if (!isNew) return found->second;
  std::string name;
  const SQLite::Statement* const row = FSectionById->Find(section);
  const auto indexed = FIndexedSections.find(section);
  if (row != nullptr && IsName(row->getColumn(0))) {
    name = row->getColumn(0).getString();
  } else if (indexed != FIndexedSections.end()) {
    name = indexed->second;
  } else {
    return section;
  }
  target.NameSection(section, name);
  return found->second = target.SectionId(name).value_or(section);
}

void TSqlIniRemains::TakeAnswers(TSqlIniComponents& target) {
  std::set<std::string> names;
  for (const auto& [id, name] : FIndexedSections) names.insert(name);
  for (const TSqlIniSection& section : target.Sections()) names.insert(section.Name);
  for (const std::string& name : names) TakeSection(name, target);
}

void TSqlIniRemains::TakeSection(const std::string& name, TSqlIniComponents& target) {
  const SQLite::Statement* const section = FSectionByName->Find(name);
  if (section == nullptr) return;
  const std::int64_t id = section->getColumn(0);
  std::set<std::string> keys;
  for (auto key = FIndexedKeys.lower_bound({id, ""}); key != FIndexedKeys.end(); ++key) {
    if (key->first != id) break;
    keys.insert(key->second);
  }
  const std::int64_t here = IdInTarget(id, target);
  for (const std::int64_t known : {here, target.SectionId(name).value_or(here)}) {
    for (std::string& key : target.Keys(known)) keys.insert(std::move(key));
  }
  for (const std::string& key : keys) TakeAnswer(name, id, key, target);
}

void TSqlIniRemains::TakeAnswer(const std::string& section, std::int64_t id, const std::string& key,
                                TSqlIniComponents& target) {
  const SQLite::Statement* const row = FValueByName->Find(id, key);
  if (row == nullptr) return;
  const std::int64_t here = target.PutSection(section);
  if (!HasLaterRow(row->getColumn(1), key, FLatest[{here, key}])) {
    Put(row->getColumn(0), here, key, target);
  }
}

// A row that an index leads to by damage is the store's answer all the same.
bool TSqlIniRemains::HasLaterRow(std::int64_t id, const std::string& key, std::int64_t latest) {
  if (latest <= id) return false;
  const SQLite::Statement* const row = FRowById->Find(id);
  return row != nullptr && row->getColumn(0).getString() == key;
}

void TSqlIniRemains::Put(const std::string& value, std::int64_t sectionId, const std::string& key,
                         TSqlIniComponents& target) {
  if (target.Value(sectionId, key) == value) return;
  target.PutValue(sectionId, key, value, TSqlIniEdit::LookFirst);
  ++FTaken;
}

}  // namespace guardian
