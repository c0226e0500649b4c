#include "config/SqlIniComponents.h"

#include <SQLiteCpp/Backup.h>
#include <SQLiteCpp/Database.h>
#include <SQLiteCpp/Exception.h>
#include <SQLiteCpp/Statement.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <utility>

#include "common/AtEnd.h"

namespace guardian {
namespace {

constexpr std::size_t kMaxTextBytes = 100;  // The width of the column VALUE.

// The parameter stands bare: SQLite knows no quoted parameter names.
constexpr const char* kInsertSection =
    "insert into SECTIONS\n(\"SECTIONNAME\")\nvalues\n(:SECTIONNAME)";
constexpr const char* kSectionByName = "SELECT ID FROM SECTIONS WHERE (SECTIONNAME=:SECTIONNAME);";
constexpr const char* kSectionById = "SELECT SECTIONNAME FROM SECTIONS WHERE (ID=:SECTIONID);";
constexpr const char* kSectionValues =
    "SELECT * FROM DATA WHERE (SECTIONID=:SECTIONID) ORDER BY NAME;";
constexpr const char* kSectionList = "SELECT DISTINCT SECTIONID FROM DATA ORDER BY SECTIONID;";
constexpr const char* kValueRead =
    "SELECT * FROM DATA WHERE (SECTIONID=:SECTIONID) AND (NAME=:NAME);";
constexpr const char* kCheckIfTableDataExists = "SELECT * FROM DATA ORDER BY NAME LIMIT 1;";

// What a result that can be edited posts.
constexpr const char* kUpdateRow =
    "UPDATE DATA SET VALUE=:VALUE, BINVALUE=:BINVALUE WHERE SECTIONID=:SECTIONID AND NAME=:NAME";
constexpr const char* kInsertRow =
    "INSERT INTO DATA (VALUE, BINVALUE, SECTIONID, NAME) "
    "VALUES (:VALUE, :BINVALUE, :SECTIONID, :NAME)";

constexpr const char* kLostSections =
    "SELECT DISTINCT SECTIONID, 'Recovered ' || SECTIONID FROM DATA "
    "WHERE SECTIONID NOT IN (SELECT ID FROM SECTIONS)";
constexpr const char* kLostSectionsOfOther =
    "SELECT ID, SECTIONNAME FROM other.SECTIONS WHERE ID IN (SELECT SECTIONID FROM DATA) "
    "AND ID NOT IN (SELECT ID FROM SECTIONS)";
constexpr const char* kFillFromOther = R"(
INSERT OR IGNORE INTO SECTIONS (SECTIONNAME) SELECT SECTIONNAME FROM other.SECTIONS;
INSERT OR IGNORE INTO DATA (NAME, VALUE, BINVALUE, SECTIONID)
  SELECT o.NAME, o.VALUE, o.BINVALUE, mine.ID FROM other.DATA o
  JOIN other.SECTIONS s ON s.ID=o.SECTIONID JOIN SECTIONS mine ON mine.SECTIONNAME=s.SECTIONNAME;)";
constexpr const char* kDropUselessRows = R"(
DELETE FROM SECTIONS WHERE typeof(SECTIONNAME)<>'text';
DELETE FROM DATA WHERE typeof(NAME)<>'text' OR typeof(SECTIONID)<>'integer';)";

// Keep the result for the scope: it leaves the statement ready for its next use, also when an
// exception passes. An unfinished statement would hold the file's lock.
[[nodiscard]] auto Using(SQLite::Statement& statement) {
  return TAtEnd([&statement] { statement.tryReset(); });
}

void Run(SQLite::Statement& statement) {
  const auto use = Using(statement);
  statement.exec();
}

// The bindings of the two statements that post a row. The bytes live until the statement is reset.
class TRowBinding {
 public:
  TRowBinding(SQLite::Statement& statement, std::int64_t sectionId, const std::string& key,
              std::string_view value)
      : FText(IsStoredAsText(value) ? value : "") {
    if (IsStoredAsText(value)) {
      statement.bindNoCopy(1, FText);
      statement.bind(2);
    } else {
      statement.bind(1);
      statement.bindNoCopy(2, value.data(), static_cast<int>(value.size()));
    }
    statement.bind(3, sectionId);
    statement.bindNoCopy(4, key);
  }

 private:
  const std::string FText;
};

// A damaged index can lose what is written without any error.
[[noreturn]] void ThrowNotThere() {
  throw SQLite::Exception("database disk image is malformed: what was written is not there",
                          SQLITE_CORRUPT);
}

// Allows what an insert of a row needs, with the functions by which tools write line feeds.
int AllowRowsAlone(void* /*context*/, int action, const char* first, const char* second,
                   const char* /*database*/, const char* /*trigger*/) {
  const std::string_view table = first == nullptr ? "" : first;
  const std::string_view function = second == nullptr ? "" : second;
  if (action == SQLITE_INSERT && (table == "DATA" || table == "SECTIONS")) return SQLITE_OK;
  if (action != SQLITE_FUNCTION) return SQLITE_DENY;
  const bool writesText = function == "char" || function == "replace" || function == "unistr";
  return writesText ? SQLITE_OK : SQLITE_DENY;
}

}  // namespace

TSqlIniComponents::TSqlIniComponents(const std::string& fileName, TSqlIniAccess access,
                                     TClock& clock)
    : IB_Connection(std::make_unique<SQLite::Database>(OpenSqlIniConnection(fileName, clock))) {
  Configure(access);
  Prepare();
}

TSqlIniComponents::~TSqlIniComponents() = default;

void TSqlIniComponents::Configure(TSqlIniAccess access) {
  // An empty file passes for a good database.
  if (IB_Connection->execAndGet("SELECT COUNT(*) FROM sqlite_master").getInt() == 0) {
    throw SQLite::Exception("The database has no tables.", SQLITE_EMPTY);
  }
  IB_Connection->exec("PRAGMA foreign_keys=0;");
  if (access == TSqlIniAccess::ReadOnly) {
    IB_Connection->exec("PRAGMA query_only=1;");
    return;
  }
  RequireWritableHead();
  // Truncated and synced, the journal ends a transaction for good, and no folder has to be synced
  // for it. While others use the file in another mode, that mode stays; it is as safe.
  IB_Connection->tryExec("PRAGMA journal_mode=TRUNCATE;");
  IB_Connection->exec("PRAGMA synchronous=FULL;");
}

// One damaged byte in its head makes a file that can be read, and never be written to.
void TSqlIniComponents::RequireWritableHead() const {
  const bool isReadOnly = ::sqlite3_db_readonly(IB_Connection->getHandle(), "main") == 1;
  const std::string& name = IB_Connection->getFilename();
  if (!isReadOnly || ::faccessat(AT_FDCWD, name.c_str(), W_OK, AT_EACCESS) != 0) return;
  throw SQLite::Exception("database disk image is malformed: it says that it is read-only",
                          SQLITE_CORRUPT);
}

void TSqlIniComponents::Prepare() {
  const auto prepare = [this](const char* text) {
    return std::make_unique<SQLite::Statement>(*IB_Connection, text);
  };
  const auto columns = [](const SQLite::Statement& statement) {
    return TColumns{statement.getColumnIndex("NAME"), statement.getColumnIndex("VALUE"),
                    statement.getColumnIndex("BINVALUE")};
  };
  // NOLINTNEXTLINE(readability-identifier-naming): the name the check is known by.
  SQLite::Statement qryCheckIfTableDataExists(*IB_Connection, kCheckIfTableDataExists);
  qryCheckIfTableDataExists.executeStep();
  IB_InsertSection = prepare(kInsertSection);
  qrySectionByName = prepare(kSectionByName);
  qrySectionByID = prepare(kSectionById);
  qrySectionValues = prepare(kSectionValues);
  qrySectionList = prepare(kSectionList);
  qryValueRead = prepare(kValueRead);
  qryValueWrite = prepare(kValueRead);
  FUpdateRow = prepare(kUpdateRow);
  FInsertRow = prepare(kInsertRow);
  FBeginRead = prepare("BEGIN");
  FBeginWrite = prepare("BEGIN IMMEDIATE");
  FCommit = prepare("COMMIT");
  FDataVersion = prepare("PRAGMA data_version");
  FReadColumns = columns(*qryValueRead);
  FListColumns = columns(*qrySectionValues);
}

// NOLINTNEXTLINE(readability-identifier-naming): the name it is known by.
void TSqlIniComponents::IB_GeneralScript(const std::string& statements) {
  IB_Connection->exec(statements);
}

void TSqlIniComponents::Begin(TSqlIniBegin kind) {
  if (kind == TSqlIniBegin::Write) FSectionList.clear();
  Run(kind == TSqlIniBegin::Write ? *FBeginWrite : *FBeginRead);
}

void TSqlIniComponents::Commit() { Run(*FCommit); }

void TSqlIniComponents::Rollback() noexcept {
  if (!AutoCommit()) IB_Connection->tryExec("ROLLBACK");
}

bool TSqlIniComponents::AutoCommit() const noexcept {
  return ::sqlite3_get_autocommit(IB_Connection->getHandle()) != 0;
}

std::optional<std::int64_t> TSqlIniComponents::SectionId(const std::string& name) {
  const auto use = Using(*qrySectionByName);
  qrySectionByName->bindNoCopy(1, name);
  if (!qrySectionByName->executeStep()) return std::nullopt;
  return qrySectionByName->getColumn(0).getInt64();
}

std::int64_t TSqlIniComponents::PutSection(const std::string& name) {
  auto id = SectionId(name);
  if (!id) {
    InsertSection(name);
    id = SectionId(name);
  }
  // A damaged index leads nowhere, or into another section.
  if (!id || SectionName(*id) != name) ThrowNotThere();
  return *id;
}

void TSqlIniComponents::InsertSection(const std::string& name) {
  const auto use = Using(*IB_InsertSection);
  IB_InsertSection->bindNoCopy(1, name);
  IB_InsertSection->exec();
}

std::optional<std::string> TSqlIniComponents::SectionName(std::int64_t id) {
  const auto use = Using(*qrySectionByID);
  qrySectionByID->bind(1, id);
  if (!qrySectionByID->executeStep()) return std::nullopt;
  return qrySectionByID->getColumn(0).getString();
}

const std::vector<TSqlIniSection>& TSqlIniComponents::Sections() {
  const std::int64_t version = DataVersion();
  if (!FSectionList.empty() && version == FSectionListVersion) return FSectionList;
  FSectionList.clear();
  const auto use = Using(*qrySectionList);
  while (qrySectionList->executeStep()) {
    const std::int64_t id = qrySectionList->getColumn(0).getInt64();
    if (auto name = SectionName(id)) FSectionList.push_back({id, std::move(*name)});
  }
  FSectionListVersion = version;
  return FSectionList;
}

std::string TSqlIniComponents::ValueOf(SQLite::Statement& row, const TColumns& columns) {
  const bool isText = !row.isColumnNull(columns.Value);
  return row.getColumn(isText ? columns.Value : columns.BinValue).getString();
}

std::optional<std::string> TSqlIniComponents::Value(std::int64_t sectionId,
                                                    const std::string& key) {
  const auto use = Using(*qryValueRead);
  qryValueRead->bind(1, sectionId);
  qryValueRead->bindNoCopy(2, key);
  if (!qryValueRead->executeStep()) return std::nullopt;
  return ValueOf(*qryValueRead, FReadColumns);
}

void TSqlIniComponents::PutValue(std::int64_t sectionId, const std::string& key,
                                 std::string_view value, TSqlIniEdit edit) {
  const auto rowExists = [&] {
    const auto use = Using(*qryValueWrite);
    qryValueWrite->bind(1, sectionId);
    qryValueWrite->bindNoCopy(2, key);
    return qryValueWrite->executeStep();
  };
  const bool editing = edit == TSqlIniEdit::Forced || rowExists();
  if (!editing || !UpdateRow(sectionId, key, value)) InsertRow(sectionId, key, value);
  if (Value(sectionId, key) != value) ThrowNotThere();
}

bool TSqlIniComponents::UpdateRow(std::int64_t sectionId, const std::string& key,
                                  std::string_view value) {
  const auto use = Using(*FUpdateRow);
  const TRowBinding binding(*FUpdateRow, sectionId, key, value);
  return FUpdateRow->exec() > 0;
}

void TSqlIniComponents::InsertRow(std::int64_t sectionId, const std::string& key,
                                  std::string_view value) {
  const auto use = Using(*FInsertRow);
  const TRowBinding binding(*FInsertRow, sectionId, key, value);
  FInsertRow->exec();
}

void TSqlIniComponents::DeleteKey(std::int64_t sectionId, const std::string& key) {
  SQLite::Statement statement(*IB_Connection, "DELETE FROM DATA WHERE SECTIONID=" +
                                                  std::to_string(sectionId) + " AND NAME=:THENAME");
  statement.bindNoCopy(1, key);
  statement.exec();
}

void TSqlIniComponents::EraseSection(std::int64_t sectionId) {
  IB_GeneralScript("DELETE FROM DATA WHERE SECTIONID=" + std::to_string(sectionId));
}

std::vector<std::string> TSqlIniComponents::Keys(std::int64_t sectionId) {
  std::vector<std::string> keys;
  const auto use = Using(*qrySectionValues);
  qrySectionValues->bind(1, sectionId);
  while (qrySectionValues->executeStep()) {
    keys.push_back(qrySectionValues->getColumn(FListColumns.Name).getString());
  }
  return keys;
}

std::vector<std::string> TSqlIniComponents::KeysAndValues(std::int64_t sectionId) {
  std::vector<std::string> lines;
  const auto use = Using(*qrySectionValues);
  qrySectionValues->bind(1, sectionId);
  while (qrySectionValues->executeStep()) {
    lines.push_back(qrySectionValues->getColumn(FListColumns.Name).getString() + "=" +
                    ValueOf(*qrySectionValues, FListColumns));
  }
  return lines;
}

std::int64_t TSqlIniComponents::CountKeys(std::optional<std::int64_t> sectionId) {
  const std::string text =
      sectionId ? "SELECT COUNT(NAME) FROM DATA WHERE SECTIONID=" + std::to_string(*sectionId)
                : "SELECT COUNT(NAME) FROM DATA;";
  return IB_Connection->execAndGet(text).getInt64();
}

std::int64_t TSqlIniComponents::DataVersion() {
  const auto use = Using(*FDataVersion);
  FDataVersion->executeStep();
  return FDataVersion->getColumn(0).getInt64();
}

bool TSqlIniComponents::HasMoved() const noexcept {
  int moved = 0;
  ::sqlite3_file_control(IB_Connection->getHandle(), "main", SQLITE_FCNTL_HAS_MOVED, &moved);
  return moved != 0;
}

void TSqlIniComponents::CheckIntegrity() {
  RequireWritableHead();
  const std::string finding = IB_Connection->execAndGet("PRAGMA integrity_check(1)").getString();
  if (finding == "ok") return;
  throw SQLite::Exception("database disk image is malformed: " + finding, SQLITE_CORRUPT);
}

void TSqlIniComponents::CopyTo(const std::string& target) {
  SQLite::Database connection = OpenSqlIniConnection(target, SystemClock());
  SQLite::Backup backup(connection, *IB_Connection);
  const int result = backup.executeStep(-1);
  if (result != SQLITE_DONE) throw SQLite::Exception(::sqlite3_errstr(result), result);
}

void TSqlIniComponents::Attach(const std::string& otherStore) {
  SQLite::Statement attach(*IB_Connection, "ATTACH DATABASE ? AS other");
  attach.bindNoCopy(1, otherStore);
  attach.exec();
}

void TSqlIniComponents::NameSection(std::int64_t id, const std::string& name) {
  if (SectionName(id)) return;
  const auto sameName = SectionId(name);
  if (!sameName) {
    SQLite::Statement insert(*IB_Connection, "INSERT INTO SECTIONS VALUES(?, ?)");
    insert.bindNoCopy(1, name);
    insert.bind(2, id);
    insert.exec();
    return;
  }
  const std::string from = " WHERE SECTIONID=" + std::to_string(id);
  IB_GeneralScript((id > *sameName ? "UPDATE OR REPLACE" : "UPDATE OR IGNORE") +
                   (" DATA SET SECTIONID=" + std::to_string(*sameName)) + from +
                   "; DELETE FROM DATA" + from);
}

void TSqlIniComponents::NameSections(const char* query) {
  std::vector<TSqlIniSection> sections;
  SQLite::Statement names(*IB_Connection, query);
  while (names.executeStep()) {
    sections.push_back({names.getColumn(0).getInt64(), names.getColumn(1).getString()});
  }
  for (const TSqlIniSection& section : sections) NameSection(section.Id, section.Name);
}

void TSqlIniComponents::NameLostSections() { NameSections(kLostSections); }

// A new section could get an id that keys of a lost one have, so those come first.
void TSqlIniComponents::FillFromAttached() {
  NameSections(kLostSectionsOfOther);
  NameLostSections();
  IB_GeneralScript(kFillFromOther);
}

void TSqlIniComponents::DropUselessRows() { IB_GeneralScript(kDropUselessRows); }

bool TSqlIniComponents::TryInsertRow(const std::string& line) noexcept {
  ::sqlite3* const connection = IB_Connection->getHandle();
  ::sqlite3_set_authorizer(connection, &AllowRowsAlone, nullptr);
  const bool inserted = IB_Connection->tryExec(line) == SQLITE_OK;
  ::sqlite3_set_authorizer(connection, nullptr, nullptr);
  return inserted;
}

bool IsGoodStore(const std::string& fileName) {
  try {
    TSqlIniComponents(fileName, TSqlIniAccess::ReadOnly).CheckIntegrity();
    return true;
  } catch (const SQLite::Exception&) {
    return false;
  }
}

bool IsStoredAsText(std::string_view value) noexcept {
  return value.size() <= kMaxTextBytes && std::all_of(value.begin(), value.end(), [](char byte) {
           return byte >= ' ' && static_cast<unsigned char>(byte) <= 127;
         });
}

}  // namespace guardian
