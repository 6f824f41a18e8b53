// What tools/hostile.sh measures: one subject after the other, each on the real server with its
// real limits, each printing its figures beside what they may be.
//   crowd         health p99 beside 63 silent peers                    3.1 ms   at most 50    ok
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace spotserver::hostile {

// Takes the figures of one subject and prints them as they come.
class Report {
 public:
  explicit Report(std::string_view subject) : subject_(subject) {}

  // `value` must not be above `limit`.
  void atMost(double limit, std::string_view what, double value, std::string_view unit);
  // `value` of `of` must have gone well: all of them.
  void all(std::string_view what, int value, int of);
  // A figure without a limit.
  void figure(std::string_view what, double value, std::string_view unit);
  // The subject could not be measured to its end.
  void failed(std::string_view why);

  bool good() const { return good_; }

 private:
  void print(std::string_view what, const std::string& value, const std::string& verdict);

  std::string subject_;
  bool good_ = true;
};

struct Subject {
  std::string_view name;  // how the command line calls it
  std::string_view what;  // in half a line
  void (*measure)(Report& report);
};

// A new group: write measure_<group>.cpp with such a function, name it here and in the table of
// measure.cpp.
std::vector<Subject> connectionSubjects();
std::vector<Subject> processSubjects();
std::vector<Subject> fileSubjects();

}  // namespace spotserver::hostile
