// The server's settings: built-in defaults, then configuration files, then the command line.
//
//   const UserDirectories directories = user_directories(::getenv);
//   const CommandLine line = parse_command_line({argv + 1, argv + argc}, directories, cwd);
//
// Every error of this file is a std::runtime_error, std::invalid_argument or std::out_of_range
// whose what() is the sentence for the user, without the words "Configuration error: " before it.
// Numbers are read in the classic locale, as nothing in this process calls setlocale.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "server/environment.hpp"

namespace spotserver {

struct ServerSettings {
  int port = 7373;       // 1..65535
  double reload = 15.0;  // seconds, finite, 0 or more
  std::string bind = "0.0.0.0";
  std::string token;       // empty: generated at start
  std::string all_txt;     // paths are absolute once the command line is parsed
  std::string history_db;  // empty after parsing: no history
  std::string cert;
  bool cert_given = false;  // the user chose the path (so for the key and the log file)
  std::string key;
  bool key_given = false;
  std::string log_file;
  bool log_file_given = false;
  std::string pid_file;  // empty: none
  bool demo = false;
  bool daemon = false;

  bool operator==(const ServerSettings&) const = default;
};

// The user's own directories, without a slash at the end. As relative as the environment has them.
struct UserDirectories {
  std::string config;
  std::string state;
};

// $XDG_CONFIG_HOME or else $HOME/.config, and $XDG_STATE_HOME or else $HOME/.local/state, each with
// "/corvane" behind it. A variable that is unset or empty counts as absent; an absent HOME is
// "/root". Nothing is created.
UserDirectories user_directories(const Environment& environment);

// What holds when nobody configures anything. Paths lie in `directories`.
ServerSettings default_settings(const UserDirectories& directories);

// Sets the setting `name` from its text, the same way for the file and the command line.
//   apply_setting(settings, "port", "8443");
// Throws, and leaves `settings` alone, on
//   port      "stoi": no number or beyond 32 bits; "Invalid port: " + value: not 1..65535 or text
//             behind the number
//   reload    "stod": no number or beyond a double; "Invalid reload interval: " + value: negative,
//             not finite or text behind the number
//   demo and daemon   name + " must be true or false"
//   another name      "Unknown setting: " + name
// The texts and paths (bind, token, all-txt, history-db, pid-file, cert, key, log-file) are taken
// as they stand, the empty text included.
void apply_setting(ServerSettings& settings, std::string_view name, const std::string& value);

// Applies the key=value lines of a file in order. Blanks (space, tab, CR) around line, key and
// value do not count; empty lines and lines that begin with '#' are skipped; all behind the first
// '=' is the value. Reads until the end of file, so a pipe such as /dev/stdin will do, and waits
// for its writer. Memory: one line; a line of more than 1 MiB cannot be read.
// Throws what apply_setting throws, "Cannot open config: " + path, "Cannot read config" (a
// directory, for one) and "Expected key=value at line " + number; the lines before stay applied.
void read_config_file(ServerSettings& settings, const std::string& path);

struct CommandLine {
  enum class Action { kRun, kShowHelp, kShowVersion };
  Action action = Action::kRun;
  ServerSettings settings;  // complete for kRun only
};

// Reads the arguments behind argument 0, and every configuration file that they name. The command
// line wins over the files wherever "--config" stands; a later file wins over an earlier one.
// "--help", "-h" and "--version" end the reading at once: a configuration file named before them
// is read and may fail, all else on the line goes unchecked. As the value of another option they
// are plain text.
// A history of "off" becomes empty. The other paths are joined to `current_dir` unless absolute
// already, dots and all ("./a" becomes current_dir + "/./a", an empty path current_dir + "/"); an
// empty pid_file stays empty. Nothing needs to exist.
// Throws as above, and argument + " requires a value", "Unknown argument: " + argument, and
// "No current directory for the path: " + path when `current_dir` is empty but needed.
CommandLine parse_command_line(const std::vector<std::string>& arguments,
                               const UserDirectories& directories, const std::string& current_dir);

// What "--help" prints, up to the last line feed.
std::string help_text(std::string_view argument0, const UserDirectories& directories);

// What "--version" prints, with its line feed.
std::string version_text();

}  // namespace spotserver
