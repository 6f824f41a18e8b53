#include "server/banner.hpp"

#include <gtest/gtest.h>

namespace spotserver {
namespace {

ServerSettings stationSettings() {
  ServerSettings settings;
  settings.port = 7400;
  settings.bind = "127.0.0.1";
  settings.all_txt = "/st/ALL.TXT";
  settings.history_db = "/st/history.sqlite3";
  settings.cert = "/cf/spot-server.crt";
  return settings;
}

const BannerFacts kFacts{"00000005", "AB:CD", true, 42};

TEST(Banner, LiveStationByteForByte) {
  EXPECT_EQ(banner_text(stationSettings(), kFacts),
            "corvane-spot-server 0.3.0\n"
            "  mode:        live (ALL.TXT)\n"
            "  source:      /st/ALL.TXT\n"
            "  history:     /st/history.sqlite3\n"
            "  listening:   https://127.0.0.1:7400\n"
            "  certificate: /cf/spot-server.crt\n"
            "  spots held:  42\n"
            "\n"
            "Configure the Corvane phone app with:\n"
            "  Host/IP:     <this machine's LAN address>\n"
            "  Port:        7400\n"
            "  Token:       00000005\n"
            "  TLS SHA-256: AB:CD\n"
            "\n"
            "Endpoints: GET /api/v1/health  GET /api/v1/activity?hours=6&smoothing=3\n"
            "Press Ctrl-C to stop.\n");
}

TEST(Banner, DemoModeShowsNoFiles) {
  auto settings = stationSettings();
  settings.demo = true;
  const auto text = banner_text(settings, kFacts);
  EXPECT_NE(text.find("  mode:        demo (synthetic data)\n"
                      "  source:      <synthetic>\n"
                      "  history:     none\n"),
            std::string::npos)
      << text;
}

TEST(Banner, HistoryThatCouldNotBeReadIsMarked) {
  auto facts = kFacts;
  facts.history_readable = false;
  const auto text = banner_text(stationSettings(), facts);
  EXPECT_NE(text.find("  history:     /st/history.sqlite3 (not readable yet)\n"), std::string::npos)
      << text;
}

TEST(Banner, NoHistoryPathReadsNone) {
  auto settings = stationSettings();
  settings.history_db.clear();
  auto facts = kFacts;
  facts.history_readable = false;
  EXPECT_NE(banner_text(settings, facts).find("  history:     none\n"), std::string::npos);
}

}  // namespace
}  // namespace spotserver
