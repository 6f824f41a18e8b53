#include "soak/phones.hpp"

#include <algorithm>
#include <stdexcept>
#include <thread>
#include <utility>

namespace spotserver::soak {
namespace {

using e2e::View;

constexpr int kHours[] = {1, 6, 24};
constexpr int kSmoothings[] = {1, 3, 5};

std::string queryFor(View view) {
  return "?hours=" + std::to_string(view.hours) + "&smoothing=" + std::to_string(view.smoothing);
}

}  // namespace

void Tally::complain(const std::string& what) {
  const MutexLock held(mutex);
  if (kept.size() < 5) kept.push_back(what);
}

std::vector<std::string> Tally::complaints() {
  const MutexLock held(mutex);
  return kept;
}

Phone::Phone(int port, Source source, const Ledger& ledger, Judge& judge, Tally& tally,
             std::uint64_t seed)
    : port_(port),
      source_(source),
      ledger_(ledger),
      judge_(judge),
      tally_(tally),
      random_(seed),
      settled_before_(ledger.settled()) {}

void Phone::poll(e2e::Clock::duration period, e2e::Clock::time_point end) {
  const auto phase = period * static_cast<int>(random_() % 100) / 100;
  // A phone that is behind does not hurry after what it missed.
  for (auto next = e2e::Clock::now() + phase; next < end;
       next = std::max(next + period, e2e::Clock::now())) {
    std::this_thread::sleep_until(next);
    try {
      act();
    } catch (const std::exception& error) {
      client_.reset();
      ++tally_.errors;
      tally_.complain(error.what());
    }
  }
}

void Phone::act() {
  ++tally_.requests;
  const auto drawn = random_() % 100;
  if (drawn < 4) return askHealth();
  if (drawn < 8) return walkOutOfRange();
  if (drawn < 10) return presentWrongToken();
  if (drawn < 12) client_.reset();  // a new connection for the next one
  askActivity();
}

void Phone::askActivity() {
  Circumstances about;
  about.source = source_;
  about.view = {kHours[random_() % 3], kSmoothings[random_() % 3]};
  about.oldest = ledger_.settled();
  about.asked = e2e::wallClock();
  const auto begin = e2e::Clock::now();
  const auto answer = ask(e2e::kActivityPath + queryFor(about.view), e2e::bearer(e2e::kToken));
  if (e2e::Clock::now() - begin >= std::chrono::seconds(1)) ++tally_.slow;
  about.answered = e2e::wallClock();
  about.newest = ledger_.announced();
  if (answer.status != 200) throw std::runtime_error("activity: " + answer.status_line);
  const std::size_t before = std::exchange(settled_before_, about.oldest);
  ++tally_.documents;
  std::string complaint = judge_.complaint(answer.body, about);
  if (complaint.empty()) return;
  about.oldest = before;
  complaint = judge_.complaint(answer.body, about);
  if (complaint.empty()) {
    ++tally_.late;
    return;
  }
  ++tally_.wrong;
  tally_.complain((source_ == Source::kLog ? "log" : "history") + queryFor(about.view) + "\n  " +
                  complaint);
}

void Phone::askHealth() {
  const auto answer = ask(e2e::kHealthPath, {});
  if (answer.status == 200 &&
      answer.body.starts_with("{\"service\":\"corvane-spot-server\",\"version\":\"0.3.0\",")) {
    return;
  }
  ++tally_.wrong;
  tally_.complain("health: " + answer.status_line + " " + answer.body);
}

// In the middle of a request, before its answer, or inside the answer.
void Phone::walkOutOfRange() {
  ++tally_.resets;
  const std::string request = e2e::requestText("GET", e2e::kActivityPath, e2e::bearer(e2e::kToken));
  const std::unique_ptr<e2e::TlsClient> client = std::make_unique<e2e::TlsClient>(port_);
  const auto drawn = random_() % 3;
  client->send(drawn == 0 ? request.substr(0, request.size() / 2) : request);
  if (drawn == 2) client->peek(100);
  client->reset();
}

// From a few addresses of their own, so that ours are not locked out.
void Phone::presentWrongToken() {
  ++tally_.refused;
  const std::string source = "127.0.1." + std::to_string(1 + random_() % 4);
  e2e::TlsClient stranger(port_, source);
  const auto answer = stranger.request("GET", e2e::kActivityPath, e2e::bearer("wrong"));
  if (answer.status == 401 || answer.status == 429) return;
  ++tally_.wrong;
  tally_.complain("wrong token: " + answer.status_line);
}

e2e::Response Phone::ask(const std::string& path, const e2e::Headers& headers) {
  const bool used_before = client_ != nullptr;
  e2e::Response answer;
  try {
    answer = connection().request("GET", path, headers);
  } catch (const std::exception&) {
    client_.reset();
    if (!used_before) throw;
    ++tally_.reconnects;
    answer = connection().request("GET", path, headers);
  }
  if (answer.header("Connection") == "close") client_.reset();
  return answer;
}

e2e::TlsClient& Phone::connection() {
  if (!client_) client_ = std::make_unique<e2e::TlsClient>(port_);
  return *client_;
}

}  // namespace spotserver::soak
