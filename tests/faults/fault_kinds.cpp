#include "faults/fault_kinds.hpp"

#include <cerrno>

namespace spotserver::faults {
namespace {

struct FileCall {
  const char* name;
  Call call;
};
constexpr FileCall kFileCalls[] = {{"open", Call::kOpen},   {"read", Call::kRead},
                                   {"write", Call::kWrite}, {"close", Call::kClose},
                                   {"stat", Call::kStat},   {"rename", Call::kName}};

struct Error {
  const char* name;
  int number;
};
constexpr Error kErrors[] = {{"input/output error", EIO},
                             {"no space left", ENOSPC},
                             {"too many open files", EMFILE},
                             {"interrupted", EINTR},
                             {"short", kShort}};

bool happens(Call call, int error, bool for_good) {
  if (error == kShort) return call == Call::kRead || call == Call::kWrite;
  return error != EINTR || !for_good || call == Call::kClose;
}

}  // namespace

std::string describe(const Fault& fault) {
  return fault.name + (fault.for_good ? ", from there on" : "");
}

std::vector<Fault> memoryFaults() {
  return {{"allocation", Call::kAllocate, ENOMEM}, {"allocation", Call::kAllocate, ENOMEM, true}};
}

std::vector<Fault> fileFaults() {
  std::vector<Fault> faults;
  for (const auto& [kind, call] : kFileCalls) {
    for (const auto& [error, number] : kErrors) {
      for (const bool for_good : {false, true}) {
        if (!happens(call, number, for_good)) continue;
        faults.push_back({std::string(kind) + ": " + error, call, number, for_good});
      }
    }
  }
  return faults;
}

std::vector<Fault> allFaults() {
  std::vector<Fault> faults = memoryFaults();
  for (Fault& fault : fileFaults()) faults.push_back(std::move(fault));
  return faults;
}

}  // namespace spotserver::faults
