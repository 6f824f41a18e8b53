#include "server/startup.hpp"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <pthread.h>
#include <unistd.h>

#include "history/demo_data.hpp"
#include "server/access_token.hpp"
#include "server/banner.hpp"
#include "server/daemon.hpp"
#include "server/data_migration.hpp"
#include "server/http_service.hpp"
#include "server/make_dirs.hpp"
#include "server/pid_file.hpp"
#include "server/settings.hpp"
#include "server/tls_identity.hpp"
#include "server/version.hpp"
#include "spots/spot_store.hpp"

namespace spotserver {
namespace {

// --- signals ---

std::atomic<HttpService*> running_service = nullptr;
static_assert(std::atomic<HttpService*>::is_always_lock_free);

extern "C" void stop_running_service(int /*signal*/) {
  if (HttpService* service = running_service.load()) service->stop();
}

void install_handlers() {
  std::signal(SIGINT, stop_running_service);
  std::signal(SIGTERM, stop_running_service);
}

// SIGINT and SIGTERM wait from the moment that others can learn our process ID until the accept
// loop runs and can be stopped: a signal in between is delivered then, not lost.
void change_stop_signals(int how) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(how, &signals, nullptr);
}
void hold_stop_signals() { change_stop_signals(SIG_BLOCK); }
void release_stop_signals() { change_stop_signals(SIG_UNBLOCK); }

// Past a NUL as well, which a path or a token from the configuration file may hold.
void print(std::string_view text, std::FILE* stream) {
  std::fwrite(text.data(), 1, text.size(), stream);
}

// --- failures ---

// Why the start ends: the exit status and the sentence for the user. A plain record, since the
// texts of std::runtime_error always take memory; "std::bad_alloc" must be told without any.
struct StartFailure {
  int status = 1;
  std::string sentence;
};

int tell(const StartFailure& failure) {
  print(failure.sentence, stderr);
  print("\n", stderr);
  return failure.status;
}

// Takes one step. What it throws ends the start with `status` and is told behind `prefix`.
template <typename Step>
auto attempt(int status, const char* prefix, Step&& step) {
  try {
    return step();
  } catch (const std::exception& error) {
    throw StartFailure{status, std::string(prefix) + error.what()};
  }
}

// --- the steps ---

std::string working_directory() {
  std::error_code error;
  return std::filesystem::current_path(error).string();
}

double now_in_seconds() { return static_cast<double>(std::time(nullptr)); }

// Where a country file may lie, most preferred first. A detached server works in "/", so the
// relative candidate is settled now.
std::vector<std::string> country_file_candidates() {
  std::vector<std::string> candidates{"/usr/share/corvane/cty.dat",
                                      "/build/src/corvane/data/cty.dat"};
  const std::string directory = working_directory();  // empty: it was removed
  if (!directory.empty()) candidates.insert(candidates.begin(), directory + "/cty.dat");
  return candidates;
}

void load_store(SpotStore& store, const ServerSettings& settings) {
  {
    const auto data = store.lock();
    data->all_txt_path = settings.all_txt;
    data->cty_candidates = country_file_candidates();
    if (!settings.demo) data->history_path = settings.history_db;
  }
  if (settings.demo) {
    generateDemoSpots(store, now_in_seconds());
  } else {
    store.refresh(now_in_seconds(), 0);  // the first load waits for no interval
  }
}

BannerFacts banner_facts(SpotStore& store, const std::string& token,
                         const std::string& fingerprint) {
  const auto data = store.lock();
  return {token, fingerprint, data->history_in_use,
          data->history_in_use ? data->intervals.size() : data->spots.size()};
}

void publish_pid(const ServerSettings& settings) {
  hold_stop_signals();
  if (!settings.pid_file.empty()) write_pid_file(settings.pid_file);
}

// Goes into the background or stays, and writes the PID file from where it ends up. Returns the
// exit status when this process is not the one to serve.
std::optional<int> settle_process(const ServerSettings& settings,
                                  const UserDirectories& directories) {
  if (!settings.daemon) {
    publish_pid(settings);
    return std::nullopt;
  }
  if (!settings.log_file_given) make_dirs(directories.state);
  return detach(settings.log_file, [&settings] { publish_pid(settings); });
}

void greet(const ServerSettings& settings, const BannerFacts& facts) {
  if (settings.daemon) std::printf("Daemon PID: %ld\n", static_cast<long>(::getpid()));
  print(banner_text(settings, facts), stdout);
  std::fflush(stdout);
}

std::string address_text(const ServerSettings& settings) {
  return "https://" + settings.bind + ":" + std::to_string(settings.port);
}

bool serve_until_stopped(HttpService& service) {
  try {
    return service.serve(release_stop_signals);
  } catch (const std::exception&) {  // no thread, no memory: the accept loop could not be kept up
    return false;
  }
}

// Serves with everything prepared; owns the service.
int serve(const ServerSettings& settings, const UserDirectories& directories, SpotStore& store,
          const std::string& token, const std::string& fingerprint) {
  auto service = std::make_unique<HttpService>(settings, store, token, fingerprint);
  if (!service->valid()) {
    throw StartFailure{1, "Failed to initialise TLS server (bad certificate or key?)"};
  }
  if (!service->bind()) throw StartFailure{1, "Failed to bind " + address_text(settings)};
  const auto ended = attempt(1, "", [&] { return settle_process(settings, directories); });
  if (ended) return *ended;

  running_service = service.get();
  install_handlers();
  greet(settings, banner_facts(store, token, fingerprint));
  const bool stopped = serve_until_stopped(*service);
  running_service = nullptr;

  const bool abandoned = service->abandoned();
  if (!abandoned) service.reset();
  if (!settings.pid_file.empty()) remove_pid_file(settings.pid_file);
  const int status = stopped ? 0
                             : tell({1, "Failed to bind " + address_text(settings) +
                                            " (port in use or permission denied?)"});
  if (abandoned) std::_Exit(status);  // a worker still uses what would be released
  return status;
}

int start(const CommandLine& line, const UserDirectories& directories) {
  ServerSettings settings = line.settings;
  if (settings.token.empty()) settings.token = attempt(1, "", generate_token);
  if (!settings.cert_given && !settings.key_given) make_dirs(directories.config);
  const std::string fingerprint = attempt(1, "TLS certificate error: ", [&] {
    return ensure_tls_identity(settings.cert, settings.key, kProgram);
  });
  SpotStore store;
  load_store(store, settings);
  return serve(settings, directories, store, settings.token, fingerprint);
}

int do_as_told(int argc, char** argv) {
  const std::string argument0 = argc > 0 ? argv[0] : kProgram;
  const UserDirectories directories = user_directories(::getenv);
  const CommandLine line = attempt(2, "Configuration error: ", [&] {
    const std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
    return parse_command_line(arguments, directories, working_directory());
  });
  switch (line.action) {
    case CommandLine::Action::kShowHelp:
      print(help_text(argument0, directories), stdout);
      return 0;
    case CommandLine::Action::kShowVersion:
      print(version_text(), stdout);
      return 0;
    case CommandLine::Action::kRun:
      break;
  }
  return start(line, directories);
}

}  // namespace

int run(int argc, char** argv) {
  fill_standard_descriptors();
  migrateDataDirectories();
  try {
    return do_as_told(argc, argv);
  } catch (const StartFailure& failure) {
    return tell(failure);
  }
}

}  // namespace spotserver
