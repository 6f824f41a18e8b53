#include "server/settings.hpp"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <stdexcept>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "file_facts.hpp"
#include "settings_reference.hpp"
#include "temp_dir.hpp"

namespace {

// Each read takes the next of these errors instead of working, 0 being none, until all are taken.
std::deque<int> g_read_errors;
std::size_t g_longest_read = SIZE_MAX;

}  // namespace

// Stands in for the C library's own, for this program.
extern "C" ssize_t read(int fd, void* buffer, std::size_t size) {
  const int error = g_read_errors.empty() ? 0 : g_read_errors.front();
  if (!g_read_errors.empty()) g_read_errors.pop_front();
  if (error == 0) return ::syscall(SYS_read, fd, buffer, std::min(size, g_longest_read));
  errno = error;
  return -1;
}

namespace spotserver {
namespace {

using Action = CommandLine::Action;

const UserDirectories kDirectories{"/home/op/.config/corvane", "/home/op/.local/state/corvane"};

Environment environmentOf(const std::map<std::string, std::string>& variables) {
  return [variables](const char* name) -> const char* {
    const auto found = variables.find(name);
    return found == variables.end() ? nullptr : found->second.c_str();
  };
}

CommandLine parse(const std::vector<std::string>& arguments) {
  return parse_command_line(arguments, kDirectories, "/srv/radio");
}

std::string applyError(std::string_view name, const std::string& value) {
  ServerSettings settings;
  const ServerSettings before = settings;
  std::string error = errorOf([&] { apply_setting(settings, name, value); });
  EXPECT_TRUE(error == "no error" || settings == before) << name << "=" << value;
  return error;
}

std::string parseError(const std::vector<std::string>& arguments) {
  return errorOf([&] { parse(arguments); });
}

ServerSettings fromConfig(std::string_view text) {
  const TempDir dir;
  ServerSettings settings;
  read_config_file(settings, dir.write("x.conf", text));
  return settings;
}

std::string configError(std::string_view text) {
  return errorOf([&] { fromConfig(text); });
}

TEST(UserDirectories, UnsetOrEmptyVariablesFallBack) {
  const struct {
    std::map<std::string, std::string> variables;
    const char* config;
    const char* state;
  } cases[] = {
      {{}, "/root/.config/corvane", "/root/.local/state/corvane"},
      {{{"HOME", ""}}, "/root/.config/corvane", "/root/.local/state/corvane"},
      {{{"HOME", "/home/op"}}, "/home/op/.config/corvane", "/home/op/.local/state/corvane"},
      {{{"HOME", "/home/op"}, {"XDG_CONFIG_HOME", "/etc/op"}},
       "/etc/op/corvane",
       "/home/op/.local/state/corvane"},
      {{{"HOME", "/home/op"}, {"XDG_STATE_HOME", "/var/op"}},
       "/home/op/.config/corvane",
       "/var/op/corvane"},
      {{{"XDG_CONFIG_HOME", ""}, {"XDG_STATE_HOME", ""}, {"XDG_DATA_HOME", "/d"}},
       "/root/.config/corvane",
       "/root/.local/state/corvane"},
      {{{"XDG_CONFIG_HOME", "rel"}, {"XDG_STATE_HOME", "s/"}}, "rel/corvane", "s//corvane"},
  };
  for (const auto& c : cases) {
    const UserDirectories directories = user_directories(environmentOf(c.variables));
    EXPECT_EQ(directories.config, c.config);
    EXPECT_EQ(directories.state, c.state);
  }
}

TEST(DefaultSettings, AreTheDocumentedOnes) {
  const ServerSettings s = default_settings(kDirectories);
  EXPECT_EQ(s.port, 7373);
  EXPECT_EQ(s.reload, 15.0);
  EXPECT_EQ(s.bind, "0.0.0.0");
  EXPECT_EQ(s.token, "");
  EXPECT_EQ(s.all_txt, "/home/op/.local/state/corvane/ALL.TXT");
  EXPECT_EQ(s.history_db, "/home/op/.local/state/corvane/history.sqlite3");
  EXPECT_EQ(s.cert, "/home/op/.config/corvane/spot-server.crt");
  EXPECT_EQ(s.key, "/home/op/.config/corvane/spot-server.key");
  EXPECT_EQ(s.log_file, "/home/op/.local/state/corvane/spot-server.log");
  EXPECT_EQ(s.pid_file, "");
  EXPECT_FALSE(s.cert_given || s.key_given || s.log_file_given || s.demo || s.daemon);
}

TEST(ApplySetting, PortIsAWholeNumberFrom1To65535) {
  const struct {
    const char* value;
    int port;
  } good[] = {{"1", 1}, {"65535", 65535}, {"+80", 80}, {"0080", 80}, {" \t80", 80}};
  for (const auto& c : good) {
    ServerSettings settings;
    apply_setting(settings, "port", c.value);
    EXPECT_EQ(settings.port, c.port) << c.value;
  }
  for (const char* bad : {"0", "65536", "-1", "80x", "80 ", "0x50", "8.0", "2147483647"}) {
    EXPECT_EQ(applyError("port", bad), std::string("Invalid port: ") + bad);
  }
  for (const char* bad : {"", " ", "x80", "+", "2147483648", "-2147483649"}) {
    EXPECT_EQ(applyError("port", bad), "stoi") << bad;
  }
}

TEST(ApplySetting, ReloadIsFiniteAndNotNegative) {
  const struct {
    const char* value;
    double seconds;
  } good[] = {{"0", 0},     {"-0", 0},      {"0.5", 0.5}, {".5", 0.5}, {"5.", 5},
              {"1e3", 1e3}, {"0x1p3", 8.0}, {" 2", 2},    {"+2", 2}};
  for (const auto& c : good) {
    ServerSettings settings;
    apply_setting(settings, "reload", c.value);
    EXPECT_EQ(settings.reload, c.seconds) << c.value;
  }
  for (const char* bad : {"-1", "-0.001", "inf", "-inf", "nan", "15s", "15 s", "15,5", "5e"}) {
    EXPECT_EQ(applyError("reload", bad), std::string("Invalid reload interval: ") + bad);
  }
  for (const char* bad : {"", "s15", "1e309", "-1e309", "1e-400"}) {
    EXPECT_EQ(applyError("reload", bad), "stod") << bad;
  }
}

TEST(ApplySetting, TextsAreTakenAsTheyStand) {
  const struct {
    const char* name;
    std::string ServerSettings::*field;
    bool ServerSettings::*given;
  } cases[] = {
      {"bind", &ServerSettings::bind, nullptr},
      {"token", &ServerSettings::token, nullptr},
      {"all-txt", &ServerSettings::all_txt, nullptr},
      {"history-db", &ServerSettings::history_db, nullptr},
      {"pid-file", &ServerSettings::pid_file, nullptr},
      {"cert", &ServerSettings::cert, &ServerSettings::cert_given},
      {"key", &ServerSettings::key, &ServerSettings::key_given},
      {"log-file", &ServerSettings::log_file, &ServerSettings::log_file_given},
  };
  for (const auto& c : cases) {
    for (const char* value : {" a=b ", "", "off"}) {
      ServerSettings settings;
      ServerSettings expected;
      apply_setting(settings, c.name, value);
      expected.*c.field = value;
      if (c.given != nullptr) expected.*c.given = true;
      EXPECT_EQ(settings, expected) << c.name << "=" << value;
    }
  }
}

TEST(ApplySetting, FlagsAreExactlyTrueOrFalse) {
  for (const char* name : {"demo", "daemon"}) {
    ServerSettings settings;
    apply_setting(settings, name, "true");
    EXPECT_EQ(settings.demo, std::string_view(name) == "demo");
    EXPECT_EQ(settings.daemon, std::string_view(name) == "daemon");
    apply_setting(settings, name, "false");
    EXPECT_EQ(settings, ServerSettings()) << name;
    for (const char* bad : {"", "True", "TRUE", "yes", "1", "true "}) {
      EXPECT_EQ(applyError(name, bad), std::string(name) + " must be true or false") << bad;
    }
  }
}

TEST(ApplySetting, UnknownNamesAreRefused) {
  for (const char* name : {"", "Port", "config", "help", "cert_given", "-port", "port "}) {
    EXPECT_EQ(applyError(name, "1"), std::string("Unknown setting: ") + name);
  }
}

TEST(ConfigFile, BlanksAroundKeyEqualsAndValueDoNotCount) {
  const struct {
    const char* text;
    const char* token;
  } cases[] = {
      {"token=x", "x"},
      {" \t token \t = \t x \t \r\n", "x"},
      {"token = a b", "a b"},
      {"token=a=b = c", "a=b = c"},
      {"token=\"x\" # y", "\"x\" # y"},
      {"token=\vx\f", "\vx\f"},
      {"token=x\ntoken=", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(fromConfig(c.text).token, c.token) << c.text;
}

TEST(ConfigFile, CommentsAndBlankLinesAreSkipped) {
  ServerSettings expected;
  expected.port = 80;
  EXPECT_EQ(fromConfig("# a = b\n\n \t\r\n  #port=1\n\nport=80\n#"), expected);
  EXPECT_EQ(fromConfig(""), ServerSettings());
  EXPECT_EQ(fromConfig("\n"), ServerSettings());
}

TEST(ConfigFile, ALineNeedsAnEqualsSign) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"port", "Expected key=value at line 1"},
      {"port\n", "Expected key=value at line 1"},
      {"port=80\n\n# x\n token \ndemo", "Expected key=value at line 4"},
      {"\v", "Expected key=value at line 1"},  // not a blank here
      {"\n=x", "Unknown setting: "},
      {" = ", "Unknown setting: "},
      {"\xEF\xBB\xBFport=80", "Unknown setting: \xEF\xBB\xBFport"},
      {"port=0", "Invalid port: 0"},
      {"demo=yes", "demo must be true or false"},
      {"daemon=", "daemon must be true or false"},
  };
  for (const auto& c : cases) EXPECT_EQ(configError(c.text), c.error) << c.text;
}

TEST(ConfigFile, BytesOfAnyKindBelongToTheValue) {
  EXPECT_EQ(fromConfig(std::string_view("token=a\0b\xff\n", 11)).token, std::string("a\0b\xff", 4));
  EXPECT_EQ(applyError("port", std::string("80\0", 3)), std::string("Invalid port: 80"));
}

TEST(ConfigFile, EarlierLinesStayAppliedBehindAnError) {
  const TempDir dir;
  ServerSettings settings;
  EXPECT_EQ(errorOf([&] { read_config_file(settings, dir.write("c", "port=80\nx\nport=81\n")); }),
            "Expected key=value at line 2");
  EXPECT_EQ(settings.port, 80);
}

TEST(ConfigFile, AReadThatFailsEndsTheFileAndAnInterruptedOneDoesNot) {
  const TempDir dir;
  const std::string path = dir.write("c", "port=80\n" + std::string(100'000, '\n') + "port=81\n");
  const struct {
    std::deque<int> errors;
    const char* error;
    int port;
  } cases[] = {{{EINTR, 0, EINTR, EINTR}, "no error", 81},
               {{EIO}, "Cannot read config", 7373},
               {{0, EIO}, "Cannot read config", 80}};
  for (const auto& c : cases) {
    ServerSettings settings;
    g_read_errors = c.errors;
    EXPECT_EQ(errorOf([&] { read_config_file(settings, path); }), c.error);
    EXPECT_EQ(settings.port, c.port) << c.error;
    g_read_errors.clear();
  }
}

TEST(ConfigFile, MissingFileAndDirectoryAreToldApart) {
  const TempDir dir;
  ServerSettings settings;
  EXPECT_EQ(errorOf([&] { read_config_file(settings, dir.path("none")); }),
            "Cannot open config: " + dir.path("none"));
  EXPECT_EQ(errorOf([&] { read_config_file(settings, ""); }), "Cannot open config: ");
  EXPECT_EQ(errorOf([&] { read_config_file(settings, dir.path()); }), "Cannot read config");
}

TEST(ConfigFile, AOneMebibyteLineIsTheLongest) {
  const std::string longest(std::size_t{1} << 20, '#');
  ServerSettings expected;
  expected.port = 80;
  EXPECT_EQ(fromConfig(longest + "\nport=80"), expected);
  EXPECT_EQ(fromConfig("port=80\n" + longest), expected);
  EXPECT_EQ(configError(longest + "#\nport=80"), "Cannot read config");
  EXPECT_EQ(configError(longest + "#"), "Cannot read config");
}

TEST(ConfigFile, AnEndlessLineIsGivenUp) {
  ServerSettings settings;
  EXPECT_EQ(errorOf([&] { read_config_file(settings, "/dev/zero"); }), "Cannot read config");
}

TEST(ConfigFile, APipeIsReadToItsEnd) {
  const TempDir dir;
  const std::string fifo = dir.path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  std::thread writer([&] { std::ofstream(fifo) << "port=80\n" << std::flush << "token=x"; });
  ServerSettings settings;
  read_config_file(settings, fifo);
  writer.join();
  EXPECT_EQ(settings.port, 80);
  EXPECT_EQ(settings.token, "x");
}

TEST(ConfigFile, ReadsOfOneByteEachAreGoneOnWith) {
  g_longest_read = 1;
  const ServerSettings settings = fromConfig("port=80\ntoken=x\n");
  g_longest_read = SIZE_MAX;
  EXPECT_EQ(settings.port, 80);
  EXPECT_EQ(settings.token, "x");
}

TEST(CommandLine, WithoutArgumentsTheDefaultsHold) {
  const CommandLine line = parse({});
  EXPECT_EQ(line.action, Action::kRun);
  EXPECT_EQ(line.settings, default_settings(kDirectories));
}

TEST(CommandLine, WinsOverTheFileOnEitherSideOfIt) {
  const TempDir dir;
  const std::string config = dir.write("x.conf", "port=80\ntoken=file\n");
  for (const auto& arguments : {std::vector<std::string>{"--config", config, "--port", "90"},
                                std::vector<std::string>{"--port", "90", "--config", config}}) {
    const ServerSettings settings = parse(arguments).settings;
    EXPECT_EQ(settings.port, 90) << arguments[0];
    EXPECT_EQ(settings.token, "file") << arguments[0];
  }
}

TEST(CommandLine, ALaterFileWinsOverAnEarlierOne) {
  const TempDir dir;
  const std::string first = dir.write("1.conf", "port=81\ntoken=one\n");
  const std::string second = dir.write("2.conf", "port=82\nbind=::1\n");
  ServerSettings settings = parse({"--config", first, "--demo", "--config", second}).settings;
  EXPECT_EQ(settings.port, 82);
  EXPECT_EQ(settings.token, "one");
  EXPECT_EQ(settings.bind, "::1");
  EXPECT_TRUE(settings.demo);
  EXPECT_EQ(parse({"--config", second, "--config", first}).settings.port, 81);
}

TEST(CommandLine, EverySettingIsAnOptionAndTheLastOneCounts) {
  const ServerSettings s =
      parse({"--port",  "1",  "--port",     "2",  "--reload",     "0.5", "--bind", "::1",
             "--token", "",   "--all-txt",  "/a", "--history-db", "/h",  "--cert", "/c",
             "--key",   "/k", "--log-file", "/l", "--pid-file",   "/p",  "--demo", "--daemon"})
          .settings;
  EXPECT_EQ(s.port, 2);
  EXPECT_EQ(s.reload, 0.5);
  EXPECT_EQ(s.bind, "::1");
  EXPECT_EQ(s.token, "");
  EXPECT_EQ(s.all_txt, "/a");
  EXPECT_EQ(s.history_db, "/h");
  EXPECT_EQ(s.cert, "/c");
  EXPECT_EQ(s.key, "/k");
  EXPECT_EQ(s.log_file, "/l");
  EXPECT_EQ(s.pid_file, "/p");
  EXPECT_TRUE(s.cert_given && s.key_given && s.log_file_given && s.demo && s.daemon);
}

TEST(CommandLine, MistakesAreNamed) {
  const struct {
    std::vector<std::string> arguments;
    const char* error;
  } cases[] = {
      {{"--config"}, "--config requires a value"},
      {{"--config", "/nowhere/x.conf"}, "Cannot open config: /nowhere/x.conf"},
      {{"--port"}, "--port requires a value"},
      {{"--demo", "--bogus"}, "--bogus requires a value"},
      {{"stray"}, "stray requires a value"},
      {{""}, " requires a value"},
      {{"stray", "x"}, "Unknown argument: stray"},
      {{"-p", "80"}, "Unknown argument: -p"},
      {{"", "x"}, "Unknown argument: "},
      {{"--bogus", "x"}, "Unknown setting: bogus"},
      {{"--", "x"}, "Unknown setting: "},
      {{"--Port", "80"}, "Unknown setting: Port"},
      {{"--port=80", "x"}, "Unknown setting: port=80"},
      {{"--port", "http"}, "stoi"},
      {{"--port", "65536"}, "Invalid port: 65536"},
      {{"--reload", "15s"}, "Invalid reload interval: 15s"},
      {{"--demo", "true"}, "true requires a value"},  // flags take no value
      {{"--daemon", "true", "--demo"}, "Unknown argument: true"},
      {{"--port", "0", "--config", "/nowhere/x.conf"}, "Cannot open config: /nowhere/x.conf"},
      {{"--port", "0", "--key"}, "--key requires a value"},
      {{"--port", "0", "stray", "x"}, "Invalid port: 0"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parseError(c.arguments), c.error) << ::testing::PrintToString(c.arguments);
  }
}

TEST(CommandLine, HelpAndVersionEndTheReadingAtOnce) {
  const struct {
    std::vector<std::string> arguments;
    Action action;
  } cases[] = {
      {{"--help"}, Action::kShowHelp},
      {{"-h"}, Action::kShowHelp},
      {{"--version"}, Action::kShowVersion},
      {{"--version", "--help"}, Action::kShowVersion},
      {{"--help", "--version"}, Action::kShowHelp},
      {{"--help", "--config", "/nowhere/x.conf"}, Action::kShowHelp},
      {{"--port", "0", "--bogus", "x", "--help", "--port"}, Action::kShowHelp},
      {{"--demo", "-h"}, Action::kShowHelp},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parse(c.arguments).action, c.action) << ::testing::PrintToString(c.arguments);
  }
  EXPECT_EQ(parseError({"--config", "/nowhere/x.conf", "--help"}),
            "Cannot open config: /nowhere/x.conf");
}

TEST(CommandLine, HelpAsAValueIsPlainText) {
  const CommandLine line = parse({"--token", "--help", "--bind", "-h", "--key", "--version"});
  EXPECT_EQ(line.action, Action::kRun);
  EXPECT_EQ(line.settings.token, "--help");
  EXPECT_EQ(line.settings.bind, "-h");
  EXPECT_EQ(line.settings.key, "/srv/radio/--version");
  EXPECT_EQ(parseError({"--config", "--help"}), "Cannot open config: --help");
}

TEST(CommandLine, HistoryOffMeansNone) {
  const TempDir dir;
  EXPECT_EQ(parse({"--history-db", "off"}).settings.history_db, "");
  EXPECT_EQ(parse({"--config", dir.write("c", "history-db = off")}).settings.history_db, "");
  EXPECT_EQ(parse({"--history-db", "Off"}).settings.history_db, "/srv/radio/Off");
  EXPECT_EQ(parse({"--history-db", "./off"}).settings.history_db, "/srv/radio/./off");
  EXPECT_EQ(parse({"--all-txt", "off"}).settings.all_txt, "/srv/radio/off");
}

TEST(CommandLine, PathsBecomeAbsoluteAsTheyAreWritten) {
  const struct {
    const char* given;
    const char* current;
    const char* expected;
  } cases[] = {
      {"a", "/srv", "/srv/a"}, {"./a/../b", "/srv", "/srv/./a/../b"},
      {"a", "/", "/a"},        {"/a//b/", "/srv", "/a//b/"},
      {"", "/srv", "/srv/"},   {"~/a", "/srv", "/srv/~/a"},
      {"/a", "", "/a"},
  };
  for (const auto& c : cases) {
    for (const char* option : {"--all-txt", "--history-db", "--cert", "--key", "--log-file"}) {
      const ServerSettings s =
          parse_command_line({option, c.given}, kDirectories, c.current).settings;
      EXPECT_THAT((std::vector{s.all_txt, s.history_db, s.cert, s.key, s.log_file}),
                  ::testing::Contains(c.expected))
          << option << " " << c.given;
    }
  }
  EXPECT_EQ(parse({"--pid-file", "run/x.pid"}).settings.pid_file, "/srv/radio/run/x.pid");
  EXPECT_EQ(parse({"--pid-file", ""}).settings.pid_file, "");
}

TEST(CommandLine, RelativeUserDirectoriesBecomeAbsoluteToo) {
  const ServerSettings s = parse_command_line({}, {"c/corvane", "s/corvane"}, "/srv").settings;
  EXPECT_EQ(s.all_txt, "/srv/s/corvane/ALL.TXT");
  EXPECT_EQ(s.history_db, "/srv/s/corvane/history.sqlite3");
  EXPECT_EQ(s.cert, "/srv/c/corvane/spot-server.crt");
  EXPECT_EQ(s.key, "/srv/c/corvane/spot-server.key");
  EXPECT_EQ(s.log_file, "/srv/s/corvane/spot-server.log");
  EXPECT_FALSE(s.cert_given || s.key_given || s.log_file_given);
}

TEST(CommandLine, ARelativePathNeedsACurrentDirectory) {
  EXPECT_EQ(errorOf([] {
              parse_command_line({"--key", "k.pem"}, kDirectories, "");
            }),
            "No current directory for the path: k.pem");
}

TEST(CommandLine, EqualsThePlainReferenceOnRandomArguments) {
  const TempDir dir;
  const std::vector<std::string> words = {
      "--config",
      dir.write("a.conf", "port=80\nreload = 3\nhistory-db=off\n"),
      "--config",
      dir.write("b.conf", "demo=true\n#\n\ncert=c.pem\n"),
      "--help",
      "--version",
      "--demo",
      "--daemon",
      "--port",
      "--reload",
      "--bind",
      "--token",
      "--history-db",
      "--cert",
      "--pid-file",
      "off",
      "80",
      "65536",
      "1e3",
      "",
      "x",
      "--bogus"};
  std::mt19937 random(1);
  int runs = 0;
  for (int round = 0; round < 20000; ++round) {
    std::vector<std::string> arguments(random() % 9);
    for (auto& argument : arguments) argument = words[random() % words.size()];
    CommandLine got;
    CommandLine expected;
    const auto error = errorOf([&] { got = parse(arguments); });
    const auto plain = errorOf(
        [&] { expected = reference::plainCommandLine(arguments, kDirectories, "/srv/radio"); });
    ASSERT_EQ(error, plain) << ::testing::PrintToString(arguments);
    ASSERT_EQ(got.action, expected.action) << ::testing::PrintToString(arguments);
    if (error != "no error" || got.action != Action::kRun) continue;
    ASSERT_EQ(got.settings, expected.settings) << ::testing::PrintToString(arguments);
    ++runs;
  }
  EXPECT_GT(runs, 1000);  // the words are chosen so that many lines are good ones
}

TEST(HelpText, IsTheDocumentedOne) {
  EXPECT_EQ(help_text("./corvane-spot-server", {"/c", "/STATE/corvane"}),
            "Usage: ./corvane-spot-server [options]\n"
            "  --config PATH     load key=value settings (CLI overrides file)\n"
            "  --daemon          detach into the background\n"
            "  --log-file PATH   daemon output (default <state>/spot-server.log)\n"
            "  --pid-file PATH   write the server's PID here (removed when it stops)\n"
            "  --port N          TLS port to listen on (default 7373)\n"
            "  --bind ADDR       interface to bind (default 0.0.0.0, all)\n"
            "  --token TOKEN      shared bearer token (default: generated and printed)\n"
            "  --history-db PATH  the receivers' decode-interval history, for rates and counts\n"
            "                     (default /STATE/corvane/history.sqlite3; off: none)\n"
            "  --all-txt PATH     ALL.TXT decode log, for callsigns (and rates without a history)\n"
            "                     (default /STATE/corvane/ALL.TXT)\n"
            "  --cert PATH        TLS certificate PEM (default <config>/spot-server.crt)\n"
            "  --key PATH         TLS private key PEM (default <config>/spot-server.key)\n"
            "  --reload SECONDS   minimum seconds between ALL.TXT re-scans (default 15)\n"
            "  --demo             serve synthetic data instead of reading ALL.TXT\n"
            "  --version          print version and exit\n"
            "  --help             this help\n");
}

// The tests above rely on it.
TEST(ServerSettings, DifferWhereAnySingleOneDiffers) {
  using Change = void (*)(ServerSettings&);
  const Change changes[] = {
      [](auto& s) { s.port = 1; },       [](auto& s) { s.reload = 1; },
      [](auto& s) { s.bind = "x"; },     [](auto& s) { s.token = "x"; },
      [](auto& s) { s.all_txt = "x"; },  [](auto& s) { s.history_db = "x"; },
      [](auto& s) { s.cert = "x"; },     [](auto& s) { s.cert_given = true; },
      [](auto& s) { s.key = "x"; },      [](auto& s) { s.key_given = true; },
      [](auto& s) { s.log_file = "x"; }, [](auto& s) { s.log_file_given = true; },
      [](auto& s) { s.pid_file = "x"; }, [](auto& s) { s.demo = true; },
      [](auto& s) { s.daemon = true; },
  };
  EXPECT_EQ(ServerSettings(), ServerSettings());
  for (std::size_t i = 0; i < std::size(changes); ++i) {
    ServerSettings changed;
    changes[i](changed);
    EXPECT_NE(changed, ServerSettings()) << i;
  }
}

TEST(VersionText, NamesTheProgramAndItsSuite) {
  EXPECT_EQ(version_text(), "corvane-spot-server 0.3.0 (Corvane 0.95.12)\n");
}

}  // namespace
}  // namespace spotserver
