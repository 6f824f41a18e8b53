// The country of a callsign against the plain way. Input: a line with the callsign, then alias
// entries of a country file with one entity; without any, a few common ones stand in.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "spots/country.hpp"
#include "spots/country_reference.hpp"

namespace {

// Every prefix has its own zone, so that it shows which one was found.
constexpr std::string_view kCommon =
    "K,N(2),N4(3),VE(4),F(5),3D2(6),W1/W(7),A/B(8),P(9),=N0CALL/P(10),=F/N0CALL(11),K1(12),4(13);";

cty::Countries countriesOf(std::string_view aliases) {
  return cty::parseCountries("Somewhere:1:1:EU::::S:\n" + std::string(aliases));
}

std::optional<cty::Countries> tryCountriesOf(std::string_view aliases) {
  try {
    return countriesOf(aliases);
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace spotserver;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t end = std::min(input.find('\n'), input.size());
  const std::vector<char> line(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(end));
  const std::string_view callsign(line.data(), line.size());  // exactly its size: overruns show

  static const cty::Database common{countriesOf(kCommon)};
  auto own = end < size ? tryCountriesOf(input.substr(end + 1)) : std::nullopt;
  const cty::Database database = own ? cty::Database{std::move(*own)} : common;

  const auto found = resolveCountry(database, callsign);
  const auto plain = reference::resolve(*database.countries(), std::string(callsign));
  if (!reference::same(*database.countries(), found, plain)) {
    std::fprintf(stderr, "%s: found zone %d, plain form zone %d\n", std::string(callsign).c_str(),
                 found ? found->cq_zone : 0, plain.record ? plain.record->cq_zone : 0);
    std::abort();
  }
  return 0;
}
