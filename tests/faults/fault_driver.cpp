#include "faults/fault_driver.hpp"

#include <algorithm>
#include <csignal>
#include <stdexcept>
#include <string_view>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "server/owned.hpp"

namespace spotserver::faults {
namespace {

Control* mapFile(const std::string& path) {
  const Fd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!file || ::ftruncate(file.get(), sizeof(Control)) != 0) {
    throw std::runtime_error("Cannot make " + path);
  }
  void* memory =
      ::mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (memory == MAP_FAILED) throw std::runtime_error("Cannot map " + path);
  return static_cast<Control*>(memory);
}

}  // namespace

FaultSwitch::FaultSwitch(const std::string& path) : path_(path), control_(mapFile(path)) {}

FaultSwitch::~FaultSwitch() { ::munmap(control_, sizeof(Control)); }

e2e::Launch FaultSwitch::under(e2e::Launch launch) const {
  launch.environment["LD_PRELOAD"] = SPOT_FAULT_PRELOAD;
  launch.environment[kControlVariable] = path_;
  return launch;
}

void FaultSwitch::arm(const Fault& fault, long due) {
  disarm();
  control_->error = fault.error;
  control_->for_good = fault.for_good;
  control_->due = due;
  control_->seen = 0;
  control_->failed = 0;
  control_->call = fault.call;
}

void FaultSwitch::disarm() { control_->call = Call::kNone; }

bool isSpecified(int status, const std::string& errors) {
  constexpr std::string_view kMessages[] = {
      "TLS certificate error: ",
      "Failed to initialise TLS server (bad certificate or key?)\n",
      "Failed to bind https://127.0.0.1:",
      "Fatal: OpenSSL RAND_bytes failed; refusing to start with a weak token.\n",
      "Cannot open daemon log: ",
      "Cannot write PID file: ",
      "pipe failed\n",
      "fork failed\n",
      "std::bad_alloc\n",  // no memory to put it in other words
  };
  const bool one_line =
      std::count(errors.begin(), errors.end(), '\n') == 1 && errors.back() == '\n';
  if (!one_line) return false;
  if (status == 2) return errors.starts_with("Configuration error: ");
  return status == 1 && std::any_of(std::begin(kMessages), std::end(kMessages),
                                    [&](auto message) { return errors.starts_with(message); });
}

Ending endingOf(e2e::ServerProcess& server, const Fault& fault) {
  try {
    server.awaitOutput(e2e::kReady);
    return Ending::kServing;
  } catch (const std::runtime_error&) {  // it has ended, or it hangs
  }
  const int status = server.waitForExit();
  return endingOf(status, server.errors(), fault);
}

Ending endingOf(int status, const std::string& errors, const Fault& fault) {
  if (isSpecified(status, errors)) return Ending::kRefused;
  if (status == 128 + SIGABRT && fault.call == Call::kAllocate) return Ending::kAborted;
  throw std::runtime_error("ended with " + std::to_string(status) + ": " + errors);
}

}  // namespace spotserver::faults
