#include "main/import.h"

#include "main/path_check.h"
#include "main/registry.h"
#include "platform/log.h"
#include "platform/query.h"
#include "smart/earlier_albums.h"
#include "transfer/transfer.h"

namespace {

// The live database merged into itself would lose what is deleted before it is written anew. An empty name leaves the
// choice to the environment, which may choose the live one.
bool isAllowedSource(const std::string& database) { return !database.empty() && database != "photo"; }

}  // namespace

int importDatabase(const std::string& path, const std::string& temporaryDatabase) {
  // Declared in this order so that the live connection is closed first.
  Connection temporary;
  const Connection live = connectTo("photo");
  if (!live) {
    KAVO_LOG("Failed to connect to database");
    return -1;
  }
  if (isAllowedSource(temporaryDatabase)) {
    temporary = connectTo(temporaryDatabase.c_str());
  }
  if (!temporary) {
    KAVO_LOG("Failed to connect to database (%s)", temporaryDatabase.c_str());
    return -1;
  }
  const Transfer transfer = {live.get(), temporary.get(), "", path};
  const TransferTables tables = {kTableList, kMergeRoutines, KavophotoCheckPath};
  const auto prepare = [](const std::string& /*table*/) {};
  const auto failed = [](const std::string& table) { KAVO_LOG("KavophotoCheckPath import %s failed.", table.c_str()); };
  if (!repairPaths(transfer, tables, temporaryDatabase.c_str(), prepare, failed)) {
    return -1;
  }
  mergeTables(transfer, tables, [](const char* table) { KAVO_LOG("Table %s sync failed.", table); });
  mergeReferences(transfer, importOrigin(path, temporaryDatabase));
  return 0;
}
