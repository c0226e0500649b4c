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
    "SELECT SECTIONNAME, ID FROM SECTIONS INDEXED BY sqlite_autoindex_SECTIONS_1 WHERE SECTIONNAME";
constexpr const char* kRowIds = "SELECT ID FROM DATA NOT INDEXED WHERE ID>=? ORDER BY ID";
constexpr const char* kRowIndex =
    "SELECT NAME, SECTIONID, ID FROM DATA INDEXED BY sqlite_autoindex_DATA_1 WHERE NAME";
constexpr const char* kRowById =
    "SELECT NAME, SECTIONID, COALESCE(VALUE, BINVALUE) FROM DATA WHERE ID=?";
constexpr const char* kSectionById = "SELECT SECTIONNAME FROM SECTIONS WHERE ID=?";
constexpr const char* kSectionByName = "SELECT ID FROM SECTIONS WHERE SECTIONNAME=?";
constexpr const char* kValueByName =
    "SELECT COALESCE(VALUE, BINVALUE) FROM DATA WHERE SECTIONID=? AND NAME=?";

const std::string kLastName = "\xff\xff\xff\xff";

constexpr std::int64_t kLastId = std::numeric_limits<std::int64_t>::max();

enum class TStep { Row, End, Damage };

// The column, when it holds a name as a store takes it.
std::optional<std::string> NameIn(const SQLite::Column& column) {
  if (!column.isText()) return std::nullopt;
  std::string name = column.getString();
  if (name.find('\0') != std::string::npos) return std::nullopt;
  return name;
}

}  // namespace

// A statement over a damaged store that goes on where a row cannot be read. It finds nothing when
// the schema no longer has what the statement names.
class TSqlIniScan {
 public:
  TSqlIniScan(SQLite::Database& connection, const std::string& text) : FConnection(connection) {
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

  // Visits the rows from the key on. Behind damage it begins anew at the key that `next` gives for
  // the last begin, until it gives none. Damage can lead round in circles: it ends after `maxRows`.
  template <typename TKey, typename TVisit, typename TNext>
  void Walk(const TKey& from, std::int64_t maxRows, const TVisit& visit, const TNext& next) {
    std::optional<TKey> key = from;
    while (FStatement && key) {
      Begin(*key);
      TStep step = TStep::Row;
      while (maxRows-- > 0 && (step = Step()) == TStep::Row) visit(*FStatement);
      if (step != TStep::Damage) return;
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

// Visits the entries of an index of names. Where it cannot be read, it goes on at the next of the
// known names that was not visited, and from there back as well.
template <typename TVisit>
void WalkNames(SQLite::Database& damaged, const std::string& index, std::int64_t maxRows,
               std::set<std::string> known, const TVisit& visit) {
  TSqlIniScan forward(damaged, index + ">=? ORDER BY 1");
  TSqlIniScan back(damaged, index + "<=? ORDER BY 1 DESC");
  const auto visitEntry = [&](const SQLite::Statement& entry) {
    const auto name = NameIn(entry.getColumn(0));
    if (!name) return;
    known.erase(*name);
    visit(*name, entry);
  };
  const auto stop = [](const std::string&) { return std::optional<std::string>(); };
  const auto goOn = [&](const std::string& last) {
    const auto found = known.upper_bound(last);
    std::optional<std::string> next;
    if (found != known.end()) next = *found;
    back.Walk(next.value_or(kLastName), maxRows, visitEntry, stop);
    return next;
  };
  forward.Walk(std::string(), maxRows, visitEntry, goOn);
}

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
  const auto visitRow = [this](const SQLite::Statement& row) { NoteRow(row.getColumn(0)); };
  const auto nextId = [this](std::int64_t last) {
    if (!FRows.empty()) last = std::max(last, *FRows.rbegin());
    return last < kLastId ? std::optional(last + 1) : std::nullopt;
  };
  TSqlIniScan(FDamaged, kRowIds).Walk(FMaxRows + 1, FMaxRows, visitRow, nextId);
  TakeEachRow(target);
  const std::size_t known = FRows.size();
  FindIndexedRows();
  if (FRows.size() > known) TakeEachRow(target);
}

void TSqlIniRemains::FindIndexedSections() {
  WalkNames(FDamaged, kSectionIndex, FMaxRows, {},
            [this](const std::string& name, const SQLite::Statement& entry) {
              FIndexedSections.emplace(entry.getColumn(1).getInt64(), name);
            });
}

void TSqlIniRemains::FindIndexedRows() {
  std::set<std::string> known;
  for (const auto& [section, keys] : FKeys) known.insert(keys.begin(), keys.end());
  WalkNames(FDamaged, kRowIndex, FMaxRows, std::move(known),
            [this](const std::string& name, const SQLite::Statement& entry) {
              if (entry.getColumn(1).isInteger()) FKeys[entry.getColumn(1).getInt64()].insert(name);
              NoteRow(entry.getColumn(2));
            });
}

void TSqlIniRemains::NoteRow(std::int64_t id) {
  if (id < 1 || id > FMaxRows) FRows.insert(id);
}

// In the order of the ids, so that the last of two rows of a key is the later one.
void TSqlIniRemains::TakeEachRow(TSqlIniComponents& target) {
  for (std::int64_t id = 1; id <= FMaxRows; ++id) TakeRow(id, target);
  for (const std::int64_t id : FRows) TakeRow(id, target);
}

void TSqlIniRemains::TakeRow(std::int64_t id, TSqlIniComponents& target) {
  const SQLite::Statement* const row = FRowById->Find(id);
  if (row == nullptr || !row->getColumn(1).isInteger()) return;
  const auto key = NameIn(row->getColumn(0));
  if (!key) return;
  const std::int64_t section = row->getColumn(1).getInt64();
  FKeys[section].insert(*key);
  Put(row->getColumn(2).getString(), IdInTarget(section, target), *key, target);
}

std::int64_t TSqlIniRemains::IdInTarget(std::int64_t section, TSqlIniComponents& target) {
  const auto [found, isNew] = FIdsInTarget.emplace(section, section);
  if (!isNew) return found->second;
  std::optional<std::string> name;
  if (const SQLite::Statement* row = FSectionById->Find(section)) name = NameIn(row->getColumn(0));
  const auto indexed = FIndexedSections.find(section);
  if (!name && indexed != FIndexedSections.end()) name = indexed->second;
  if (name) {
    target.NameSection(section, *name);
    found->second = target.SectionId(*name).value_or(section);
  }
  return found->second;
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
