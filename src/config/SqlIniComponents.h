#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "common/Clock.h"
#include "config/SqlIniConnection.h"

// NOLINTNEXTLINE(readability-identifier-naming): the library's name.
namespace SQLite {
class Statement;
}  // namespace SQLite

namespace guardian {

enum class TSqlIniAccess {
  ReadWrite,
  ReadOnly,  // Values are never written; the file is neither made, repaired nor backed up.
};

enum class TSqlIniEdit {
  LookFirst,
  Forced,  // The row is edited without looking for it first.
};

enum class TSqlIniBegin {
  Read,   // All reads until the end see one state of the file.
  Write,  // Waits for the other writers now, so that no later statement finds them in its way.
};

struct TSqlIniSection {
  std::int64_t Id = 0;
  std::string Name;
};

// The connection to a settings file with its statements, each compiled once.
// Every operation throws SQLite::Exception; CurrentSqlIniFault and CurrentExceptionMessage tell
// what it means. An operation waits at most kSqlIniBusyTimeout for other connections. Owner: one
// store, or the function that looks at a copy. Threads: not shared; the owner's lock serialises the
// calls. Lifetime: the clock outlives it. It must not be used in a process that was forked from its
// own.
class TSqlIniComponents {
 public:
  // Opens an existing file. Throws as well when the file is empty or has other tables.
  TSqlIniComponents(const std::string& fileName, TSqlIniAccess access,
                    TClock& clock = SystemClock());
  ~TSqlIniComponents();
  TSqlIniComponents(const TSqlIniComponents&) = delete;
  TSqlIniComponents& operator=(const TSqlIniComponents&) = delete;

  void Begin(TSqlIniBegin kind);
  void Commit();
  // Ends the transaction, if there is one, and takes back what it wrote. Never throws: if it cannot
  // take it back now, the next connection that opens the file does.
  void Rollback() noexcept;
  // False while a transaction is open.
  [[nodiscard]] bool AutoCommit() const noexcept;

  [[nodiscard]] std::optional<std::int64_t> SectionId(const std::string& name);
  // Returns the id of the section, which it makes if need be. Throws when that is not found then.
  std::int64_t PutSection(const std::string& name);
  [[nodiscard]] std::optional<std::string> SectionName(std::int64_t id);
  // The sections that hold a key, in the order of their ids; read again only after a write by this
  // or another connection. Valid until the next call of any operation.
  [[nodiscard]] const std::vector<TSqlIniSection>& Sections();

  [[nodiscard]] std::optional<std::string> Value(std::int64_t sectionId, const std::string& key);
  // Reads the value back, and throws when it is not there.
  void PutValue(std::int64_t sectionId, const std::string& key, std::string_view value,
                TSqlIniEdit edit);
  void DeleteKey(std::int64_t sectionId, const std::string& key);
  void EraseSection(std::int64_t sectionId);
  [[nodiscard]] std::vector<std::string> Keys(std::int64_t sectionId);
  // Lines of the form key=value.
  [[nodiscard]] std::vector<std::string> KeysAndValues(std::int64_t sectionId);
  // The keys of the section, or of the whole file when no section is given.
  [[nodiscard]] std::int64_t CountKeys(std::optional<std::int64_t> sectionId);

  // True when the file's name no longer leads to the file that was opened. Never throws.
  [[nodiscard]] bool HasMoved() const noexcept;
  // Runs SQLite's own check of the whole file, which takes as long as reading it does. When it is
  // damaged, the message is "database disk image is malformed: " and the first finding.
  void CheckIntegrity();
  // Copies the database, as it is at one moment, over the existing target.
  void CopyTo(const std::string& target);
  // Makes another store's tables known. Call it once, outside a transaction.
  void Attach(const std::string& otherStore);
  // Names a section of which only keys are left; does nothing when the id has a name. When another
  // section has the name, the keys become keys of that one; of two keys the later section's stays.
  void NameSection(std::int64_t id, const std::string& name);
  // Names each section of which only keys are left "Recovered " and its id.
  void NameLostSections();
  // Adds the sections and keys that only the attached store has; what both have stays as it is
  // here. A section of which only keys are left gets the name it has there, if any.
  void FillFromAttached();
  // Drops rows that no look-up can find, since a name is no text or an id no number.
  void DropUselessRows();
  // Runs one line of a dump, and returns whether it succeeded. The line comes from a damaged file:
  // anything but an insert of one row of a store is refused.
  [[nodiscard]] bool TryInsertRow(const std::string& line) noexcept;

 private:
  struct TColumns {
    int Name = 0;
    int Value = 0;
    int BinValue = 0;
  };

  void Configure(TSqlIniAccess access);
  void RequireWritableHead() const;
  void Prepare();
  // A number that changes when another connection has committed something.
  [[nodiscard]] std::int64_t DataVersion();
  [[nodiscard]] static std::string ValueOf(SQLite::Statement& row, const TColumns& columns);
  void InsertSection(const std::string& name);
  // Names the sections that a query for ids and names yields.
  void NameSections(const char* query);
  bool UpdateRow(std::int64_t sectionId, const std::string& key, std::string_view value);
  void InsertRow(std::int64_t sectionId, const std::string& key, std::string_view value);

  // NOLINTBEGIN(readability-identifier-naming): the components keep the names they are known by.
  std::unique_ptr<SQLite::Database> IB_Connection;
  std::unique_ptr<SQLite::Statement> IB_InsertSection;
  std::unique_ptr<SQLite::Statement> qrySectionByName;
  std::unique_ptr<SQLite::Statement> qrySectionByID;
  std::unique_ptr<SQLite::Statement> qrySectionValues;
  std::unique_ptr<SQLite::Statement> qrySectionList;
  std::unique_ptr<SQLite::Statement> qryValueRead;
  std::unique_ptr<SQLite::Statement> qryValueWrite;
  // Runs ad-hoc statements.
  void IB_GeneralScript(const std::string& statements);
  // NOLINTEND(readability-identifier-naming): up to here.
  std::vector<TSqlIniSection> FSectionList;  // Empty after an own write.
  std::int64_t FSectionListVersion = 0;      // The DataVersion when the list was read.
  std::unique_ptr<SQLite::Statement> FUpdateRow;
  std::unique_ptr<SQLite::Statement> FInsertRow;
  std::unique_ptr<SQLite::Statement> FBeginRead;
  std::unique_ptr<SQLite::Statement> FBeginWrite;
  std::unique_ptr<SQLite::Statement> FCommit;
  std::unique_ptr<SQLite::Statement> FDataVersion;
  TColumns FReadColumns;
  TColumns FListColumns;
};

// True for a store that can be opened and that is whole; never throws for the state of the file.
[[nodiscard]] bool IsGoodStore(const std::string& fileName);

// True when a value is stored as text, false when as bytes.
[[nodiscard]] bool IsStoredAsText(std::string_view value) noexcept;

}  // namespace guardian
