#include "harness.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

const std::map<std::string, void (*)(fuzz::Input)> kHarnesses{
    {"batch", fuzz::batch}, {"console", fuzz::console}, {"filter", fuzz::filter},   {"json", fuzz::json},
    {"link", fuzz::link},   {"mapfile", fuzz::mapfile}, {"msgpack", fuzz::msgpack}, {"recording", fuzz::recording},
    {"view", fuzz::view},   {"viewer", fuzz::viewer},   {"web", fuzz::web}};

std::vector<std::uint8_t> contentOf(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

std::vector<std::string> names() {
  std::vector<std::string> all;
  for (const auto& [name, harness] : kHarnesses) all.push_back(name);
  return all;
}

class Corpus : public testing::TestWithParam<std::string> {};

TEST_P(Corpus, AndEveryBeginningOfItsInputsIsTaken) {
  const auto harness = kHarnesses.at(GetParam());
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(CORPUS) / GetParam())) {
    SCOPED_TRACE(entry.path().string());
    const auto content = contentOf(entry.path());
    ASSERT_NO_THROW(harness(content));
    // Few steps: a long input says no more when it is cut at every byte.
    const std::size_t step = std::max<std::size_t>(1, content.size() / 50);
    for (std::size_t size = 0; size < content.size(); size += step) {
      ASSERT_NO_THROW(harness(fuzz::Input(content).first(size))) << "cut at " << size;
    }
    ++files;
  }
  EXPECT_GT(files, 0U);
}

INSTANTIATE_TEST_SUITE_P(Harness, Corpus, testing::ValuesIn(names()),
                         [](const auto& harness) { return harness.param; });

}  // namespace
