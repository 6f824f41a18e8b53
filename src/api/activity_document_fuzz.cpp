// Makes a snapshot of the input and aborts where its document is not the plainly written one.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "api/activity_document.hpp"
#include "api/activity_document_reference.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> bytes(data, data + size);  // exactly its size: overruns show
  const auto snapshot = spotserver::SnapshotScript(bytes).make();
  if (spotserver::activityDocument(snapshot) != spotserver::plainDocument(snapshot)) {
    std::fprintf(stderr, "Not the plain document: %s\n",
                 spotserver::plainDocument(snapshot).c_str());
    std::abort();
  }
  return 0;
}
