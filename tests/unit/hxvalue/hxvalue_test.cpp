#include "expect_error.h"
#include "print_value.h"

#include <hxvalue/hxvalue.h>

#include <type_traits>

namespace HX {
namespace {

using Type = HXValue::Type;

template <typename T>
constexpr bool kMakesValue = std::is_constructible_v<HXValue, T>;
enum Unscoped { kSomething };

static_assert(kMakesValue<char*> && kMakesValue<long> && kMakesValue<long long> && kMakesValue<std::uint16_t>);
static_assert(!kMakesValue<int*> && !kMakesValue<void*> && !kMakesValue<std::nullptr_t>, "a pointer is not a bool");
static_assert(!kMakesValue<std::uint64_t> && !kMakesValue<long double>, "might not fit");
static_assert(!kMakesValue<char> && !kMakesValue<char16_t> && !kMakesValue<Unscoped>, "letter or number?");

struct TypeCase {
  HXValue value;
  Type type;
  const char* name;
};

void PrintTo(const TypeCase& testCase, std::ostream* out) { *out << testCase.name; }

class OfType : public testing::TestWithParam<TypeCase> {};

INSTANTIATE_TEST_SUITE_P(
    HXValue, OfType,
    testing::Values(TypeCase{{}, Type::Invalid, "Invalid"}, TypeCase{true, Type::Bool, "Bool"},
                    TypeCase{std::int8_t{-1}, Type::Int, "Int"}, TypeCase{std::uint16_t{65535}, Type::Int, "Int"},
                    TypeCase{7, Type::Int, "Int"}, TypeCase{7U, Type::Int64, "Int64"},
                    TypeCase{7L, Type::Int64, "Int64"}, TypeCase{7LL, Type::Int64, "Int64"},
                    TypeCase{1.5F, Type::Float, "Float"}, TypeCase{1.5, Type::Double, "Double"},
                    TypeCase{"text", Type::String, "String"}, TypeCase{std::string("text"), Type::String, "String"},
                    TypeCase{std::string_view("text"), Type::String, "String"},
                    TypeCase{HXValue::Binary{}, Type::Binary, "Binary"}, TypeCase{HXValue::list(), Type::List, "List"},
                    TypeCase{HXValue::map(), Type::Map, "Map"}));

TEST_P(OfType, isExactlyThatType) {
  const auto& [value, type, name] = GetParam();
  EXPECT_EQ(value.getType(), type);
  EXPECT_STREQ(HXValue::TypeToString(value.getType()), name);

  EXPECT_EQ(value.isValid(), type != Type::Invalid);
  EXPECT_EQ(value.isBool(), type == Type::Bool);
  EXPECT_EQ(value.isInt(), type == Type::Int);
  EXPECT_EQ(value.isInt64(), type == Type::Int64);
  EXPECT_EQ(value.isFloat(), type == Type::Float);
  EXPECT_EQ(value.isDouble(), type == Type::Double);
  EXPECT_EQ(value.isString(), type == Type::String);
  EXPECT_EQ(value.isBinary(), type == Type::Binary);
  EXPECT_EQ(value.isList(), type == Type::List);
  EXPECT_EQ(value.isMap(), type == Type::Map);
  EXPECT_EQ(value.isScalar(), type >= Type::Bool && type <= Type::Double);
}

TEST_P(OfType, givesItsContentAsThatTypeOnly) {
  const auto& [value, type, name] = GetParam();
  const std::pair<Type, std::function<void(const HXValue&)>> accessors[] = {
      {Type::Bool, [](const HXValue& v) { v.asBool(); }},     {Type::Int, [](const HXValue& v) { v.asInt(); }},
      {Type::Int64, [](const HXValue& v) { v.asInt64(); }},   {Type::Float, [](const HXValue& v) { v.asFloat(); }},
      {Type::Double, [](const HXValue& v) { v.asDouble(); }}, {Type::String, [](const HXValue& v) { v.asString(); }},
      {Type::Binary, [](const HXValue& v) { v.asBinary(); }}, {Type::List, [](const HXValue& v) { v.asList(); }},
      {Type::Map, [](const HXValue& v) { v.asMap(); }}};
  for (const auto& [wanted, access] : accessors) {
    if (wanted == type) {
      EXPECT_NO_THROW(access(value));
      continue;
    }
    const std::string expected = std::string("the value is of type ") + name + ", not " + HXValue::TypeToString(wanted);
    EXPECT_EQ(errorOf([&access = access, &value = value] { access(value); }), expected);
  }
  EXPECT_EQ(value.stringIf() != nullptr, type == Type::String);
  EXPECT_EQ(value.binaryIf() != nullptr, type == Type::Binary);
  EXPECT_EQ(value.listIf() != nullptr, type == Type::List);
  EXPECT_EQ(value.mapIf() != nullptr, type == Type::Map);
}

TEST_P(OfType, survivesCopyAndMoveAndLeavesTheSourceOfAMoveInvalid) {
  const HXValue& original = GetParam().value;
  HXValue copy = original;
  HXValue moved = std::move(copy);
  EXPECT_EQ(moved, original);
  EXPECT_FALSE(copy.isValid());  // NOLINT(bugprone-use-after-move): that it is usable is the point.

  copy = moved;
  HXValue& self = copy;
  copy = self;
  copy = std::move(self);
  EXPECT_EQ(copy, original);
}

TEST(HXValue, readsBackWhatItWasMadeOf) {
  EXPECT_TRUE(HXValue(true).asBool());
  EXPECT_EQ(HXValue(-5).asInt(), -5);
  EXPECT_EQ(HXValue(4'000'000'000U).asInt64(), 4'000'000'000);
  EXPECT_EQ(HXValue(0.1F).asFloat(), 0.1F);
  EXPECT_EQ(HXValue(0.1).asDouble(), 0.1);
  EXPECT_EQ(HXValue(std::string("a\0b", 3)).asString(), std::string("a\0b", 3));
  const HXValue::Binary bytes{std::byte{0}, std::byte{255}};
  EXPECT_EQ(HXValue::binary(bytes).asBinary(), bytes);
}

TEST(HXValue, refusesANullText) {
  const char* text = nullptr;
  EXPECT_EQ(errorOf([&] { HXValue value(text); }), "a null pointer is not a text");
}

TEST(HXValue, hasTheSizeOfItsListOrMapAndZeroOtherwise) {
  EXPECT_EQ(HXValue::list({1, "b", HXValue()}).getSize(), 3U);
  EXPECT_EQ(HXValue::map({{"a", "b"}}).getSize(), 1U);
  for (const HXValue& other : {HXValue(), HXValue(5), HXValue("text")}) EXPECT_EQ(other.getSize(), 0U);
}

TEST(HXValue, indexesListsAndNamesAnIndexPastTheEnd) {
  const HXValue list = HXValue::list({1, "b"});
  EXPECT_EQ(list[1], "b");
  EXPECT_EQ(errorOf([&] { list[2]; }), "index 2 is past the end of a list of 2");
  EXPECT_EQ(errorOf([] { HXValue("text")[0]; }), "the value is of type String, not List");
}

TEST(HXValue, indexesMapsAndNamesAMissingKey) {
  const HXValue map = HXValue::map({{"x", 1}, {"y", 2}});
  EXPECT_EQ(map["y"], 2);
  EXPECT_EQ(map.find("z"), nullptr);
  ASSERT_NE(map.find("x"), nullptr);
  EXPECT_EQ(*map.find("x"), 1);
  EXPECT_EQ(errorOf([&] { map["a\nb"]; }), R"(the map has no key "a\nb")");
  EXPECT_EQ(HXValue(5).find("x"), nullptr);
}

TEST(HXValue, becomesAListThroughEachOfTheListOperations) {
  HXValue reserved;
  reserved.arrayReserve(0);
  EXPECT_EQ(reserved, HXValue::list());

  HXValue sized;
  sized.arraySetSize(2);
  EXPECT_EQ(sized, HXValue::list({HXValue(), HXValue()}));

  HXValue pushed;
  pushed.arrayPush("a");
  EXPECT_EQ(pushed, HXValue::list({"a"}));
}

TEST(HXValue, setsSizeAndElementsOfAList) {
  HXValue list = HXValue::list({1, 2, 3});
  list.arraySetSize(1);
  list.arrayPush(4);
  list.arraySet(0, "first");
  EXPECT_EQ(list, HXValue::list({"first", 4}));
  EXPECT_EQ(errorOf([&] { list.arraySet(2, 0); }), "index 2 is past the end of a list of 2");
}

TEST(HXValue, setsEntriesOfAMapAndBecomesOne) {
  HXValue map;
  map.mapSet("x", 1);
  map.mapSet("x", 2);
  EXPECT_EQ(map, HXValue::map({{"x", 2}}));
}

TEST(HXValue, refusesListAndMapOperationsOnOtherTypesAndStaysAsItWas) {
  HXValue text("text");
  const std::string error = "the value is of type String, not List";
  EXPECT_EQ(errorOf([&] { text.arrayReserve(1); }), error);
  EXPECT_EQ(errorOf([&] { text.arraySetSize(1); }), error);
  EXPECT_EQ(errorOf([&] { text.arrayPush(1); }), error);
  EXPECT_EQ(errorOf([&] { text.arraySet(0, 1); }), error);
  EXPECT_EQ(errorOf([&] { text.mapSet("x", 1); }), "the value is of type String, not Map");
  EXPECT_EQ(text, "text");
}

}  // namespace
}  // namespace HX
