// The country file parser against the plain one, and the prefix look-up against a search of every
// prefix. Input: a country file; its own words are looked up in it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "spots/cty.hpp"
#include "spots/cty_reference.hpp"

namespace {

using namespace cty;

[[noreturn]] void disagree(const std::string& about, const std::string& found,
                           const std::string& plain) {
  std::fprintf(stderr, "%s\n--- found\n%s\n--- plain form\n%s\n", about.c_str(), found.c_str(),
               plain.c_str());
  std::abort();
}

void checkPrefix(const Database& database, std::string_view text) {
  const auto found = database.findPrefix(text);
  const Record* plain = reference::findPrefix(*database.countries(), text);
  const bool same = plain ? found && found->cq_zone == plain->cq_zone &&
                                found->itu_zone == plain->itu_zone &&
                                found->continent.data() == plain->continent.data()
                          : !found;
  if (!same) disagree("prefix of " + std::string(text), found ? "found" : "", plain ? "found" : "");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<char> input(data, data + size);  // exactly its size: overruns show
  const std::string_view text(input.data(), input.size());
  const std::string found = reference::outcome(parseCountries, text);
  const std::string plain = reference::outcome(reference::parse, text);
  if (found != plain) disagree("countries", found, plain);
  if (found.starts_with("error: ")) return 0;

  const Database database{parseCountries(text)};
  for (std::size_t start = 0; start < text.size() && start < 64; ++start) {
    checkPrefix(database, text.substr(start, 8));
  }
  for (const auto& [prefix, record] : database.countries()->prefixes) checkPrefix(database, prefix);
  return 0;
}
