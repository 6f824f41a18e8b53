// Checks the includes of src/ against the map of layers in src/CMakeLists.txt.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace layers {

// One library of the map with its stems, "<folder>/<name>".
struct Layer {
  std::string library;
  std::vector<std::string> stems;
};

// The spot_layer(...) calls of a CMakeLists.txt, lowest layer first.
std::vector<Layer> readLayers(std::string_view cmake);

// File name below src/ to its text.
using Sources = std::map<std::string, std::string>;

// Everything that is against the rules, one sentence each; empty when all is well:
// - every file belongs to a stem of the map, except main.cpp, and every stem has its header;
// - project headers are included as "<folder>/<name>.hpp", and what is included exists;
// - a file includes headers of its own layer or a lower one, main.cpp any;
// - code includes stems only; tests, fuzz targets, benchmarks and references also each other's
//   headers, and, spelled without a folder of src/, those of tests/;
// - no stem includes itself by way of others.
std::vector<std::string> complaints(const std::vector<Layer>& map, const Sources& sources);

}  // namespace layers
