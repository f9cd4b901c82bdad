#include "harness.h"

#include <hxview/cell.h>
#include <hxview/segment.h>
#include <hxview/watch.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <vector>

// What a broker that is not one could show: a segment of any bytes. Its reader must not leave it, and must not crash.

namespace fuzz {
namespace {

using HX::HXValue;
using namespace HX::view;

template <class T>
void takeAs(const RingReader& ring, std::uint64_t number) {
  T value{};
  Raw<T> bytes;
  Content content;
  if (ring.look(number, content, bytes) != Outcome::Whole) return;
  const State state = take(content, bytes, value);
  require(state <= State::Busy, "there is no other state");
  require(Kind::of(content.kind).state == State::Present || state != State::Present, "what is not there is no value");
}

void takeAsAll(const RingReader& ring, std::uint64_t number) {
  takeAs<bool>(ring, number);
  takeAs<std::int64_t>(ring, number);
  takeAs<float>(ring, number);
  takeAs<std::string>(ring, number);
  takeAs<HXValue::Binary>(ring, number);
  takeAs<std::array<float, 3>>(ring, number);
  takeAs<std::vector<double>>(ring, number);
  takeAs<HXValue>(ring, number);
}

}  // namespace

void view(Input input) {
  constexpr std::size_t kMostBytes = 4096;
  if (input.size() < 2) return;
  const RingShape shape{input[0] * std::size_t{4}, 3U + input[1] % 8U};
  // Exactly as large as the ring, for a reader that leaves it to be noticed.
  const auto content = input.subspan(2, std::min(input.size() - 2, kMostBytes));
  std::vector<Word> words(shape.bytes() / sizeof(Word));
  for (std::size_t i = 0; i < words.size() && (i + 1) * sizeof(Word) <= content.size(); ++i) {
    std::uint64_t word = 0;
    std::memcpy(&word, content.data() + i * sizeof word, sizeof word);
    words[i] = word;
  }
  const auto* const segment = reinterpret_cast<const std::byte*>(words.data());

  const std::uint64_t owner = words[9];
  const RingReader ring(segment, shape, owner);
  const std::uint64_t latest = ring.latest();
  for (std::uint64_t back = 0; back <= shape.slots; ++back) takeAsAll(ring, latest - back);

  Look look;
  const auto& cell = *reinterpret_cast<const Cell*>(segment + sizeof(SegmentHead));
  if (HX::view::look(cell, owner, look) == Outcome::Whole) {
    bool boolean = false;
    double number = 0;
    Raw<bool> none;
    take(look.content, none, boolean);
    take(look.content, none, number);
  }
}

}  // namespace fuzz
