#include "server/banner.hpp"

#include "server/version.hpp"

namespace spotserver {
namespace {

std::string history_text(const ServerSettings& settings, const BannerFacts& facts) {
  if (settings.demo || settings.history_db.empty()) return "none";
  return settings.history_db + (facts.history_readable ? "" : " (not readable yet)");
}

}  // namespace

std::string banner_text(const ServerSettings& settings, const BannerFacts& facts) {
  const std::string port = std::to_string(settings.port);
  std::string text = std::string(kProgram) + " " + kVersion + "\n";
  text += "  mode:        ";
  text += settings.demo ? "demo (synthetic data)" : "live (ALL.TXT)";
  text += "\n  source:      " + (settings.demo ? "<synthetic>" : settings.all_txt);
  text += "\n  history:     " + history_text(settings, facts);
  text += "\n  listening:   https://" + settings.bind + ":" + port;
  text += "\n  certificate: " + settings.cert;
  text += "\n  spots held:  " + std::to_string(facts.held) + "\n\n";
  text += "Configure the Corvane phone app with:\n";
  text += "  Host/IP:     <this machine's LAN address>\n";
  text += "  Port:        " + port + "\n";
  text += "  Token:       " + facts.token + "\n";
  text += "  TLS SHA-256: " + facts.fingerprint + "\n\n";
  text += "Endpoints: GET /api/v1/health  GET /api/v1/activity?hours=6&smoothing=3\n";
  text += "Press Ctrl-C to stop.\n";
  return text;
}

}  // namespace spotserver
