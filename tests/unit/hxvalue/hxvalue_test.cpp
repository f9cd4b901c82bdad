#include "expect_error.h"
#include "print_value.h"

#include <hxvalue/hxvalue.h>

#include <array>
#include <set>
#include <type_traits>
#include <unordered_map>

namespace HX {
namespace {

using Type = HXValue::Type;

template <typename T>
constexpr bool kMakesValue = std::is_constructible_v<HXValue, T>;
enum Unscoped { kSomething };

static_assert(kMakesValue<char*> && kMakesValue<const char (&)[5]> && kMakesValue<std::string_view>);
static_assert(!kMakesValue<int*> && !kMakesValue<void*> && !kMakesValue<std::nullptr_t>, "a pointer is not a bool");
static_assert(!kMakesValue<long double> && !kMakesValue<std::vector<long double>>, "would lose digits");
static_assert(!kMakesValue<Unscoped> && !kMakesValue<std::map<int, int>>);

struct TypeCase {
  HXValue value;
  Type type;
  const char* name;
};

std::vector<TypeCase> types() {
  return {{{}, Type::Invalid, "Invalid"},
          {true, Type::Bool, "Bool"},
          {std::uint16_t{65535}, Type::Int, "Int"},
          {'c', Type::Int, "Int"},
          {7U, Type::Int64, "Int64"},
          {7L, Type::Int64, "Int64"},
          {7ULL, Type::Int64, "Int64"},
          {U'c', Type::Int64, "Int64"},
          {1.5F, Type::Float, "Float"},
          {1.5, Type::Double, "Double"},
          {"text", Type::String, "String"},
          {HXValue::Binary{}, Type::Binary, "Binary"},
          {HXValue::list(), Type::List, "List"},
          {HXValue::map(), Type::Map, "Map"}};
}

TEST(HXValue, givesItsContentAsItsOwnTypeOnly) {
  const std::pair<Type, std::function<void(const HXValue&)>> accessors[] = {
      {Type::Bool, [](const HXValue& v) { v.asBool(); }},     {Type::Int, [](const HXValue& v) { v.asInt(); }},
      {Type::Int64, [](const HXValue& v) { v.asInt64(); }},   {Type::Float, [](const HXValue& v) { v.asFloat(); }},
      {Type::Double, [](const HXValue& v) { v.asDouble(); }}, {Type::String, [](const HXValue& v) { v.asString(); }},
      {Type::Binary, [](const HXValue& v) { v.asBinary(); }}, {Type::List, [](const HXValue& v) { v.asList(); }},
      {Type::Map, [](const HXValue& v) { v.asMap(); }}};
  for (const auto& [value, type, name] : types()) {
    EXPECT_EQ(value.getType(), type);
    for (const auto& [wanted, access] : accessors) {
      const auto call = [&access = access, &value = value] { access(value); };
      if (wanted == type) {
        EXPECT_NO_THROW(call());
      } else {
        EXPECT_EQ(errorOf(call),
                  std::string("the value is of type ") + name + ", not " + HXValue::TypeToString(wanted));
      }
    }
  }
}

TEST(HXValue, isMadeOfContainersOfWhateverMakesOne) {
  const std::pair<HXValue, HXValue> made[] = {
      {std::vector<bool>{true, false}, HXValue::list({true, false})},
      {std::array<float, 2>{1.5F, 2.5F}, HXValue::list({1.5F, 2.5F})},
      {std::vector<std::vector<std::string_view>>{{}, {"a"}}, HXValue::list({HXValue::list(), HXValue::list({"a"})})},
      {std::set<std::uint8_t>{2, 1}, HXValue::list({1, 2})},
      {std::array{std::byte{1}, std::byte{2}}, HXValue::Binary{std::byte{1}, std::byte{2}}},
      {std::map<std::string, std::vector<double>>{{"k", {0.5}}}, HXValue::map({{"k", HXValue::list({0.5})}})},
      {std::unordered_map<std::string, int>{{"k", 1}}, HXValue::map({{"k", 1}})}};
  for (const auto& [value, expected] : made) EXPECT_EQ(value, expected);
}

TEST(HXValue, survivesCopyAndMoveAndLeavesTheSourceOfAMoveInvalid) {
  for (const auto& [original, type, name] : types()) {
    HXValue copy = original;
    HXValue moved = std::move(copy);
    EXPECT_EQ(moved, original);
    EXPECT_FALSE(copy.isValid());  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move): the point.
    copy = moved;
    HXValue& self = copy;
    copy = self;
    copy = std::move(self);
    EXPECT_EQ(copy, original);
  }
}

TEST(HXValue, namesAnIndexOrAKeyThatIsNotThere) {
  const HXValue list = HXValue::list({1, "b"});
  EXPECT_EQ(list[1], "b");
  EXPECT_EQ(errorOf([&] { list[2]; }), "index 2 is past the end of a list of 2");
  EXPECT_EQ(errorOf([] { HXValue("text")[0]; }), "the value is of type String, not List");
  const HXValue map = HXValue::map({{"x", 1}, {"y", 2}});
  EXPECT_EQ(map["y"], 2);
  EXPECT_EQ(map.find("z"), nullptr);
  EXPECT_EQ(errorOf([&] { map["a\nb"]; }), R"(the map has no key "a\nb")");
  EXPECT_EQ(HXValue(5).find("x"), nullptr);
  const char* const null = nullptr;
  EXPECT_EQ(errorOf([&] { HXValue value(null); }), "a null pointer is not a text");
}

TEST(HXValue, becomesAListOrAMapThroughTheirOperationsAndRefusesThemOtherwise) {
  HXValue list;
  list.arraySetSize(3);
  list.arraySetSize(1);
  list.arrayPush(4);
  EXPECT_EQ(list, HXValue::list({HXValue(), 4}));
  list.arraySet(0, "first");
  EXPECT_EQ(errorOf([&] { list.arraySet(2, 0); }), "index 2 is past the end of a list of 2");
  HXValue pushed;
  pushed.arrayPush("first");
  pushed.arrayPush(4);
  EXPECT_EQ(pushed, list);
  HXValue map;
  map.mapSet("x", 1);
  map.mapSet("x", 2);
  EXPECT_EQ(map, HXValue::map({{"x", 2}}));
  for (const auto& operation : std::initializer_list<void (*)(HXValue&)>{
           [](HXValue& v) { v.arrayReserve(1); }, [](HXValue& v) { v.arraySetSize(1); },
           [](HXValue& v) { v.arrayPush(1); }, [](HXValue& v) { v.arraySet(0, 1); }}) {
    EXPECT_EQ(errorOf([&] { operation(map); }), "the value is of type Map, not List");
  }
  EXPECT_EQ(errorOf([&] { list.mapSet("x", 1); }), "the value is of type List, not Map");
  EXPECT_EQ(map, HXValue::map({{"x", 2}}));
}

}  // namespace
}  // namespace HX
