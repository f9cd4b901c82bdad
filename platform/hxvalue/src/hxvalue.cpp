#include <hxvalue/hxvalue.h>

#include <array>
#include <stdexcept>

namespace HX {

namespace {

template <typename Content>
constexpr HXValue::Type kTypeOf = HXValue::Type::Invalid;
template <>
constexpr HXValue::Type kTypeOf<std::string> = HXValue::Type::String;
template <>
constexpr HXValue::Type kTypeOf<HXValue::Binary> = HXValue::Type::Binary;
template <>
constexpr HXValue::Type kTypeOf<HXValue::List> = HXValue::Type::List;
template <>
constexpr HXValue::Type kTypeOf<HXValue::Map> = HXValue::Type::Map;

constexpr std::array kTypeNames{"Invalid", "Bool",   "Int",    "Int64", "Float",
                                "Double",  "String", "Binary", "List",  "Map"};

void checkIndex(std::size_t index, std::size_t size) {
  if (index >= size) {
    throw std::runtime_error("index " + std::to_string(index) + " is past the end of a list of " +
                             std::to_string(size));
  }
}

}  // namespace

// --- Payloads ---------------------------------------------------------------------------------------------------

template <typename Content>
struct HXValue::PayloadOf final : Payload {
  explicit PayloadOf(Content taken) noexcept : Payload(kTypeOf<Content>), content(std::move(taken)) {}
  Content content;
};

void HXValue::Payload::dropOwner(Payload*& dying) noexcept {
  // Release: what this owner read precedes the destruction. Acquire: the destruction follows what all owners read.
  if (owners.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  nextDying = dying;
  dying = this;
}

void HXValue::Payload::dropOwnerOf(HXValue& value, Payload*& dying) noexcept {
  if (!hasPayload(value.type_)) return;
  value.slot_.payload->dropOwner(dying);
  value.forget();
}

void HXValue::Payload::destroy(Payload*& dying) noexcept {
  if (type == Type::String) {
    delete static_cast<PayloadOf<std::string>*>(this);
  } else if (type == Type::Binary) {
    delete static_cast<PayloadOf<Binary>*>(this);
  } else if (type == Type::List) {
    auto* list = static_cast<PayloadOf<List>*>(this);
    for (HXValue& element : list->content) dropOwnerOf(element, dying);
    delete list;
  } else {
    auto* map = static_cast<PayloadOf<Map>*>(this);
    for (auto& [key, entry] : map->content) dropOwnerOf(entry, dying);
    delete map;
  }
}

void HXValue::release() noexcept {
  Payload* dying = nullptr;
  Payload::dropOwnerOf(*this, dying);
  while (dying != nullptr) {
    Payload* next = dying;
    dying = next->nextDying;
    next->destroy(dying);
  }
}

template <typename Content>
void HXValue::adopt(Content content) {
  slot_.payload = new PayloadOf<Content>(std::move(content));
  type_ = kTypeOf<Content>;
}

template <typename Content>
const Content* HXValue::contentIf() const noexcept {
  return type_ == kTypeOf<Content> ? &static_cast<const PayloadOf<Content>*>(slot_.payload)->content : nullptr;
}

template <typename Content>
const Content& HXValue::content() const {
  require(kTypeOf<Content>);
  return *contentIf<Content>();
}

template <typename Content>
Content& HXValue::edit() {
  if (!isValid()) adopt(Content{});
  const Content& present = content<Content>();
  // Acquire: a former owner that has let go may have been reading until then.
  const bool alone = slot_.payload->owners.load(std::memory_order_acquire) == 1;
  if (!alone) *this = HXValue(Content(present));
  return static_cast<PayloadOf<Content>*>(slot_.payload)->content;
}

// --- Construction -----------------------------------------------------------------------------------------------

HXValue::HXValue(std::string text) { adopt(std::move(text)); }

HXValue::HXValue(std::string_view text) : HXValue(std::string(text)) {}

HXValue::HXValue(const char* text) {
  if (text == nullptr) throw std::runtime_error("a null pointer is not a text");
  adopt(std::string(text));
}

HXValue::HXValue(Binary bytes) { adopt(std::move(bytes)); }

HXValue::HXValue(List elements) { adopt(std::move(elements)); }

HXValue::HXValue(Map entries) { adopt(std::move(entries)); }

HXValue HXValue::binary(std::span<const std::byte> bytes) { return Binary(bytes.begin(), bytes.end()); }

HXValue HXValue::list(List elements) { return elements; }

HXValue HXValue::map(Map entries) { return entries; }

// --- Type and content -------------------------------------------------------------------------------------------

const char* HXValue::TypeToString(Type type) noexcept {
  const auto index = static_cast<std::size_t>(type);
  return index < kTypeNames.size() ? kTypeNames[index] : "Unknown";
}

void HXValue::failType(const char* wanted) const {
  throw std::runtime_error(std::string("the value is of type ") + TypeToString(type_) + ", not " + wanted);
}

const std::string& HXValue::asString() const { return content<std::string>(); }
const HXValue::Binary& HXValue::asBinary() const { return content<Binary>(); }
const HXValue::List& HXValue::asList() const { return content<List>(); }
const HXValue::Map& HXValue::asMap() const { return content<Map>(); }

const std::string* HXValue::stringIf() const noexcept { return contentIf<std::string>(); }
const HXValue::Binary* HXValue::binaryIf() const noexcept { return contentIf<Binary>(); }
const HXValue::List* HXValue::listIf() const noexcept { return contentIf<List>(); }
const HXValue::Map* HXValue::mapIf() const noexcept { return contentIf<Map>(); }

std::string& HXValue::editString() { return edit<std::string>(); }
HXValue::Binary& HXValue::editBinary() { return edit<Binary>(); }
HXValue::List& HXValue::editList() { return edit<List>(); }
HXValue::Map& HXValue::editMap() { return edit<Map>(); }

// --- Lists and maps ---------------------------------------------------------------------------------------------

std::size_t HXValue::getSize() const noexcept {
  if (const List* list = listIf()) return list->size();
  if (const Map* map = mapIf()) return map->size();
  return 0;
}

const HXValue& HXValue::operator[](std::size_t index) const {
  const List& list = asList();
  checkIndex(index, list.size());
  return list[index];
}

const HXValue& HXValue::operator[](std::string_view key) const {
  const Map& map = asMap();
  const auto entry = map.find(key);
  if (entry == map.end()) throw std::runtime_error("the map has no key " + HXValue(key).toString());
  return entry->second;
}

const HXValue* HXValue::find(std::string_view key) const noexcept {
  const Map* map = mapIf();
  if (map == nullptr) return nullptr;
  const auto entry = map->find(key);
  return entry == map->end() ? nullptr : &entry->second;
}

void HXValue::arrayReserve(std::size_t count) { editList().reserve(count); }

void HXValue::arraySetSize(std::size_t count) { editList().resize(count); }

void HXValue::arrayPush(HXValue element) { editList().push_back(std::move(element)); }

void HXValue::arraySet(std::size_t index, HXValue element) {
  checkIndex(index, asList().size());
  editList()[index] = std::move(element);
}

void HXValue::mapSet(std::string key, HXValue entry) { editMap().insert_or_assign(std::move(key), std::move(entry)); }

}  // namespace HX
