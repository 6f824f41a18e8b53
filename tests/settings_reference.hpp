// The rules of the command line and the configuration file once more, as plainly as they can be
// said: streams, strtol, strtod, two literal walks. Slow and simple; the tests hold the production
// code to it.
#pragma once

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "server/settings.hpp"

namespace spotserver::reference {

inline int plainPort(const std::string& value) {
  errno = 0;
  char* end = nullptr;
  const long port = std::strtol(value.c_str(), &end, 10);
  if (end == value.c_str()) throw std::invalid_argument("stoi");
  if (errno == ERANGE || port < INT_MIN || port > INT_MAX) throw std::out_of_range("stoi");
  if (end != value.data() + value.size() || port <= 0 || port >= 65536) {
    throw std::runtime_error("Invalid port: " + value);
  }
  return static_cast<int>(port);
}

inline double plainReload(const std::string& value) {
  errno = 0;
  char* end = nullptr;
  const double seconds = std::strtod(value.c_str(), &end);
  if (end == value.c_str()) throw std::invalid_argument("stod");
  if (errno == ERANGE) throw std::out_of_range("stod");
  const bool whole = end == value.data() + value.size();
  if (!whole || std::isnan(seconds) || std::isinf(seconds) || seconds < 0) {
    throw std::runtime_error("Invalid reload interval: " + value);
  }
  return seconds;
}

inline bool plainFlag(const std::string& name, const std::string& value) {
  if (value == "true") return true;
  if (value == "false") return false;
  throw std::runtime_error(name + " must be true or false");
}

inline void plainApply(ServerSettings& s, const std::string& name, const std::string& value) {
  if (name == "port")
    s.port = plainPort(value);
  else if (name == "reload")
    s.reload = plainReload(value);
  else if (name == "bind")
    s.bind = value;
  else if (name == "token")
    s.token = value;
  else if (name == "all-txt")
    s.all_txt = value;
  else if (name == "history-db")
    s.history_db = value;
  else if (name == "cert")
    s.cert = value, s.cert_given = true;
  else if (name == "key")
    s.key = value, s.key_given = true;
  else if (name == "log-file")
    s.log_file = value, s.log_file_given = true;
  else if (name == "pid-file")
    s.pid_file = value;
  else if (name == "demo")
    s.demo = plainFlag(name, value);
  else if (name == "daemon")
    s.daemon = plainFlag(name, value);
  else
    throw std::runtime_error("Unknown setting: " + name);
}

inline std::string plainTrim(std::string text) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && blank(text.back())) text.pop_back();
  while (!text.empty() && blank(text.front())) text.erase(text.begin());
  return text;
}

inline void plainConfig(ServerSettings& settings, const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("Cannot open config: " + path);
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    line = plainTrim(line);
    if (line.empty() || line[0] == '#') continue;
    const auto equals = line.find('=');
    if (equals == std::string::npos) {
      throw std::runtime_error("Expected key=value at line " + std::to_string(number));
    }
    plainApply(settings, plainTrim(line.substr(0, equals)), plainTrim(line.substr(equals + 1)));
  }
  if (in.bad()) throw std::runtime_error("Cannot read config");
}

inline CommandLine plainCommandLine(const std::vector<std::string>& args,
                                    const UserDirectories& directories, const std::string& cwd) {
  CommandLine result;
  ServerSettings& s = result.settings;
  s.all_txt = directories.state + "/ALL.TXT";
  s.history_db = directories.state + "/history.sqlite3";
  s.cert = directories.config + "/spot-server.crt";
  s.key = directories.config + "/spot-server.key";
  s.log_file = directories.state + "/spot-server.log";

  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--help" || args[i] == "-h") {
      result.action = CommandLine::Action::kShowHelp;
      return result;
    }
    if (args[i] == "--version") {
      result.action = CommandLine::Action::kShowVersion;
      return result;
    }
    if (args[i] == "--demo" || args[i] == "--daemon") continue;
    if (i + 1 >= args.size()) throw std::runtime_error(args[i] + " requires a value");
    if (args[i] == "--config") plainConfig(s, args[i + 1]);
    ++i;
  }
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--config") {
      ++i;
    } else if (args[i] == "--demo" || args[i] == "--daemon") {
      plainApply(s, args[i].substr(2), "true");
    } else if (args[i].substr(0, 2) != "--") {
      throw std::runtime_error("Unknown argument: " + args[i]);
    } else if (i + 1 >= args.size()) {
      throw std::runtime_error(args[i] + " requires a value");
    } else {
      plainApply(s, args[i].substr(2), args[i + 1]);
      ++i;
    }
  }
  const std::string base = cwd.back() == '/' ? cwd : cwd + "/";
  for (std::string* path : {&s.all_txt, &s.history_db, &s.cert, &s.key, &s.log_file, &s.pid_file}) {
    if (path == &s.history_db && *path == "off")
      path->clear();
    else if (path == &s.pid_file && path->empty())
      continue;
    else if (path->substr(0, 1) != "/")
      *path = base + *path;
  }
  return result;
}

}  // namespace spotserver::reference
