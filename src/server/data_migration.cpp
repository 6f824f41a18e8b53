// Every step is one that the file system does whole or not at all, so a run that is killed leaves
// nothing half done: rmdir removes an empty directory and only that, rename moves a directory, a
// rewritten file replaces the old one by a rename.
#include "server/data_migration.hpp"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "server/atomic_file.hpp"
#include "spots/regular_file.hpp"

namespace spotserver {
namespace {

namespace fs = std::filesystem;

constexpr const char* kOldName = "velkor-tuner";
constexpr const char* kNewName = "corvane";
constexpr std::string_view kRewriteSuffix = ".rename";
constexpr std::size_t kLargestConfig = 16 << 20;  // bytes; larger is no file that anyone wrote

struct Base {
  const char* variable;
  const char* below_home;
};
constexpr Base kConfigBase{"XDG_CONFIG_HOME", ".config"};
constexpr Base kDataBase{"XDG_DATA_HOME", ".local/share"};
constexpr Base kStateBase{"XDG_STATE_HOME", ".local/state"};

struct Directory {
  fs::path old_path;
  fs::path new_path;
};

fs::file_type type_of(const fs::path& path) {  // of the entry itself, not of what a link names
  std::error_code ignored;
  return fs::symlink_status(path, ignored).type();
}

std::optional<fs::path> absolute_variable(const Environment& environment, const char* name) {
  const char* value = environment(name);
  if (value == nullptr || !fs::path(value).is_absolute()) return std::nullopt;
  return fs::path(value);
}

std::optional<Directory> resolve(const Environment& environment, const Base& base) {
  auto directory = absolute_variable(environment, base.variable);
  if (!directory) {
    directory = absolute_variable(environment, "HOME");
    if (!directory) return std::nullopt;
    *directory /= base.below_home;
  }
  return Directory{*directory / kOldName, *directory / kNewName};
}

// True when the old directory has the new name now.
bool move_directory(const Directory& directory) {
  if (type_of(directory.old_path) != fs::file_type::directory) return false;
  ::rmdir(directory.new_path.c_str());  // one that a fresh install made and never used
  if (type_of(directory.new_path) != fs::file_type::not_found) return false;
  std::error_code failed;
  fs::rename(directory.old_path, directory.new_path, failed);
  if (failed) return false;
  // Programs that still use the old path get there. The move counts without the link too.
  fs::create_directory_symlink(kNewName, directory.old_path, failed);
  return true;
}

std::vector<fs::path> regular_files(const fs::path& directory) {
  std::vector<fs::path> files;
  std::error_code failed;
  fs::directory_iterator entries(directory, failed);
  while (!failed && entries != fs::directory_iterator()) {
    if (type_of(entries->path()) == fs::file_type::regular) files.push_back(entries->path());
    entries.increment(failed);
  }
  return files;
}

bool is_config(const fs::path& file) {
  return file.extension() == ".conf" || file.extension() == ".ini";
}

void rename_main_config(const fs::path& directory) {
  const fs::path old_file = directory / (std::string(kOldName) + ".conf");
  const fs::path new_file = directory / (std::string(kNewName) + ".conf");
  if (type_of(new_file) != fs::file_type::not_found) return;
  std::error_code ignored;
  fs::rename(old_file, new_file, ignored);
}

// Left to right; what is put in is not looked at again.
std::string replace_all(std::string_view text, std::string_view from, std::string_view to) {
  std::string result;
  for (auto at = text.find(from); at != std::string_view::npos; at = text.find(from)) {
    result.append(text.substr(0, at)).append(to);
    text.remove_prefix(at + from.size());
  }
  return result.append(text);
}

// A configuration file that still names an old directory, and what it should say.
struct Rewriting {
  struct stat status {};
  std::string text;
};

std::optional<Rewriting> rewriting_of(const fs::path& path,
                                      const std::vector<Directory>& directories) {
  const auto file = openRegularFile(path);
  Rewriting rewriting;
  if (!file || ::fstat(file->fd.get(), &rewriting.status) != 0) return std::nullopt;
  const auto text = readWhole(*file, kLargestConfig);
  if (!text) return std::nullopt;
  rewriting.text = *text;
  for (const Directory& directory : directories) {
    rewriting.text = replace_all(rewriting.text, directory.old_path.string() + "/",
                                 directory.new_path.string() + "/");
  }
  if (rewriting.text == *text) return std::nullopt;
  return rewriting;
}

void rewrite_config(const fs::path& path, const std::vector<Directory>& directories) {
  const auto rewriting = rewriting_of(path, directories);
  if (!rewriting) return;
  write_atomically(path, rewriting->text, {.suffix = kRewriteSuffix, .like = &rewriting->status});
}

void rewrite_configs(const fs::path& directory, const std::vector<Directory>& directories) {
  for (const fs::path& file : regular_files(directory)) {
    if (is_config(file)) rewrite_config(file, directories);
  }
}

// Whether `file` is what a run leaves that is killed while it rewrites `config`: some beginning of
// what was to be written, beside a file that was not replaced. Anything else is the user's.
bool is_leftover(const fs::path& file, const fs::path& config,
                 const std::vector<Directory>& directories) {
  const auto rewriting = rewriting_of(config, directories);
  const auto leftover = openRegularFile(file);
  if (!rewriting || !leftover) return false;
  const auto text = readWhole(*leftover, rewriting->text.size());
  return text && rewriting->text.starts_with(*text);
}

// Only where we have been before: the old name is a link then.
void remove_leftovers(const Directory& config, const std::vector<Directory>& directories) {
  if (type_of(config.old_path) != fs::file_type::symlink) return;
  for (const fs::path& file : regular_files(config.new_path)) {
    const fs::path rewritten = fs::path(file).replace_extension();
    if (file.extension() != kRewriteSuffix || !is_config(rewritten)) continue;
    if (is_leftover(file, rewritten, directories)) ::unlink(file.c_str());
  }
}

}  // namespace

void migrateDataDirectories(const Environment& environment) {
  const auto config = resolve(environment, kConfigBase);
  std::vector<Directory> directories;
  bool migrated = false;
  for (const Base& base : {kConfigBase, kDataBase, kStateBase}) {
    const auto directory = resolve(environment, base);
    if (!directory) continue;
    directories.push_back(*directory);
    migrated = move_directory(*directory) || migrated;
  }
  if (!config) return;
  if (migrated) {
    rename_main_config(config->new_path);
    rewrite_configs(config->new_path, directories);
  }
  remove_leftovers(*config, directories);
}

void migrateDataDirectories() { migrateDataDirectories(::getenv); }

}  // namespace spotserver
