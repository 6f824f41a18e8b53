// A running server in which calls fail during one request: the answer is that of a moment shortly
// before or after, or a failure told as such, and the next one is right.
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <optional>

#include "e2e/activity_model.hpp"
#include "faults/fault_test.hpp"
#include "history_file.hpp"

namespace spotserver::faults {
namespace {

using e2e::expectedDocument;
using e2e::expectedFromLog;
using e2e::generatedAt;
using e2e::Heard;
using e2e::Slot;

namespace fs = std::filesystem;

// How many requests under each fault a plain test run makes.
constexpr long kFew = 40;

// After so many requests the station begins anew: the plain model of its answers takes its time.
constexpr int kRequestsPerStation = 40;

// The answer to a request during which the server may be unable to answer.
struct Answer {
  Ending ending = Ending::kServing;
  std::string body = {};
};

Answer answerTo(const Station& station, const char* path) {
  try {
    const e2e::Response response = station.get(path, e2e::bearer(e2e::kToken));
    if (response.status == 200) return {.body = response.body};
    EXPECT_EQ(response.status, 500);
    EXPECT_EQ(response.body, "");
    return {Ending::kRefused};
  } catch (const std::runtime_error& error) {
    // A server that is silent for good is none that closed the connection.
    EXPECT_EQ(std::string(error.what()).find("silent"), std::string::npos) << error.what();
    return {Ending::kAborted};
  }
}

// What a station knows.
struct Moment {
  std::vector<Slot> slots;
  std::vector<Heard> heard;
};

// Whether `body` is what `model` computes for a time in the minute in which `body` was generated:
// within its minute an answer is used again with a new time at its head.
template <typename Model>
bool isOfThisMinute(const std::string& body, Model model) {
  const std::int64_t now = generatedAt(body);
  const auto behindTime = [](const std::string& document) {
    return document.substr(document.find(','));
  };
  for (std::int64_t time = now; time >= now / 60 * 60; --time) {
    if (behindTime(body) == behindTime(model(time))) return true;
  }
  return false;
}

bool shows(const std::string& body, const Moment& moment) {
  return isOfThisMinute(body, [&](std::int64_t time) {
    return expectedDocument({}, time, moment.slots, moment.heard);
  });
}

bool showsLog(const std::string& body, const std::vector<Heard>& heard) {
  return isOfThisMinute(body, [&](std::int64_t time) { return expectedFromLog({}, time, heard); });
}

// A station whose files change before every request.
class ChangingStation {
 public:
  ChangingStation(const MadeIdentity& identity, bool with_history, const std::string& reload) {
    identity.giveTo(station_);
    fs::create_directories(station_.stateDir());
    if (with_history) history_.emplace(station_.stateDir() + "/history.sqlite3");
    first_ = e2e::wallClock() / 60 * 60 - 3600;
    change();
    server_.emplace(faulty_.launch({"--reload", reload}));
    server_->awaitOutput(e2e::kReady);
    station_.activity();  // whatever is done once is done
    station_.get(e2e::kHealthPath);
  }

  // Another decode in the log, another minute in the history, another time on the country file.
  void change() {
    const std::int64_t time = first_ + 60 * changes_++;
    heard_.push_back({time, "14.074", "FT8", "K1ABC"});
    station_.appendLog(logLine(heard_.back()));
    fs::last_write_time(station_.countryFile(),
                        fs::file_time_type::clock::now() - std::chrono::seconds(1000 - changes_));
    if (!history_) return;
    // Late enough to be within the minutes that are read again, on a channel of its own.
    const std::int64_t minute = e2e::wallClock() / 60 - 2;
    const std::int64_t hertz = 14'000'000 + 5000 * changes_;
    history_->add({.frequency = hertz, .minute = minute, .mask = 1, .counts = countsBlob({3})});
    slots_.push_back({static_cast<double>(minute * 60), 15,
                      std::to_string(static_cast<double>(hertz) / 1e6), 3});
  }

  // One request for `path` with the fault at `due`, and one for the activity without it.
  FaultedRun request(const Fault& fault, long due, const char* path) {
    faulty_.faults.arm(fault, due);
    const Answer answer = answerTo(station_, path);
    faulty_.faults.disarm();
    if (answer.ending == Ending::kServing && path == std::string(e2e::kActivityPath)) {
      expectMomentOf(answer.body);
    }
    expectRight(nextAnswer());
    return faulty_.run(answer.ending);
  }

  void stop() {
    server_->signal(SIGTERM);
    EXPECT_EQ(server_->waitForExit(), 0);
    EXPECT_EQ(server_->errors(), "");
  }

  int changes() const { return changes_; }

 private:
  // The answer when nothing fails any more. A failed allocation in the midst of a signature leaves
  // OpenSSL's blinding of the key (as of 3.0) with one half renewed and the other not: signatures
  // are wrong, and clients turn away, until it makes a new one after 32 uses.
  std::string nextAnswer() {
    std::string why;
    for (int connection = 0; connection <= 32; ++connection) {
      try {
        return station_.activity().body;
      } catch (const std::runtime_error& error) {
        why = error.what();
      }
    }
    server_->signal(SIGTERM);
    const int status = server_->waitForExit();
    throw std::runtime_error(why + "; status " + std::to_string(status) + ": " + server_->errors());
  }

  // What is known without the newest `slots` and `heard` of them; of the one sender the latest
  // decode.
  Moment without(std::ptrdiff_t slots, std::ptrdiff_t heard) const {
    Moment moment;
    if (history_) moment.slots.assign(slots_.begin(), slots_.end() - slots);
    if (std::ssize(heard_) > heard) moment.heard.push_back(*(heard_.end() - 1 - heard));
    return moment;
  }

  void expectRight(const std::string& body) const {
    const bool right = history_ ? shows(body, without(0, 0)) : showsLog(body, heard_);
    EXPECT_TRUE(right) << body;
  }

  // The document of a moment before or after any of the changes. When the history could not be
  // read, the log alone tells, from then on.
  void expectMomentOf(const std::string& body) const {
    if (!history_) {
      const std::vector<Heard> before(heard_.begin(), heard_.end() - 1);
      EXPECT_TRUE(showsLog(body, before) || showsLog(body, heard_)) << body;
      return;
    }
    const Moment before = without(1, 1);
    const Moment after = without(0, 0);
    const auto latest = e2e::slotsOfLog({heard_.back()}, {}, generatedAt(body));
    const Moment possible[] = {without(0, 0),         without(0, 1),      without(1, 0),    before,
                               {latest, after.heard}, {{}, before.heard}, {{}, after.heard}};
    EXPECT_TRUE(std::any_of(std::begin(possible), std::end(possible), [&](const Moment& moment) {
      return shows(body, moment);
    })) << body;
  }

  FaultyStation faulty_;
  const Station& station_ = faulty_.station;
  std::optional<HistoryFile> history_;
  std::optional<ServerProcess> server_;
  std::int64_t first_ = 0;
  int changes_ = 0;
  std::vector<Heard> heard_;
  std::vector<Slot> slots_;
};

struct Scenario {
  const char* name;
  const char* path;
  bool with_history;
  const char* reload;
};

class FaultsInARequest : public FaultTest {
 protected:
  void failEverywhere(const Scenario& scenario) const {
    const bool changing = scenario.reload == std::string("0");
    std::optional<ChangingStation> station;
    const auto run = [&](const Fault& fault, long due) {
      if (station && station->changes() >= kRequestsPerStation) {
        station->stop();
        station.reset();
      }
      if (!station) station.emplace(identity_, scenario.with_history, scenario.reload);
      if (changing) station->change();
      return station->request(fault, due, scenario.path);
    };
    faults::failEverywhere(scenario.name, allFaults(), kFew, run);
    station->stop();
  }

  const MadeIdentity identity_;
};

TEST_F(FaultsInARequest, RefreshFromTheLog) {
  failEverywhere({"refresh from the log", e2e::kActivityPath, false, "0"});
}

TEST_F(FaultsInARequest, RefreshFromTheHistory) {
  failEverywhere({"refresh from the history", e2e::kActivityPath, true, "0"});
}

TEST_F(FaultsInARequest, AnswerWithoutARefresh) {
  failEverywhere({"answer", e2e::kActivityPath, false, "3600"});
}

TEST_F(FaultsInARequest, Health) { failEverywhere({"health", e2e::kHealthPath, false, "3600"}); }

// On a connection that stands, so that nearly all that fails is the answer itself.
TEST_F(FaultsInARequest, AnswerThatHasNoMemoryIsAnEmpty500OrNone) {
  FaultyStation faulty;
  FaultSwitch& faults = faulty.faults;
  identity_.giveTo(faulty.station);
  ServerProcess server(faulty.launch({}));
  server.awaitOutput(e2e::kReady);
  long told = 0;
  for (long place = 0; place == 0 || faults.struck(); ++place) {
    SCOPED_TRACE(place);
    e2e::TlsClient client(faulty.station.port());
    client.request("GET", e2e::kHealthPath);
    faults.arm({"allocation", Call::kAllocate, ENOMEM}, place);
    try {
      const e2e::Response answer =
          client.request("GET", e2e::kActivityPath, e2e::bearer(e2e::kToken));
      told += answer.status == 500 ? 1 : 0;
      if (answer.status != 200) {
        EXPECT_EQ(answer.status_line, "HTTP/1.1 500 Internal Server Error");
        EXPECT_EQ(answer.body, "");
        EXPECT_EQ(answer.header("EXCEPTION_WHAT"), "");
      }
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(std::string(error.what()).find("silent"), std::string::npos) << error.what();
    }
    faults.disarm();
  }
  EXPECT_GT(told, 0);
}

}  // namespace
}  // namespace spotserver::faults
