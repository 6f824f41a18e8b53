#include "layers.hpp"

#include <filesystem>
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace layers {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string textOf(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

Sources readSources(const std::filesystem::path& folder) {
  Sources sources;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
    const std::string extension = entry.path().extension();
    if (extension != ".hpp" && extension != ".cpp") continue;
    sources[std::filesystem::relative(entry.path(), folder)] = textOf(entry.path());
  }
  return sources;
}

TEST(Layers, SourcesKeepToTheMap) {
  const std::filesystem::path source = std::filesystem::path(SPOT_SOURCE_DIR) / "src";
  const auto map = readLayers(textOf(source / "CMakeLists.txt"));
  const Sources sources = readSources(source);
  ASSERT_GE(map.size(), 5u);
  ASSERT_GT(sources.size(), 50u);
  EXPECT_THAT(complaints(map, sources), IsEmpty());
}

TEST(Layers, MapIsReadFromTheSpotLayerCalls) {
  const auto map = readLayers(
      "# spot_layer(not this one)\n"
      "spot_layer(low a/one\n  a/two)\n"
      "target_link_libraries(low PUBLIC x)\n"
      "spot_layer(high b/three)  # a/four\n");
  ASSERT_EQ(map.size(), 2u);
  EXPECT_EQ(map[0].library, "low");
  EXPECT_THAT(map[0].stems, ElementsAre("a/one", "a/two"));
  EXPECT_EQ(map[1].library, "high");
  EXPECT_THAT(map[1].stems, ElementsAre("b/three"));
}

// A small tree that keeps to its map; every case below breaks it in one place.
const std::vector<Layer> kMap = {{"low", {"a/one", "b/two"}}, {"high", {"a/three"}}};

Sources soundSources() {
  return {
      {"a/one.hpp", "#include <vector>\n"},
      {"a/one.cpp", "#include \"a/one.hpp\"\n#include \"b/two.hpp\"\n"},
      {"a/one_test.cpp", "#include \"a/one.hpp\"\n#include \"temp_dir.hpp\"\n"},
      {"a/one_reference.hpp", "#include \"b/two.hpp\"\n"},
      {"a/one_fuzz.cpp", "#include \"a/one_reference.hpp\"\n"},
      {"b/two.hpp", "// #include \"a/three.hpp\"\n"},
      {"a/three.hpp", "#include \"a/one.hpp\"\n"},
      {"main.cpp", "#include \"a/three.hpp\"\n"},
  };
}

TEST(Layers, SoundTreeRaisesNoComplaint) {
  EXPECT_THAT(complaints(kMap, soundSources()), IsEmpty());
}

TEST(Layers, EveryBreachIsNamed) {
  const struct {
    const char* file;
    const char* text;
    const char* complaint;
  } cases[] = {
      {"b/two.hpp", "#include \"a/three.hpp\"\n",
       "b/two.hpp includes a/three.hpp of a higher layer"},
      {"b/two.hpp", "  #  include \"a/three.hpp\"\n",
       "b/two.hpp includes a/three.hpp of a higher layer"},
      {"a/one_test.cpp", "#include \"a/three.hpp\"\n",
       "a/one_test.cpp includes a/three.hpp of a higher layer"},
      {"b/two.hpp", "#include \"a/one.hpp\"\n", "ring of includes: a/one -> b/two -> a/one"},
      {"a/one.hpp", "#include \"one.hpp\"\n",
       "a/one.hpp includes one.hpp, which is no header of the map"},
      {"a/three.hpp", "#include \"../b/two.hpp\"\n",
       "a/three.hpp includes ../b/two.hpp, which is no header of the map"},
      {"a/three.hpp", "#include <b/two.hpp>\n", "a/three.hpp includes b/two.hpp in angle brackets"},
      {"a/three.hpp", "#include \"b/four.hpp\"\n",
       "a/three.hpp includes b/four.hpp, which is no header of the map"},
      {"a/three.hpp", "#include \"b/two.inc\"\n",
       "a/three.hpp includes b/two.inc, which does not exist"},
      {"a/three.hpp", "#include \"a/one_reference.hpp\"\n",
       "a/three.hpp includes a/one_reference.hpp, which is for tests"},
      {"a/one_test.cpp", "#include \"a/two_reference.hpp\"\n",
       "a/one_test.cpp includes a/two_reference.hpp, which is no header of the map"},
      {"b/stray.cpp", "", "b/stray.cpp belongs to no stem of the map"},
      {"b/stray_test.cpp", "", "b/stray_test.cpp belongs to no stem of the map"},
  };
  for (const auto& c : cases) {
    Sources sources = soundSources();
    sources[c.file] = c.text;
    EXPECT_THAT(complaints(kMap, sources), ElementsAre(c.complaint)) << c.file << ": " << c.text;
  }
}

TEST(Layers, StemWithoutHeaderOrWithTwoPlacesIsNamed) {
  Sources sources = soundSources();
  sources.erase("a/three.hpp");
  sources.erase("main.cpp");
  EXPECT_THAT(complaints(kMap, sources), ElementsAre("a/three.hpp does not exist"));
  EXPECT_THAT(
      complaints({{"low", {"a/one", "b/two", "a/one"}}, {"high", {"a/three"}}}, soundSources()),
      ElementsAre("a/one stands twice in the map"));
}

TEST(Layers, LongRingIsReportedOnce) {
  const std::vector<Layer> map = {{"low", {"x/a", "x/b", "x/c"}}};
  EXPECT_THAT(complaints(map, {{"x/a.hpp", "#include \"x/b.hpp\"\n"},
                               {"x/b.hpp", "#include \"x/c.hpp\"\n"},
                               {"x/c.hpp", ""},
                               {"x/c.cpp", "#include \"x/a.hpp\"\n"}}),
              ElementsAre("ring of includes: x/a -> x/b -> x/c -> x/a"));
}

}  // namespace
}  // namespace layers
