#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
// Owner: one store, or whoever looks at a copy.
// Threads: not shared; the owner's lock serialises the calls.
// Lifetime: a connection must not be used in a process that was forked from its own.
//
// Every operation throws SQLite::Exception, for which CurrentSqlIniFault and
// CurrentExceptionMessage speak; it waits at most kSqlIniBusyTimeout for other connections.
class TSqlIniComponents {
 public:
  // Opens an existing file. Throws as well when the file is empty or has other tables.
  TSqlIniComponents(const std::string& fileName, TSqlIniAccess access);
  ~TSqlIniComponents();
  TSqlIniComponents(const TSqlIniComponents&) = delete;
  TSqlIniComponents& operator=(const TSqlIniComponents&) = delete;

  void Begin(TSqlIniBegin kind);
  void Commit();
  // Ends the transaction, if there is one, and takes back what it wrote. Never throws: what cannot
  // be taken back now is taken back by the next one that opens the file.
  void Rollback() noexcept;
  // False while a transaction is open.
  [[nodiscard]] bool AutoCommit() const noexcept;

  [[nodiscard]] std::optional<std::int64_t> SectionId(const std::string& name);
  // Returns its id.
  std::int64_t InsertSection(const std::string& name);
  [[nodiscard]] std::optional<std::string> SectionName(std::int64_t id);
  // The sections that hold a key, by their ids.
  [[nodiscard]] std::vector<TSqlIniSection> Sections();

  [[nodiscard]] std::optional<std::string> Value(std::int64_t sectionId, const std::string& key);
  // Reads it back, and throws when it is not there.
  void PutValue(std::int64_t sectionId, const std::string& key, std::string_view value,
                TSqlIniEdit edit);
  void DeleteKey(std::int64_t sectionId, const std::string& key);
  void EraseSection(std::int64_t sectionId);
  [[nodiscard]] std::vector<std::string> Keys(std::int64_t sectionId);
  // Lines of the form key=value.
  [[nodiscard]] std::vector<std::string> KeysAndValues(std::int64_t sectionId);
  // Of the section, or of all when none is given.
  [[nodiscard]] std::int64_t CountKeys(std::optional<std::int64_t> sectionId);

  // A number that changes when another connection has committed something.
  [[nodiscard]] std::int64_t DataVersion();
  // True when the file's name no longer leads to the file that was opened. Never throws.
  [[nodiscard]] bool HasMoved() const noexcept;
  // Throws KZException "database disk image is malformed" and the first finding when SQLite's own
  // check of the whole file is not content. Takes as long as reading the file does.
  void CheckIntegrity();
  // Copies the database, as it is at one moment, over the existing target.
  void CopyTo(const std::string& target);
  // Makes another store's tables known, once, and outside a transaction.
  void Attach(const std::string& otherStore);
  // Adds the sections and keys that the attached store has more; what both have stays as it is
  // here. A section that only its keys are left of gets the name it has there.
  void FillFromAttached();
  // Gives a section that only its keys are left of the name "Recovered " and its number.
  void NameLostSections();
  // Runs an insert of a dump, and returns whether it succeeded. The line comes from a damaged file:
  // whatever else stands in it is refused.
  [[nodiscard]] bool TryInsertRow(const std::string& line) noexcept;

 private:
  struct TColumns {
    int Name = 0;
    int Value = 0;
    int BinValue = 0;
  };

  void Configure(TSqlIniAccess access);
  void Prepare();
  [[nodiscard]] static std::string ValueOf(SQLite::Statement& row, const TColumns& columns);
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
