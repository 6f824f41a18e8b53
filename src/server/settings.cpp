// Settings come from three places that share one interpreter, apply_setting. The command line is
// walked twice: the first walk pairs options with values and reads the configuration files, the
// second applies the options, so that they win over the files wherever "--config" stands.
#include "server/settings.hpp"

#include <array>
#include <cerrno>
#include <cmath>
#include <filesystem>
#include <stdexcept>

#include <fcntl.h>
#include <unistd.h>

#include "server/owned.hpp"
#include "server/version.hpp"

namespace spotserver {
namespace {

constexpr std::size_t kLongestConfigLine = 1 << 20;

// What follows argument 0; STATE stands for the state directory.
constexpr std::string_view kState = "STATE";
constexpr std::string_view kHelp = R"( [options]
  --config PATH     load key=value settings (CLI overrides file)
  --daemon          detach into the background
  --log-file PATH   daemon output (default <state>/spot-server.log)
  --pid-file PATH   write the server's PID here (removed when it stops)
  --port N          TLS port to listen on (default 7373)
  --bind ADDR       interface to bind (default 0.0.0.0, all)
  --token TOKEN      shared bearer token (default: generated and printed)
  --history-db PATH  the receivers' decode-interval history, for rates and counts
                     (default STATE/history.sqlite3; off: none)
  --all-txt PATH     ALL.TXT decode log, for callsigns (and rates without a history)
                     (default STATE/ALL.TXT)
  --cert PATH        TLS certificate PEM (default <config>/spot-server.crt)
  --key PATH         TLS private key PEM (default <config>/spot-server.key)
  --reload SECONDS   minimum seconds between ALL.TXT re-scans (default 15)
  --demo             serve synthetic data instead of reading ALL.TXT
  --version          print version and exit
  --help             this help
)";

std::string environment_or(const Environment& environment, const char* name,
                           const std::string& fallback) {
  const char* value = environment(name);
  return value != nullptr && *value != '\0' ? value : fallback;
}

int parse_port(const std::string& value) {
  std::size_t used = 0;
  const int port = std::stoi(value, &used, 10);
  if (used != value.size() || port < 1 || port > 65535) {
    throw std::runtime_error("Invalid port: " + value);
  }
  return port;
}

double parse_reload(const std::string& value) {
  std::size_t used = 0;
  const double seconds = std::stod(value, &used);
  if (used != value.size() || !std::isfinite(seconds) || seconds < 0) {
    throw std::runtime_error("Invalid reload interval: " + value);
  }
  return seconds;
}

bool parse_flag(std::string_view name, const std::string& value) {
  if (value != "true" && value != "false") {
    throw std::runtime_error(std::string(name) + " must be true or false");
  }
  return value == "true";
}

struct TextSetting {
  std::string_view name;
  std::string ServerSettings::*value;
  bool ServerSettings::*given;  // may be nullptr
};

constexpr TextSetting kTextSettings[] = {
    {"bind", &ServerSettings::bind, nullptr},
    {"token", &ServerSettings::token, nullptr},
    {"all-txt", &ServerSettings::all_txt, nullptr},
    {"history-db", &ServerSettings::history_db, nullptr},
    {"pid-file", &ServerSettings::pid_file, nullptr},
    {"cert", &ServerSettings::cert, &ServerSettings::cert_given},
    {"key", &ServerSettings::key, &ServerSettings::key_given},
    {"log-file", &ServerSettings::log_file, &ServerSettings::log_file_given},
};

bool apply_text(ServerSettings& settings, std::string_view name, const std::string& value) {
  for (const TextSetting& setting : kTextSettings) {
    if (setting.name != name) continue;
    settings.*setting.value = value;
    if (setting.given != nullptr) settings.*setting.given = true;
    return true;
  }
  return false;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// line := blanks [ '#' anything | key blanks '=' blanks value ] blanks
void apply_config_line(ServerSettings& settings, std::string_view line, std::size_t number) {
  line = trimmed(line);
  if (line.empty() || line.front() == '#') return;
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) {
    throw std::runtime_error("Expected key=value at line " + std::to_string(number));
  }
  apply_setting(settings, trimmed(line.substr(0, equals)),
                std::string(trimmed(line.substr(equals + 1))));
}

// Hands out the lines of a descriptor one by one. A last line needs no line feed.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}

  // False at the end of the file. Throws when the file cannot be read or the line is too long.
  bool next(std::string& line) {
    std::size_t end = held_.find('\n', from_);
    while (end == std::string::npos && fetch()) end = held_.find('\n', from_);
    if (end == std::string::npos) end = held_.size();
    if (from_ >= held_.size()) return false;
    require(end - from_ <= kLongestConfigLine);
    line.assign(held_, from_, end - from_);
    from_ = end + 1;
    return true;
  }

 private:
  static void require(bool good) {
    if (!good) throw std::runtime_error("Cannot read config");
  }

  // Reads a piece more; false at the end of the file.
  bool fetch() {
    held_.erase(0, from_);
    from_ = 0;
    require(held_.size() <= kLongestConfigLine);
    ssize_t got = 0;
    do {
      got = ::read(fd_, piece_.data(), piece_.size());
    } while (got < 0 && errno == EINTR);
    require(got >= 0);
    held_.append(piece_.data(), static_cast<std::size_t>(got));
    return got > 0;
  }

  int fd_;
  std::string held_;      // read and, from from_ on, not yet handed out
  std::size_t from_ = 0;  // may lie one behind the end of held_
  std::array<char, 16384> piece_;
};

struct Option {
  std::string argument;  // as typed, dashes and all
  std::string value;
};

// The first walk, cut short by an argument that asks for a text instead of a server.
CommandLine::Action collect_options(const std::vector<std::string>& arguments,
                                    ServerSettings& settings, std::vector<Option>& options) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& argument = arguments[i];
    if (argument == "--help" || argument == "-h") return CommandLine::Action::kShowHelp;
    if (argument == "--version") return CommandLine::Action::kShowVersion;
    if (argument == "--demo" || argument == "--daemon") {
      options.push_back({argument, "true"});
      continue;
    }
    if (++i == arguments.size()) throw std::runtime_error(argument + " requires a value");
    if (argument == "--config") {
      read_config_file(settings, arguments[i]);
    } else {
      options.push_back({argument, arguments[i]});
    }
  }
  return CommandLine::Action::kRun;
}

// The second walk.
void apply_options(ServerSettings& settings, const std::vector<Option>& options) {
  for (const auto& [argument, value] : options) {
    if (!argument.starts_with("--")) throw std::runtime_error("Unknown argument: " + argument);
    apply_setting(settings, std::string_view(argument).substr(2), value);
  }
}

std::string absolute_path(const std::string& path, const std::string& current_dir) {
  std::string joined = (std::filesystem::path(current_dir) / path).string();
  if (!joined.starts_with('/')) {
    throw std::runtime_error("No current directory for the path: " + path);
  }
  return joined;
}

void settle_paths(ServerSettings& settings, const std::string& current_dir) {
  for (std::string* path : {&settings.all_txt, &settings.cert, &settings.key, &settings.log_file}) {
    *path = absolute_path(*path, current_dir);
  }
  const bool no_history = settings.history_db == "off";
  settings.history_db = no_history ? "" : absolute_path(settings.history_db, current_dir);
  if (!settings.pid_file.empty()) {
    settings.pid_file = absolute_path(settings.pid_file, current_dir);
  }
}

}  // namespace

UserDirectories user_directories(const Environment& environment) {
  const std::string home = environment_or(environment, "HOME", "/root");
  return {environment_or(environment, "XDG_CONFIG_HOME", home + "/.config") + "/corvane",
          environment_or(environment, "XDG_STATE_HOME", home + "/.local/state") + "/corvane"};
}

ServerSettings default_settings(const UserDirectories& directories) {
  ServerSettings settings;
  settings.all_txt = directories.state + "/ALL.TXT";
  settings.history_db = directories.state + "/history.sqlite3";
  settings.cert = directories.config + "/spot-server.crt";
  settings.key = directories.config + "/spot-server.key";
  settings.log_file = directories.state + "/spot-server.log";
  return settings;
}

void apply_setting(ServerSettings& settings, std::string_view name, const std::string& value) {
  if (name == "port") {
    settings.port = parse_port(value);
  } else if (name == "reload") {
    settings.reload = parse_reload(value);
  } else if (name == "demo") {
    settings.demo = parse_flag(name, value);
  } else if (name == "daemon") {
    settings.daemon = parse_flag(name, value);
  } else if (!apply_text(settings, name, value)) {
    throw std::runtime_error("Unknown setting: " + std::string(name));
  }
}

void read_config_file(ServerSettings& settings, const std::string& path) {
  const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) throw std::runtime_error("Cannot open config: " + path);
  LineReader lines(file.get());
  std::string line;
  for (std::size_t number = 1; lines.next(line); ++number) {
    apply_config_line(settings, line, number);
  }
}

CommandLine parse_command_line(const std::vector<std::string>& arguments,
                               const UserDirectories& directories, const std::string& current_dir) {
  CommandLine result;
  result.settings = default_settings(directories);
  std::vector<Option> options;
  result.action = collect_options(arguments, result.settings, options);
  if (result.action != CommandLine::Action::kRun) return result;
  apply_options(result.settings, options);
  settle_paths(result.settings, current_dir);
  return result;
}

std::string help_text(std::string_view argument0, const UserDirectories& directories) {
  std::string text = "Usage: " + std::string(argument0);
  std::string_view rest = kHelp;
  for (auto at = rest.find(kState); at != std::string_view::npos; at = rest.find(kState)) {
    text.append(rest.substr(0, at)).append(directories.state);
    rest.remove_prefix(at + kState.size());
  }
  return text.append(rest);
}

std::string version_text() {
  return std::string(kProgram) + " " + kVersion + " (" + kSuiteVersion + ")\n";
}

}  // namespace spotserver
