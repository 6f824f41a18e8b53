// Makes a snapshot of the input, gives its answer several times, in either order first, and aborts
// where one is not the plainly written document of that moment, or does not unpack to it.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "api/activity_answer.hpp"
#include "api/activity_document_reference.hpp"
#include "gunzip.hpp"

namespace {

using namespace spotserver;

void expect(bool right, const char* what, double generated) {
  if (right) return;
  std::fprintf(stderr, "At %a: %s\n", generated, what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> bytes(data, data + size);
  ActivitySnapshot snapshot = SnapshotScript(bytes).make();
  const ActivityAnswer answer(snapshot);
  const bool plain_first = size % 2 == 0;
  for (const double later : {0.0, 59.0, -7200.0}) {
    const double generated = snapshot.generated + later;
    ActivitySnapshot then = snapshot;
    then.generated = generated;
    const std::string expected = plainDocument(then);
    if (plain_first) expect(answer.document(generated) == expected, "another text", generated);
    const auto gzipped = answer.gzippedDocument(generated);
    expect(answer.document(generated) == expected, "another text", generated);
    expect(gzipped || expected.size() < 1500, "not compressed", generated);
    if (gzipped) expect(gunzip(*gzipped) == expected, "unpacks to another text", generated);
  }
  return 0;
}
