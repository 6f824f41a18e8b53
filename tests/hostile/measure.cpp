#include "hostile/measure.hpp"

#include <algorithm>
#include <cstdio>
#include <exception>

namespace spotserver::hostile {

namespace {

std::string text(double value, std::string_view unit) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.1f ", value);
  return buffer + std::string(unit);
}

std::vector<Subject> allSubjects() {
  std::vector<Subject> all;
  for (auto* group : {connectionSubjects, processSubjects, fileSubjects}) {
    const auto subjects = group();
    all.insert(all.end(), subjects.begin(), subjects.end());
  }
  return all;
}

bool measure(const Subject& subject) {
  Report report(subject.name);
  try {
    subject.measure(report);
  } catch (const std::exception& error) {
    report.failed(error.what());
  }
  return report.good();
}

int list() {
  for (const Subject& subject : allSubjects()) {
    std::printf("%-12.*s %.*s\n", static_cast<int>(subject.name.size()), subject.name.data(),
                static_cast<int>(subject.what.size()), subject.what.data());
  }
  return 0;
}

int measureAll(const std::vector<std::string_view>& wanted) {
  const auto subjects = allSubjects();
  for (const std::string_view name : wanted) {
    if (std::any_of(subjects.begin(), subjects.end(), [&](auto& s) { return s.name == name; })) {
      continue;
    }
    std::fprintf(stderr, "No such subject: %.*s\n", static_cast<int>(name.size()), name.data());
    return 2;
  }
  bool good = true;
  for (const Subject& subject : subjects) {
    const bool asked =
        wanted.empty() || std::find(wanted.begin(), wanted.end(), subject.name) != wanted.end();
    if (asked) good = measure(subject) && good;
  }
  return good ? 0 : 1;
}

}  // namespace

void Report::print(std::string_view what, const std::string& value, const std::string& verdict) {
  std::printf("%-12s %-58.*s %14s   %s\n", subject_.c_str(), static_cast<int>(what.size()),
              what.data(), value.c_str(), verdict.c_str());
  std::fflush(stdout);
}

void Report::atMost(double limit, std::string_view what, double value, std::string_view unit) {
  const bool held = value <= limit;
  good_ = good_ && held;
  print(what, text(value, unit), "at most " + text(limit, unit) + (held ? "  ok" : "  TOO MUCH"));
}

void Report::all(std::string_view what, int value, int of) {
  good_ = good_ && value == of;
  print(what, std::to_string(value) + " of " + std::to_string(of), value == of ? "ok" : "FAILED");
}

void Report::figure(std::string_view what, double value, std::string_view unit) {
  print(what, text(value, unit), "");
}

void Report::failed(std::string_view why) {
  good_ = false;
  print(why, "", "FAILED");
}

}  // namespace spotserver::hostile

int main(int argc, char** argv) {
  const std::vector<std::string_view> arguments(argv + 1, argv + argc);
  if (arguments.size() == 1 && arguments[0] == "--list") return spotserver::hostile::list();
  return spotserver::hostile::measureAll(arguments);
}
