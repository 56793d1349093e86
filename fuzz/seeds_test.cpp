// Plays the fuzzers' seeds, so that every run of the tests covers what the fuzzers start from.

#include "fuzz/stage.h"

namespace desk {
namespace {

using SeedsTest = Stage;

TEST_F(SeedsTest, EverySceneComesToWhatItExpects) {
  unsigned scenes = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(SEEDS)) {
    if (!entry.is_regular_file()) continue;
    const Json::Value scene = LoadJson(entry.path()).value();
    ++scenes;
    EXPECT_NO_THROW(EXPECT_EQ(Play(scene), scene["expected"].asString()) << entry.path()) << entry.path();
  }
  EXPECT_GT(scenes, 0u) << "no seeds in " << SEEDS;
}

}  // namespace
}  // namespace desk
