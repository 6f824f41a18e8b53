// The command line and configuration files, as a user meets them on the terminal.
#include <gtest/gtest.h>

#include "e2e/station.hpp"

namespace spotserver::e2e {
namespace {

std::string helpText(const std::string& state) {
  return "Usage: corvane-spot-server [options]\n"
         "  --config PATH     load key=value settings (CLI overrides file)\n"
         "  --daemon          detach into the background\n"
         "  --log-file PATH   daemon output (default <state>/spot-server.log)\n"
         "  --pid-file PATH   write the server's PID here (removed when it stops)\n"
         "  --port N          TLS port to listen on (default 7373)\n"
         "  --bind ADDR       interface to bind (default 0.0.0.0, all)\n"
         "  --token TOKEN      shared bearer token (default: generated and printed)\n"
         "  --history-db PATH  the receivers' decode-interval history, for rates and counts\n"
         "                     (default " +
         state +
         "/history.sqlite3; off: none)\n"
         "  --all-txt PATH     ALL.TXT decode log, for callsigns (and rates without a history)\n"
         "                     (default " +
         state +
         "/ALL.TXT)\n"
         "  --cert PATH        TLS certificate PEM (default <config>/spot-server.crt)\n"
         "  --key PATH         TLS private key PEM (default <config>/spot-server.key)\n"
         "  --reload SECONDS   minimum seconds between ALL.TXT re-scans (default 15)\n"
         "  --demo             serve synthetic data instead of reading ALL.TXT\n"
         "  --version          print version and exit\n"
         "  --help             this help\n";
}

TEST(CommandLine, HelpLetterByLetter) {
  const Station station;
  const std::vector<std::string> cases[] = {
      {"--help"}, {"-h"}, {"--port", "0", "--help"}, {"--demo", "-h", "--version"}};
  for (const auto& arguments : cases) {
    const Outcome outcome = runToEnd(station.launch(arguments));
    EXPECT_EQ(outcome.status, 0) << arguments[0];
    EXPECT_EQ(outcome.output, helpText(station.stateDir())) << arguments[0];
    EXPECT_EQ(outcome.errors, "") << arguments[0];
  }
}

TEST(CommandLine, HelpNamesTheStateDirectoryInUse) {
  const Station station;
  Launch launch = station.launch({"--help"});
  launch.environment["XDG_STATE_HOME"] = "/srv/state";
  EXPECT_EQ(runToEnd(launch).output, helpText("/srv/state/corvane"));
}

TEST(CommandLine, VersionLetterByLetter) {
  const Station station;
  const std::vector<std::string> cases[] = {{"--version"}, {"--nonsense", "1", "--version"}};
  for (const auto& arguments : cases) {
    const Outcome outcome = runToEnd(station.launch(arguments));
    EXPECT_EQ(outcome.status, 0) << arguments[0];
    EXPECT_EQ(outcome.output, "corvane-spot-server 0.3.0 (Corvane 0.95.12)\n");
    EXPECT_EQ(outcome.errors, "") << arguments[0];
  }
}

TEST(CommandLine, MistakesAreNamedAndEndWithStatusTwo) {
  const Station station;
  const struct {
    std::vector<std::string> arguments;
    const char* message;
  } cases[] = {
      {{"--port", "0"}, "Invalid port: 0"},
      {{"--port", "65536"}, "Invalid port: 65536"},
      {{"--port", "7373x"}, "Invalid port: 7373x"},
      {{"--port", "x"}, "stoi"},
      {{"--port", "99999999999"}, "stoi"},
      {{"--reload", "-1"}, "Invalid reload interval: -1"},
      {{"--reload", "inf"}, "Invalid reload interval: inf"},
      {{"--reload", "15s"}, "Invalid reload interval: 15s"},
      {{"--reload", "soon"}, "stod"},
      {{"--reload", "1e999"}, "stod"},
      {{"--nonsense", "1"}, "Unknown setting: nonsense"},
      {{"--", "1"}, "Unknown setting: "},
      {{"word", "x"}, "Unknown argument: word"},
      {{"-p", "80"}, "Unknown argument: -p"},
      {{"word"}, "word requires a value"},
      {{"--port"}, "--port requires a value"},
      {{"--demo", "--token"}, "--token requires a value"},
      {{"--config"}, "--config requires a value"},
      {{"--config", "/nowhere/spot.conf"}, "Cannot open config: /nowhere/spot.conf"},
  };
  for (const auto& c : cases) {
    const Outcome outcome = runToEnd(station.launch(c.arguments));
    EXPECT_EQ(outcome.status, 2) << c.message;
    EXPECT_EQ(outcome.errors, "Configuration error: " + std::string(c.message) + "\n");
    EXPECT_EQ(outcome.output, "") << c.message;
  }
  EXPECT_FALSE(exists(station.home() + "/.config")) << "nothing may be started before";
}

TEST(Configuration, MistakesInTheFileEndWithStatusTwo) {
  const Station station;
  const struct {
    const char* file;
    const char* message;
  } cases[] = {
      {"# fine\n\nport\n", "Expected key=value at line 3"},
      {"port = 0\n", "Invalid port: 0"},
      {"demo = yes\n", "demo must be true or false"},
      {"daemon = True\n", "daemon must be true or false"},
      {"= 5\n", "Unknown setting: "},
      {"colour = red\n", "Unknown setting: colour"},
      {"port = 80 # web\n", "Invalid port: 80 # web"},
  };
  for (const auto& c : cases) {
    writeFile(station.workFile("spot.conf"), c.file);
    const Outcome outcome = runToEnd(station.launch({"--config", "spot.conf"}));
    EXPECT_EQ(outcome.status, 2) << c.file;
    EXPECT_EQ(outcome.errors, "Configuration error: " + std::string(c.message) + "\n") << c.file;
    EXPECT_EQ(outcome.output, "") << c.file;
  }
}

TEST(Configuration, DirectoryInPlaceOfTheFile) {
  const Station station;
  const Outcome outcome = runToEnd(station.launch({"--config", station.home()}));
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors, "Configuration error: Cannot read config\n");
}

TEST(Configuration, FileSetsEverything) {
  const Station station;
  writeFile(station.workFile("conf/spot.conf"),
            "# my station\n"
            " \t port \t=\t" +
                station.portText() +
                " \r\n"
                "bind=127.0.0.1\n"
                "   # token = no\n"
                "token = a = b # c\n"
                "all-txt = logs/ALL.TXT\n"
                "history-db = off\n"
                "cert = my.crt\n"
                "key = my.key\n"
                "reload = 0.5\n"
                "demo = false\n"
                "daemon = false");
  ServerProcess server(station.launch({"--config", "conf/spot.conf"}));
  server.awaitOutput(kReady);
  Banner expected = usualBanner(station, TlsClient(station.port()).fingerprint());
  expected.source = station.workFile("logs/ALL.TXT");
  expected.certificate = station.workFile("my.crt");
  expected.token = "a = b # c";
  EXPECT_EQ(server.output(), text(expected));
}

TEST(Configuration, CommandLineWinsWhereverItStands) {
  const Station station;
  writeFile(station.workFile("spot.conf"), "port = 1\ntoken = from file\nhistory-db = off\n");
  const std::string port = station.portText();
  const std::vector<std::string> cases[] = {
      {"--config", "spot.conf", "--port", port, "--bind", "127.0.0.1"},
      {"--port", port, "--bind", "127.0.0.1", "--config", "spot.conf"}};
  for (const auto& arguments : cases) {
    ServerProcess server(station.launch(arguments));
    const std::string& banner = server.awaitOutput(kReady);
    EXPECT_EQ(bannerValue(banner, "Port:"), port) << arguments[0];
    EXPECT_EQ(bannerValue(banner, "Token:"), "from file") << arguments[0];
    EXPECT_EQ(bannerValue(banner, "history:"), "none") << arguments[0];
  }
}

TEST(Configuration, LaterFileAndLaterOptionWin) {
  const Station station;
  writeFile(station.workFile("one.conf"), "token = one\nbind = 127.0.0.1\n");
  writeFile(station.workFile("two.conf"), "token = two\n");
  ServerProcess server(station.launch({"--config", "one.conf", "--port", "1", "--config",
                                       "two.conf", "--port", station.portText()}));
  EXPECT_EQ(bannerValue(server.awaitOutput(kReady), "Token:"), "two");
  EXPECT_EQ(station.get(kActivityPath, bearer("two")).status, 200);
}

}  // namespace
}  // namespace spotserver::e2e
