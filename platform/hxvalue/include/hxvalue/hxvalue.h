#pragma once

#include <hxerror/api.h>

#include <atomic>
#include <bit>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace HX {

class HXValue;

/// The numbers that a value takes: bool, every integer (a character is one) and enough of the decimals. A long double
/// has digits that no type of value keeps.
template <typename T>
concept HXNumber = std::integral<T> || std::same_as<T, float> || std::same_as<T, double>;

/// Whatever becomes a value: values, numbers, texts, bytes, and containers of those.
template <typename T>
concept HXStorable = std::is_convertible_v<const T&, HXValue>;

/// A container of elements that become values, or of bytes: std::vector, std::array, std::span, std::set, …
template <typename T>
concept HXSequence = !std::is_convertible_v<const T&, std::string_view> && requires(const T& container) {
  container.begin();
  container.end();
  container.size();
  requires !std::same_as<typename T::value_type, T>;  // Of which there would be no end.
  requires std::same_as<typename T::value_type, std::byte> || HXStorable<typename T::value_type>;
};

/// A container of texts that each name something which becomes a value: std::map, std::unordered_map, …
template <typename T>
concept HXDictionary = requires(const T& container) {
  container.begin();
  container.end();
  requires std::is_convertible_v<const typename T::key_type&, std::string_view>;
  requires !std::same_as<typename T::mapped_type, T>;
  requires HXStorable<typename T::mapped_type>;
};

/// A value of a type known at run time: what is stored, raised, passed and returned between modules.
///
/// Scalars lie inside the value, at an address that stays the same for the life of the value object. Strings,
/// binaries, lists and maps are shared payloads: a copy shares them, whatever their size, and the first change
/// through one of the copies gives that copy a payload of its own. Nothing done through one value is ever seen
/// through another.
///
/// Types are strict. A bool is never an int, an Int is never an Int64, a Float is never a Double: `asX` fails on any
/// type but X, and 1, int64_t{1}, 1.0f and 1.0 are four different values. `toX` converts between numbers.
///
/// Lists and maps may nest as deep as memory allows: comparing, printing and destroying them uses no recursion.
///
/// @par Threads  As the standard containers: any number of threads may read one value, a thread that changes it must
///   be alone with it. Values that share a payload are independent in this respect. `storeScalar` and `loadScalar`
///   state what holds for addresses that were handed out.
/// @par Errors  Every function that can fail throws std::runtime_error with one line that names what was wanted and
///   what was there; the value is then unchanged.
class HX_API HXValue {
 public:
  enum class Type : std::uint8_t { Invalid, Bool, Int, Int64, Float, Double, String, Binary, List, Map };

  /// How much `toString` tells: the content alone, or each content with its type.
  enum class Verbosity : std::uint8_t { Compact, Typed };

  using Binary = std::vector<std::byte>;
  using List = std::vector<HXValue>;
  using Map = std::map<std::string, HXValue, std::less<>>;

  // --- Construction ---------------------------------------------------------------------------------------------

  /// The invalid value: nothing, not set yet.
  HXValue() noexcept = default;

  /// Bool, Int (32-bit and smaller integers), Int64 (uint32_t and 64-bit integers), Float or Double: the nearest type
  /// that loses nothing.
  /// @throws std::runtime_error for an unsigned 64-bit number that Int64 does not hold.
  template <HXNumber T>
  HXValue(T number) noexcept(std::signed_integral<T> || sizeof(T) < sizeof(std::int64_t) || std::floating_point<T>) {
    if constexpr (std::same_as<T, bool>) {
      slot_.boolean = number;
      type_ = Type::Bool;
    } else if constexpr (std::same_as<T, float>) {
      slot_.float32 = number;
      type_ = Type::Float;
    } else if constexpr (std::same_as<T, double>) {
      slot_.float64 = number;
      type_ = Type::Double;
    } else if constexpr (std::numeric_limits<T>::digits <= std::numeric_limits<std::int32_t>::digits) {
      slot_.int32 = static_cast<std::int32_t>(number);
      type_ = Type::Int;
    } else {
      if constexpr (sizeof(T) == sizeof(std::int64_t) && std::unsigned_integral<T>) requireInt64(number);
      slot_.int64 = static_cast<std::int64_t>(number);
      type_ = Type::Int64;
    }
  }

  /// A String of any bytes, NUL included; UTF-8 is expected but not required.
  HXValue(std::string text);
  HXValue(std::string_view text);
  HXValue(const char* text);  ///< NUL-terminated; a null pointer is an error.
  HXValue(std::nullptr_t) = delete;

  HXValue(Binary bytes);
  HXValue(List elements);
  HXValue(Map entries);

  /// A List of what the elements become, or a Binary of bytes.
  template <HXSequence T>
  HXValue(const T& elements);
  /// A Map of what the entries become.
  template <HXDictionary T>
  HXValue(const T& entries);

  /// A Binary with a copy of `bytes`.
  static HXValue binary(std::span<const std::byte> bytes);
  /// A List: `HXValue::list({"Speed", 1.5f})`.
  static HXValue list(List elements = {});
  /// A Map: `HXValue::map({{"x", 1}, {"y", 2}})`.
  static HXValue map(Map entries = {});

  /// Costs the same for every type and size.
  HXValue(const HXValue& other) noexcept : slot_(other.slot_), type_(other.type_) {
    if (hasPayload(type_)) retain();
  }
  /// Leaves `other` invalid.
  HXValue(HXValue&& other) noexcept : slot_(other.slot_), type_(other.type_) { other.forget(); }
  HXValue& operator=(const HXValue& other) noexcept {
    HXValue copy(other);
    swap(copy);
    return *this;
  }
  HXValue& operator=(HXValue&& other) noexcept {
    HXValue taken(std::move(other));
    swap(taken);
    return *this;
  }
  ~HXValue() {
    if (hasPayload(type_)) release();
  }

  void swap(HXValue& other) noexcept {
    std::swap(slot_, other.slot_);
    std::swap(type_, other.type_);
  }
  friend void swap(HXValue& a, HXValue& b) noexcept { a.swap(b); }

  // --- Type -----------------------------------------------------------------------------------------------------

  Type getType() const noexcept { return type_; }
  /// "Invalid", "Bool", "Int", "Int64", "Float", "Double", "String", "Binary", "List" or "Map".
  static const char* TypeToString(Type type) noexcept;

  bool isValid() const noexcept { return type_ != Type::Invalid; }
  bool isBool() const noexcept { return type_ == Type::Bool; }
  bool isInt() const noexcept { return type_ == Type::Int; }  ///< Exactly the 32-bit integer.
  bool isInt64() const noexcept { return type_ == Type::Int64; }
  bool isFloat() const noexcept { return type_ == Type::Float; }  ///< Exactly the 32-bit float.
  bool isDouble() const noexcept { return type_ == Type::Double; }
  bool isString() const noexcept { return type_ == Type::String; }
  bool isBinary() const noexcept { return type_ == Type::Binary; }
  bool isList() const noexcept { return type_ == Type::List; }
  bool isMap() const noexcept { return type_ == Type::Map; }
  /// Whether the content lies inside the value: Bool, Int, Int64, Float or Double.
  bool isScalar() const noexcept { return isValid() && !hasPayload(type_); }

  // --- Content, exactly as typed --------------------------------------------------------------------------------

  bool asBool() const { return require(Type::Bool), slot_.boolean; }
  std::int32_t asInt() const { return require(Type::Int), slot_.int32; }
  std::int64_t asInt64() const { return require(Type::Int64), slot_.int64; }
  float asFloat() const { return require(Type::Float), slot_.float32; }
  double asDouble() const { return require(Type::Double), slot_.float64; }
  /// References stay good until this value is changed, moved from or destroyed.
  const std::string& asString() const;
  const Binary& asBinary() const;
  const List& asList() const;
  const Map& asMap() const;

  /// The content, or null when the value is of another type.
  const std::string* stringIf() const noexcept;
  const Binary* binaryIf() const noexcept;
  const List* listIf() const noexcept;
  const Map* mapIf() const noexcept;

  /// The content to be changed in place, copied first when it is shared. An invalid value becomes an empty content
  /// of the wanted type. The reference must not be used once this value was copied, for a copy shares what it refers
  /// to; for the same reason a value must not be put into itself through it (`arrayPush`, `arraySet` and `mapSet` can).
  std::string& editString();
  Binary& editBinary();
  List& editList();
  Map& editMap();

  // --- Numbers converted ----------------------------------------------------------------------------------------

  /// Any number type, towards zero. Errors: a bool or any other type; NaN; a number that does not fit.
  std::int32_t toInt() const;
  std::int64_t toInt64() const;
  /// Any number type, to the nearest. Errors: a bool or any other type; a finite number beyond the range of float.
  float toFloat() const;
  double toDouble() const;
  /// A bool as it is, a number by whether it differs from zero. Errors: any other type; NaN.
  bool toBool() const;

  // --- Lists and maps -------------------------------------------------------------------------------------------

  /// Elements of a list, entries of a map; 0 for everything else, strings and binaries included: they are single
  /// values, and a caller that goes on to index is thus told by the size that there is nothing to index.
  std::size_t getSize() const noexcept;

  /// Element of a list. Errors: not a list; `index` past the end. There is no form that lends an element for change:
  /// reading through a value that is not const would then copy what is shared. See `arraySet` and `editList`.
  const HXValue& operator[](std::size_t index) const;
  /// Entry of a map. Errors: not a map; no such key.
  const HXValue& operator[](std::string_view key) const;
  /// Entry of a map; null when there is none or this is not a map.
  const HXValue* find(std::string_view key) const noexcept;

  /// Makes room for `count` elements. Like `arraySetSize` and `arrayPush` it makes an invalid value a list and fails
  /// on other types.
  void arrayReserve(std::size_t count);
  /// Cuts the list, or fills it up with invalid values.
  void arraySetSize(std::size_t count);
  void arrayPush(HXValue element);
  /// Replaces an element. Errors: not a list; `index` past the end.
  void arraySet(std::size_t index, HXValue element);
  /// Adds or replaces an entry; makes an invalid value a map. Errors: any other type.
  void mapSet(std::string key, HXValue entry);

  // --- Text, order ----------------------------------------------------------------------------------------------

  /// One line for a person, in the manner of JSON. Compact: `["a", 1, 1.0, null, <4 bytes>, {"k": true}]`. Typed:
  /// `List [String "a", Int 1, Float 1.0, Invalid, Binary <4 bytes>, Map {"k": Bool true}]`. In strings
  /// control characters are escaped, and U+FFFD stands for bytes that are not UTF-8.
  std::string toString(Verbosity verbosity = Verbosity::Compact) const;

  /// Same type and same content. Float and double: zeros are equal whatever their sign, and NaN equals NaN, so that
  /// a value always equals its copy.
  friend bool operator==(const HXValue& a, const HXValue& b) { return compare(a, b) == 0; }
  /// Total order: by type in the order of `Type`, then by content; lists and maps element by element; NaN last.
  friend std::weak_ordering operator<=>(const HXValue& a, const HXValue& b) { return compare(a, b); }

  // --- Addresses of scalars -------------------------------------------------------------------------------------

  /// Address of an Int's or a Float's content. It stays good while this value object lives and holds that type.
  int* getIntPtr();
  float* getFloatPtr();
  /// Address of a scalar's content, or of the zeroed place (8 bytes, aligned for each of them) where a value that is
  /// still invalid will hold one. Errors: a type that is not a scalar.
  void* getPtrValue();

  /// Stores into a scalar whose address was handed out. `value` is of the type that this value has, or an Int or a
  /// Float when this value is still invalid. Every other type is an error.
  ///
  /// The content is written as one relaxed atomic: a holder of the address that reads through
  /// `std::atomic_ref<T>(*address)` races with nothing, and sees an old or a new number, never a mixture; no order
  /// with other memory is implied. The type and all else remain under the caller's own lock.
  void storeScalar(const HXValue& value);
  /// A copy read as one relaxed atomic, for a scalar that holders of its address may be writing (through
  /// `std::atomic_ref`). An invalid value gives an invalid one. Errors: a type that is not a scalar.
  HXValue loadScalar() const;

  /// The content of a scalar as 64 bits, for those who keep it in an atomic word; with `getType` it makes the same
  /// value again. 0 for an invalid value; means nothing for any other type.
  std::uint64_t scalarBits() const noexcept { return std::bit_cast<std::uint64_t>(slot_); }
  /// @param type  Invalid or a scalar's.
  /// @param bits  As `scalarBits` gave them.
  static HXValue fromScalarBits(Type type, std::uint64_t bits) noexcept {
    HXValue value;
    value.slot_ = std::bit_cast<Slot>(bits);
    value.type_ = type;
    return value;
  }

 private:
  struct Payload;
  template <typename Content>
  struct PayloadOf;

  // An address handed out as void* must suit whichever scalar comes to live there, so all share one place.
  union Slot {
    std::uint64_t bits = 0;
    bool boolean;
    std::int32_t int32;
    std::int64_t int64;
    float float32;
    double float64;
    Payload* payload;
  };

  static void requireInt64(std::uint64_t number);
  static constexpr bool hasPayload(Type type) noexcept { return type >= Type::String; }

  template <typename Content>
  void adopt(Content content);
  template <typename Content>
  const Content& content() const;
  template <typename Content>
  const Content* contentIf() const noexcept;
  template <typename Content>
  Content& edit();
  template <typename Number>
  Number number() const;

  void retain() const noexcept;
  void release() noexcept;
  void forget() noexcept {
    slot_.bits = 0;
    type_ = Type::Invalid;
  }
  void require(Type wanted) const {
    if (type_ != wanted) failType(TypeToString(wanted));
  }
  [[noreturn]] void failType(const char* wanted) const;
  static std::weak_ordering compare(const HXValue& a, const HXValue& b);

  Slot slot_;
  Type type_ = Type::Invalid;
};

// What precedes a shared content. Payloads whose last owner went are chained through `nextDying` until they are
// destroyed, which saves destruction from recursion and from allocating.
struct HXValue::Payload {
  explicit Payload(Type contentType) noexcept : type(contentType) {}

  void dropOwner(Payload*& dying) noexcept;
  void destroy(Payload*& dying) noexcept;
  static void dropOwnerOf(HXValue& value, Payload*& dying) noexcept;

  std::atomic<std::size_t> owners{1};
  Payload* nextDying = nullptr;
  const Type type;
};

// Relaxed is enough: whoever copies already holds the payload. The last owner synchronises when it lets go.
inline void HXValue::retain() const noexcept { slot_.payload->owners.fetch_add(1, std::memory_order_relaxed); }

template <HXSequence T>
HXValue::HXValue(const T& elements) {
  if constexpr (std::same_as<typename T::value_type, std::byte>) {
    *this = HXValue(Binary(elements.begin(), elements.end()));
  } else {
    List list;
    list.reserve(elements.size());
    // Each by its own type, since vector<bool> hands out proxies.
    for (auto&& element : elements) list.emplace_back(static_cast<const typename T::value_type&>(element));
    *this = HXValue(std::move(list));
  }
}

template <HXDictionary T>
HXValue::HXValue(const T& entries) {
  Map map;
  for (const auto& [key, entry] : entries) map.emplace(std::string_view(key), entry);
  *this = HXValue(std::move(map));
}

static_assert(sizeof(HXValue) == 16);

}  // namespace HX
