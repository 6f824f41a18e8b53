// Where and how the server is started must not matter: locale, time zone, descriptors, umask.
#include <csignal>
#include <filesystem>
#include <memory>
#include <type_traits>

#include <gtest/gtest.h>
#include <locale.h>

#include "e2e/activity_model.hpp"
#include "e2e/station.hpp"
#include "server/owned.hpp"

namespace spotserver::e2e {
namespace {

using LocalePtr = std::unique_ptr<std::remove_pointer_t<locale_t>, With<freelocale>>;

constexpr const char* kComma = "de_DE.UTF-8";  // a locale with a decimal comma

// A locale that is not installed is the C locale, in which nothing could go wrong.
bool isInstalled(const char* locale) {
  return LocalePtr(newlocale(LC_ALL_MASK, locale, nullptr)) != nullptr;
}

TEST(Surroundings, LocaleAndTimeZoneDoNotMatter) {
  ASSERT_TRUE(isInstalled(kComma)) << "install the package locales-all";
  const std::map<std::string, std::string> cases[] = {
      {{"LC_ALL", kComma}},
      {{"LC_ALL", "no_SUCH.LOCALE"}, {"LANG", "xx"}},
      {{"LC_NUMERIC", kComma}, {"LANG", kComma}},
      {{"TZ", "XYZ-13:45"}},
      {{"TZ", "America/St_Johns"}},
      {{"TZ", ":no/such/zone"}},
  };
  for (const auto& environment : cases) {
    SCOPED_TRACE(environment.begin()->first + "=" + environment.begin()->second);
    const Station station;
    const std::int64_t time = wallClock() / 60 * 60 - 600;
    std::vector<Heard> decodes;
    for (int slot = 0; slot < 7; ++slot) {
      decodes.push_back({time + 15 * slot, "14.074", "FT8", "K1ABC"});
      decodes.push_back({time + 15 * slot, "13.5", "FT8", "DL1ABC"});
    }
    station.writeLog(logText(decodes));
    writeFile(station.workFile("spot.conf"), "reload = 0.25\n");
    Launch launch = station.launch({"--config", "spot.conf", "--port", station.portText(), "--bind",
                                    "127.0.0.1", "--token", kToken, "--history-db", "off"});
    launch.environment.insert(environment.begin(), environment.end());
    ServerProcess server(launch);
    server.awaitOutput(kReady);
    const std::string body = station.activity("?hours=1&smoothing=5").body;
    EXPECT_EQ(body, expectedFromLog({1, 5}, generatedAt(body), decodes));
  }
}

TEST(Surroundings, CommaIsNoDecimalPointWhateverTheLocale) {
  ASSERT_TRUE(isInstalled(kComma)) << "install the package locales-all";
  const Station station;
  Launch launch = station.usualLaunch({"--reload", "0,5"});
  launch.environment["LC_ALL"] = kComma;
  const Outcome outcome = runToEnd(launch);
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.errors, "Configuration error: Invalid reload interval: 0,5\n");
}

TEST(Surroundings, ClosedStandardDescriptors) {
  const Station station;
  Launch launch = station.usualLaunch({"--pid-file", "spot.pid"});
  launch.closed_descriptors = {0, 1, 2};
  DirectoryWatch watch(station.work());
  ServerProcess server(launch);
  watch.awaitArrival("spot.pid");  // bound by then
  EXPECT_EQ(station.activity().status, 200);
  // Nothing was printed into a file that happened to get number 1 or 2.
  EXPECT_TRUE(readFile(station.certificate()).ends_with("-----END CERTIFICATE-----\n"));
  EXPECT_TRUE(readFile(station.key()).ends_with("-----END PRIVATE KEY-----\n"));
  const std::string descriptors = "/proc/" + std::to_string(server.pid()) + "/fd/";
  for (const char* number : {"0", "1", "2"}) {
    EXPECT_EQ(std::filesystem::read_symlink(descriptors + number), "/dev/null") << number;
  }
  server.signal(SIGTERM);
  EXPECT_EQ(server.waitForExit(kStopLimit), 0);
}

TEST(Surroundings, FailureWithClosedDescriptorsStillHasItsStatus) {
  const Station station;
  Launch launch = station.launch({"--port", "0"});
  launch.closed_descriptors = {0, 1, 2};
  EXPECT_EQ(runToEnd(launch).status, 2);
}

TEST(Surroundings, NoHomeAtAllStillGivesHelp) {
  const Station station;
  Launch launch = station.launch({"--version"});
  launch.environment.clear();
  const Outcome outcome = runToEnd(launch);
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output, "corvane-spot-server 0.3.0 (Corvane 0.95.12)\n");
}

}  // namespace
}  // namespace spotserver::e2e
