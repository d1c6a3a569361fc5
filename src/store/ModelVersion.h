#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "core/Error.h"

namespace lectern {

class SqliteDatabase;

// One named version of the library's schema, recorded by each store (user_version and the name in
// its Metadata table). Append-only: never edit a shipped version.
struct ModelVersion {
  std::string_view name;                     // "Lectern 2.41": also names a migration step's file
  std::string_view versionIdentifier;        // "2.41": the "modelVersion" of the mappings into it
  int number = 0;                            // PRAGMA user_version
  std::span<const std::string_view> schema;  // CREATE statements, in order
};

// Marks a SQLite file as a Lectern library ("LCTR").
inline constexpr std::int32_t kLecternApplicationId = 0x4C435452;

// Oldest first; the last one is the current version.
std::span<const ModelVersion> modelVersions();
const ModelVersion& currentModelVersion();
const ModelVersion* modelVersionNumbered(int number);
const ModelVersion* modelVersionNamed(std::string_view name);

// Creates the tables of `version` in an empty database and records the version, in one
// transaction. Fails when the database already holds tables.
Result<void> createSchema(SqliteDatabase& db, const ModelVersion& version);

// What a store file says about itself, read without changing it.
struct StoreMetadata {
  int versionNumber = 0;    // 0: an empty database (a new library)
  std::string versionName;  // from the Metadata table; empty when absent
  std::int32_t applicationId = 0;
  bool hasTables = false;
};

}  // namespace lectern

namespace lectern {
// Reads the version a connection's database records.
Result<StoreMetadata> readStoreMetadata(SqliteDatabase& db);
// The store's version for a message: its recorded name, or "version <n>" when the name is
// missing or does not agree with the number.
std::string describeStoreVersion(const StoreMetadata& metadata);
}  // namespace lectern
