#include <archive.h>
#include <archive_entry.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <set>

#include "support/internals.h"

namespace appliance {
namespace {

using internals::fail;

std::string lineFor(const std::string& id, const char* name) { return id + " =\"" + name + "\"\n"; }

std::string userLines(Database& source) {
  std::string text;
  for (const char* table : {"photo_access_right_for_hox_account", "photo_upload_right_for_hox_account",
                            "photo_manage_right_for_hox_account"}) {
    if (source.value(std::string("SELECT to_regclass('") + table + "') IS NULL") == "t") {
      continue;
    }
    for (const auto& row : source.rows(std::string("SELECT userid FROM ") + table)) {
      const passwd* account = getpwuid(static_cast<uid_t>(atol(row[0].c_str())));
      if (account != nullptr) {
        text += lineFor(row[0], account->pw_name);
      }
    }
  }
  return text;
}

std::string groupLines(Database& source) {
  std::string text;
  if (source.value("SELECT to_regclass('photo_group_permission_for_hox_account') IS NULL") == "t") {
    return text;
  }
  for (const auto& row : source.rows("SELECT groupid FROM photo_group_permission_for_hox_account")) {
    const group* account = getgrgid(static_cast<gid_t>(atol(row[0].c_str())));
    if (account != nullptr) {
      text += lineFor(row[0], account->gr_name);
    }
  }
  return text;
}

std::string dump(Database& source) {
  const std::string file = "/appliance/archive.dump";
  std::string there;
  std::string back;
  std::vector<std::string> arguments = {"-U", "postgres", "-F", "c", "-Z", "1", "-d", source.name(), "-f", file};
  std::set<std::string> present;
  for (const auto& row : source.rows("SELECT tablename FROM pg_tables WHERE schemaname = 'public'")) {
    present.insert(row[0]);
  }
  for (const std::string& table : tableNames()) {
    if (present.count(table) == 0) {
      continue;
    }
    there.append("ALTER TABLE ").append(table).append(" RENAME TO ").append(table).append("_bak;");
    back.append("ALTER TABLE ").append(table).append("_bak RENAME TO ").append(table).append(";");
    arguments.insert(arguments.end(), {"-t", table + "_bak"});
  }
  source.exec(there);
  RunOptions options;
  options.program = internals::serverProgram("pg_dump");
  const Outcome outcome = runTool(arguments, options);
  source.exec(back);
  if (outcome.status != 0) {
    fail("pg_dump: " + outcome.err);
  }
  std::string text = readFile(file);
  removeAll(file);
  return text;
}

class Writer {
 public:
  explicit Writer(const std::string& path) : archive_(archive_write_new(), archive_write_free) {
    archive_write_add_filter_gzip(archive_.get());
    archive_write_set_filter_option(archive_.get(), "gzip", "compression-level", "1");
    archive_write_set_format_gnutar(archive_.get());
    check(archive_write_open_filename(archive_.get(), path.c_str()));
  }
  void add(const std::string& name, const std::string& text, bool folder = false) {
    const std::unique_ptr<archive_entry, void (*)(archive_entry*)> entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), folder ? AE_IFDIR : AE_IFREG);
    archive_entry_set_perm(entry.get(), folder ? 0755 : 0644);
    archive_entry_set_size(entry.get(), static_cast<la_int64_t>(text.size()));
    archive_entry_set_mtime(entry.get(), 1700000000, 0);
    check(archive_write_header(archive_.get(), entry.get()));
    if (archive_write_data(archive_.get(), text.data(), text.size()) != static_cast<la_ssize_t>(text.size())) {
      check(ARCHIVE_FATAL);
    }
  }
  void finish() { check(archive_write_close(archive_.get())); }

 private:
  void check(int result) {
    if (result != ARCHIVE_OK) {
      fail(std::string("archive: ") + archive_error_string(archive_.get()));
    }
  }
  std::unique_ptr<archive, int (*)(archive*)> archive_;
};

}  // namespace

const std::vector<std::string>& archiveMembers() {
  static const std::vector<std::string> members = {"kavophoto_backup.dump",
                                                   "kavophoto_backup_time.txt",
                                                   "kavophoto_backup_hox_account.txt",
                                                   "kavophoto_backup_hox_group_account.txt",
                                                   "theme_bak",
                                                   "settings.conf.bak"};
  return members;
}

void makeArchive(const std::string& directory, const std::string& sourceDatabase, const ArchiveOptions& options) {
  const auto wanted = [&options](const std::string& member) {
    return std::find(options.leaveOut.begin(), options.leaveOut.end(), member) == options.leaveOut.end();
  };
  Database source(sourceDatabase);
  Writer archive(directory + "kavophoto.backup");
  if (wanted("kavophoto_backup.dump")) {
    archive.add("kavophoto_backup.dump", dump(source));
  }
  if (wanted("kavophoto_backup_time.txt")) {
    archive.add("kavophoto_backup_time.txt", "backuptime=\"26-03-07 09:05\"\nversion=\"" + options.build +
                                                 "\"\nphoto_version=\"" + options.photoVersion + "\"\n");
  }
  if (wanted("kavophoto_backup_hox_account.txt")) {
    archive.add("kavophoto_backup_hox_account.txt", options.users ? *options.users : userLines(source));
  }
  if (wanted("kavophoto_backup_hox_group_account.txt")) {
    archive.add("kavophoto_backup_hox_group_account.txt", options.groups ? *options.groups : groupLines(source));
  }
  if (wanted("theme_bak")) {
    archive.add("theme_bak/", "", true);
    for (const auto& [name, text] : options.theme) {
      archive.add("theme_bak/" + name, text);
    }
  }
  if (options.settings && wanted("settings.conf.bak")) {
    archive.add("settings.conf.bak", *options.settings);
  }
  archive.finish();
}

void writeAccountFiles(const std::string& directory, const std::string& sourceDatabase) {
  Database source(sourceDatabase);
  writeFile(directory + "kavophoto_backup_hox_account.txt", userLines(source));
  writeFile(directory + "kavophoto_backup_hox_group_account.txt", groupLines(source));
}

std::vector<std::string> listArchive(const std::string& path) {
  internals::observed();
  const std::unique_ptr<archive, int (*)(archive*)> reader(archive_read_new(), archive_read_free);
  archive_read_support_filter_gzip(reader.get());
  archive_read_support_format_tar(reader.get());
  std::vector<std::string> names;
  if (archive_read_open_filename(reader.get(), path.c_str(), 65536) != ARCHIVE_OK) {
    fail("open " + path + ": " + archive_error_string(reader.get()));
  }
  archive_entry* entry = nullptr;
  int result = ARCHIVE_OK;
  while ((result = archive_read_next_header(reader.get(), &entry)) == ARCHIVE_OK) {
    names.emplace_back(archive_entry_pathname(entry));
  }
  if (result != ARCHIVE_EOF) {
    fail("read " + path + ": " + archive_error_string(reader.get()));
  }
  return names;
}

}  // namespace appliance
