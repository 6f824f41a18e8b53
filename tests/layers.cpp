#include "layers.hpp"

#include <algorithm>
#include <cctype>
#include <optional>
#include <set>
#include <sstream>

namespace layers {
namespace {

// What lies beside a stem and is no part of the program.
constexpr std::string_view kCompanions[] = {"_test", "_fuzz", "_bench", "_reference"};

// One #include: "path" or <path>.
struct Include {
  std::string path;
  bool quoted = false;
};

std::vector<Include> includesOf(const std::string& text) {
  std::vector<Include> found;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string hash;
    std::string rest;
    words >> hash;
    if (hash == "#") {
      words >> rest;
      hash += rest;
    }
    if (!hash.starts_with("#include")) continue;
    const std::size_t open = line.find_first_of("\"<");
    const std::size_t close = line.find_first_of("\">", open + 1);
    if (open == line.npos || close == line.npos) continue;
    found.push_back({line.substr(open + 1, close - open - 1), line[open] == '"'});
  }
  return found;
}

std::string withoutExtension(const std::string& file) { return file.substr(0, file.rfind('.')); }

std::string folderOf(const std::string& path) { return path.substr(0, path.find('/')); }

// The stem a test, fuzz target, benchmark or reference stands beside; empty for any other file.
std::optional<std::string> companionOf(const std::string& file) {
  const std::string name = withoutExtension(file);
  for (const std::string_view suffix : kCompanions) {
    if (name.ends_with(suffix)) return name.substr(0, name.size() - suffix.size());
  }
  return std::nullopt;
}

class Checker {
 public:
  Checker(const std::vector<Layer>& map, const Sources& sources) : sources_(sources) {
    for (std::size_t height = 0; height < map.size(); ++height) {
      for (const std::string& stem : map[height].stems) addStem(stem, height);
    }
    top_ = map.empty() ? 0 : map.size() - 1;
  }

  std::vector<std::string> run() {
    for (const auto& [file, text] : sources_) checkFile(file, text);
    for (const auto& [stem, reached] : reaches_) lookForCycle(stem, {stem});
    return complaints_;
  }

 private:
  void complain(const std::string& sentence) { complaints_.push_back(sentence); }

  void addStem(const std::string& stem, std::size_t height) {
    if (!height_.emplace(stem, height).second) complain(stem + " stands twice in the map");
    if (!sources_.contains(stem + ".hpp")) complain(stem + ".hpp does not exist");
    folders_.insert(folderOf(stem));
  }

  void checkFile(const std::string& file, const std::string& text) {
    if (file == "main.cpp") return checkIncludes(file, text, top_, false);
    const auto beside = companionOf(file);
    const std::string stem = beside.value_or(withoutExtension(file));
    const auto place = height_.find(stem);
    if (place == height_.end()) return complain(file + " belongs to no stem of the map");
    checkIncludes(file, text, place->second, beside.has_value());
  }

  void checkIncludes(const std::string& file, const std::string& text, std::size_t height,
                     bool companion) {
    for (const Include& include : includesOf(text)) {
      if (!include.quoted && !folders_.contains(folderOf(include.path))) continue;  // a library's
      checkInclude(file, include, height, companion);
    }
  }

  void checkInclude(const std::string& file, const Include& include, std::size_t height,
                    bool companion) {
    const std::string said = file + " includes " + include.path;
    if (!include.quoted) return complain(said + " in angle brackets");
    const auto beside = companionOf(include.path);
    const std::string stem = beside.value_or(withoutExtension(include.path));
    const auto place = height_.find(stem);
    if (place == height_.end()) {
      if (companion && !folders_.contains(folderOf(include.path))) return;  // from tests/
      return complain(said + ", which is no header of the map");
    }
    if (beside && !companion) return complain(said + ", which is for tests");
    if (!sources_.contains(include.path)) return complain(said + ", which does not exist");
    if (place->second > height) return complain(said + " of a higher layer");
    if (!companion && withoutExtension(file) != stem) reaches_[withoutExtension(file)].insert(stem);
  }

  // Follows the includes from the end of `path` back to its beginning. Each ring is reported once,
  // from its first stem in alphabetical order.
  void lookForCycle(const std::string& start, std::vector<std::string> path) {
    const auto reached = reaches_.find(path.back());
    if (reached == reaches_.end()) return;
    for (const std::string& next : reached->second) {
      if (next == start) return complain("ring of includes: " + joined(path) + start);
      const bool seen = std::find(path.begin(), path.end(), next) != path.end();
      if (seen || next < start || !visited_.insert({start, next}).second) continue;
      path.push_back(next);
      lookForCycle(start, path);
      path.pop_back();
    }
  }

  static std::string joined(const std::vector<std::string>& path) {
    std::string text;
    for (const std::string& stem : path) text += stem + " -> ";
    return text;
  }

  const Sources& sources_;
  std::map<std::string, std::size_t> height_;  // stem to its layer, 0 lowest
  std::size_t top_ = 0;
  std::set<std::string> folders_;
  std::map<std::string, std::set<std::string>> reaches_;  // stem to the stems it includes
  std::set<std::pair<std::string, std::string>> visited_;
  std::vector<std::string> complaints_;
};

}  // namespace

std::vector<Layer> readLayers(std::string_view cmake) {
  std::string plain;
  std::istringstream lines{std::string(cmake)};
  for (std::string line; std::getline(lines, line);) {
    plain += line.substr(0, line.find('#')) + '\n';
  }
  constexpr std::string_view kCall = "spot_layer(";
  std::vector<Layer> map;
  for (std::size_t at = 0; (at = plain.find(kCall, at)) != plain.npos;) {
    at += kCall.size();
    std::istringstream words(plain.substr(at, plain.find(')', at) - at));
    Layer layer;
    words >> layer.library;
    for (std::string stem; words >> stem;) layer.stems.push_back(stem);
    map.push_back(std::move(layer));
  }
  return map;
}

std::vector<std::string> complaints(const std::vector<Layer>& map, const Sources& sources) {
  return Checker(map, sources).run();
}

}  // namespace layers
