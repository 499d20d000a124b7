// JSON values over nlohmann::ordered_json, the only file that knows it.
//
// A handle points at a value of the library inside a document that all handles to it keep alive; detail::Node is never
// defined and only stands for the library's type in the header. Every function catches what the library throws.
//
// The library's destructor of a filled array or object allocates, and ends the process when it can't. So every value is
// owned by a Document, which takes it apart first, and copies are made by hand.
//
// The library's own document builder is not used: it looks every member name up from the front of its object and copies
// whole members when an object grows, so that 64 KiB of hostile text costs tenths of a second. Here members are
// collected in a plain list and become an object once, when it ends, after one sort that finds names standing twice.
#include "valdo.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <numeric>
#include <utility>
#include <vector>

#include "BusText.h"

namespace valdo {
namespace {

using Json = nlohmann::ordered_json;
using JsonObject = Json::object_t;
using JsonArray = Json::array_t;
using Member = std::pair<std::string, Json>;  // the library's own member has a constant name, which can't be moved

constexpr size_t kFirstMembers = 8;  // room a new object has; a reply and a lease fit

// At the end, without the library's search for an earlier one.
void AddMember(JsonObject& object, std::string name, Json&& value) {
    static_cast<JsonObject::Container&>(object).emplace_back(std::move(name), std::move(value));
}

// Empties a value without allocating.
void Dismantle(Json& value) noexcept {
    if (auto* array = value.get_ptr<JsonArray*>()) {
        for (Json& element : *array) Dismantle(element);
        array->clear();
    } else if (auto* object = value.get_ptr<JsonObject*>()) {
        for (auto& member : *object) Dismantle(member.second);
        object->clear();
    }
}

struct Document {
    template <typename... Arguments>
    explicit Document(Arguments&&... arguments) : root(std::forward<Arguments>(arguments)...) {}
    ~Document() { Dismantle(root); }
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    Json root;
};

// Copies into a null value, which keeps what was copied when memory runs out.
void Copy(const Json& from, Json& to) {
    if (const auto* elements = from.get_ptr<const JsonArray*>()) {
        to = Json::value_t::array;
        auto& copies = to.get_ref<JsonArray&>();
        copies.reserve(elements->size());
        for (const Json& element : *elements) Copy(element, copies.emplace_back());
    } else if (const auto* members = from.get_ptr<const JsonObject*>()) {
        to = Json::value_t::object;
        auto& copies = to.get_ref<JsonObject&>();
        copies.reserve(members->size());
        for (const auto& [name, value] : *members) {
            AddMember(copies, name, nullptr);
            Copy(value, copies.back().second);
        }
    } else {
        to = from;
    }
}

Json* ToJson(const std::shared_ptr<detail::Node>& node) noexcept {
    return reinterpret_cast<Json*>(node.get());
}

// A handle to `value`, a part of the document that `owner` belongs to.
template <typename Owner>
std::shared_ptr<detail::Node> Share(const std::shared_ptr<Owner>& owner, Json& value) noexcept {
    return {owner, reinterpret_cast<detail::Node*>(&value)};
}

// A document of its own, or none when memory is out.
template <typename... Arguments>
std::shared_ptr<detail::Node> NewDocument(Arguments&&... arguments) noexcept {
    try {
        const auto document = std::make_shared<Document>(std::forward<Arguments>(arguments)...);
        return Share(document, document->root);
    } catch (...) {
        return nullptr;
    }
}

Json* FindMember(Json* value, std::string_view key) noexcept {
    auto* object = value == nullptr ? nullptr : value->get_ptr<JsonObject*>();
    if (object == nullptr) return nullptr;
    const auto found =
        std::find_if(object->begin(), object->end(), [key](auto& member) { return member.first == key; });
    return found == object->end() ? nullptr : &found->second;
}

// Makes room for one more member. By hand, because the library's object copies its members when it grows; here their
// names are copied first, which may fail, and then the values change places, which can't.
void ReserveMember(JsonObject& object) {
    if (object.size() < object.capacity()) return;
    JsonObject grown;
    grown.reserve(std::max(kFirstMembers, 2 * object.size()));
    for (const auto& member : object) grown.emplace_back(member.first, nullptr);
    for (auto from = object.begin(), to = grown.begin(); from != object.end(); ++from, ++to)
        to->second.swap(from->second);
    object.swap(grown);
}

// What the handle holds, for another document: moved when it is the only handle, otherwise copied.
void Detach(std::shared_ptr<detail::Node>&& node, Json& to) {
    if (node == nullptr) return;
    if (node.use_count() == 1) {
        to.swap(*ToJson(node));
    } else {
        Copy(*ToJson(node), to);
    }
}

// Keeps one member of each name: at the place of the first, with the value of the last.
void DropRepeatedNames(std::vector<Member>& members) {
    std::vector<size_t> order(members.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::sort(order.begin(), order.end(), [&members](size_t left, size_t right) {
        const int names = members[left].first.compare(members[right].first);
        return names != 0 ? names < 0 : left < right;
    });

    std::vector<bool> repeated(members.size());
    for (size_t i = 1, first = 0; i < order.size(); ++i) {
        if (members[order[i]].first != members[order[first]].first) {
            first = i;
            continue;
        }
        members[order[first]].second.swap(members[order[i]].second);
        Dismantle(members[order[i]].second);
        repeated[order[i]] = true;
    }
    size_t kept = 0;
    for (size_t i = 0; i < members.size(); ++i) {
        if (repeated[i]) continue;
        if (kept != i) members[kept] = std::move(members[i]);
        ++kept;
    }
    members.resize(kept);
}

// An array or object whose end has not been read yet.
struct OpenContainer {
    explicit OpenContainer(bool object) noexcept : isObject(object) {}
    OpenContainer(OpenContainer&&) noexcept = default;
    OpenContainer& operator=(OpenContainer&&) noexcept = default;
    OpenContainer(const OpenContainer&) = delete;
    OpenContainer& operator=(const OpenContainer&) = delete;
    ~OpenContainer() {
        for (Json& element : elements) Dismantle(element);
        for (Member& member : members) Dismantle(member.second);
    }

    bool isObject;
    std::vector<Member> members;  // object; the last one waits for its value after its name was read
    JsonArray elements;           // array
};

// Builds the document from the library's parse events, whose names and signatures are the library's. False stops it.
class Builder {
public:
    Builder() { open.reserve(JDomParser::kMaxDepth); }

    bool null() { return Add(nullptr); }
    bool boolean(bool value) { return Add(value); }
    bool number_integer(Json::number_integer_t value) { return Add(value); }
    bool number_unsigned(Json::number_unsigned_t value) { return Add(value); }
    bool number_float(Json::number_float_t value, const std::string&) { return Add(value); }
    bool string(std::string& value) { return Add(std::move(value)); }
    bool binary(Json::binary_t&) { return false; }
    bool start_object(size_t) { return Open(true); }
    bool start_array(size_t) { return Open(false); }
    bool end_object() { return CloseObject(); }
    bool end_array() { return CloseArray(); }
    bool parse_error(size_t, const std::string&, const nlohmann::detail::exception&) { return false; }

    bool key(std::string& name) {
        open.back().members.emplace_back(std::move(name), nullptr);
        return true;
    }

    Document document;

private:
    bool Open(bool object) {
        if (open.size() == JDomParser::kMaxDepth) return false;
        open.emplace_back(object);
        return true;
    }

    bool Add(Json&& value) {
        if (open.empty()) {
            document.root = std::move(value);
        } else if (open.back().isObject) {
            open.back().members.back().second = std::move(value);
        } else {
            open.back().elements.push_back(std::move(value));
        }
        return true;
    }

    bool CloseObject() {
        std::vector<Member>& members = open.back().members;
        if (members.size() > 1) DropRepeatedNames(members);
        Document closed(Json::value_t::object);
        auto& object = closed.root.get_ref<JsonObject&>();
        object.reserve(members.size());
        for (Member& member : members) AddMember(object, std::move(member.first), std::move(member.second));
        open.pop_back();
        return Add(std::move(closed.root));
    }

    bool CloseArray() {
        Document closed(Json::value_t::array);
        closed.root.get_ref<JsonArray&>().swap(open.back().elements);
        open.pop_back();
        return Add(std::move(closed.root));
    }

    std::vector<OpenContainer> open;  // from the outermost to the innermost
};

uint32_t ToInt32(int64_t wide, int32_t& value) noexcept {
    if (!std::in_range<int32_t>(wide)) return CONV_OUT_OF_RANGE;
    value = static_cast<int32_t>(wide);
    return CONV_OK;
}

uint32_t ToInt32(uint64_t wide, int32_t& value) noexcept {
    if (!std::in_range<int32_t>(wide)) return CONV_OUT_OF_RANGE;
    value = static_cast<int32_t>(wide);
    return CONV_OK;
}

uint32_t ToInt32(double wide, int32_t& value) noexcept {
    if (!(wide >= INT32_MIN && wide <= INT32_MAX)) return CONV_OUT_OF_RANGE;
    if (wide != std::trunc(wide)) return CONV_FRACTION;
    value = static_cast<int32_t>(wide);
    return CONV_OK;
}

}  // namespace

JValue::JValue() noexcept = default;
JValue::JValue(bool value) noexcept : node(NewDocument(value)) {}
JValue::JValue(int32_t value) noexcept : node(NewDocument(value)) {}
JValue::JValue(int64_t value) noexcept : node(NewDocument(value)) {}
JValue::JValue(uint32_t value) noexcept : node(NewDocument(value)) {}
JValue::JValue(std::string_view text) noexcept : node(NewDocument(text)) {}
JValue::JValue(const char* text) noexcept : node(text == nullptr ? nullptr : NewDocument(text)) {}

bool JValue::isNull() const noexcept {
    return node == nullptr || ToJson(node)->is_null();
}
bool JValue::isString() const noexcept {
    return node != nullptr && ToJson(node)->is_string();
}
bool JValue::isBoolean() const noexcept {
    return node != nullptr && ToJson(node)->is_boolean();
}
bool JValue::isNumber() const noexcept {
    return node != nullptr && ToJson(node)->is_number();
}
bool JValue::isObject() const noexcept {
    return node != nullptr && ToJson(node)->is_object();
}
bool JValue::isArray() const noexcept {
    return node != nullptr && ToJson(node)->is_array();
}

uint32_t JValue::asString(std::string& value) const noexcept {
    if (!isString()) return CONV_NOT_THE_TYPE;
    try {
        value = *ToJson(node)->get_ptr<const std::string*>();
        return CONV_OK;
    } catch (...) {
        return CONV_NO_MEMORY;
    }
}

uint32_t JValue::asBool(bool& value) const noexcept {
    if (!isBoolean()) return CONV_NOT_THE_TYPE;
    value = *ToJson(node)->get_ptr<const bool*>();
    return CONV_OK;
}

uint32_t JValue::asNumber(int32_t& value) const noexcept {
    if (!isNumber()) return CONV_NOT_THE_TYPE;
    const Json& number = *ToJson(node);
    if (const auto* whole = number.get_ptr<const Json::number_unsigned_t*>()) return ToInt32(*whole, value);
    if (const auto* whole = number.get_ptr<const Json::number_integer_t*>()) return ToInt32(*whole, value);
    return ToInt32(*number.get_ptr<const Json::number_float_t*>(), value);
}

uint32_t JValue::asNumber(int64_t& value) const noexcept {
    const auto* const whole = isNumber() ? ToJson(node)->get_ptr<const Json::number_integer_t*>() : nullptr;
    if (whole == nullptr || (ToJson(node)->is_number_unsigned() && *whole < 0)) return CONV_NOT_THE_TYPE;
    value = *whole;
    return CONV_OK;
}

bool JValue::hasKey(std::string_view key) const noexcept {
    return FindMember(ToJson(node), key) != nullptr;
}

JValue JValue::operator[](std::string_view key) const noexcept {
    JValue result;
    if (Json* member = FindMember(ToJson(node), key)) result.node = Share(node, *member);
    return result;
}

size_t JValue::arraySize() const noexcept {
    return isArray() ? ToJson(node)->size() : 0;
}

JValue JValue::operator[](size_t index) const noexcept {
    JValue result;
    if (index < arraySize()) result.node = Share(node, (*ToJson(node)->get_ptr<JsonArray*>())[index]);
    return result;
}

size_t JValue::objectSize() const noexcept {
    return isObject() ? ToJson(node)->size() : 0;
}

std::string_view JValue::memberName(size_t index) const noexcept {
    if (index >= objectSize()) return "";
    const JsonObject::Container& members = *ToJson(node)->get_ptr<const JsonObject*>();
    return members[index].first;
}

bool JValue::put(std::string_view key, JValue value) noexcept {
    if (!isObject()) return false;
    try {
        std::string name(key);
        Document stored;
        Detach(std::move(value.node), stored.root);  // first: the value may be a part of this object
        auto& object = *ToJson(node)->get_ptr<JsonObject*>();
        if (Json* earlier = FindMember(ToJson(node), key)) {
            earlier->swap(stored.root);
        } else {
            ReserveMember(object);
            AddMember(object, std::move(name), std::move(stored.root));
        }
        return true;
    } catch (...) {
        return false;
    }
}

bool JValue::append(JValue value) noexcept {
    if (!isArray()) return false;
    try {
        Document stored;
        Detach(std::move(value.node), stored.root);
        ToJson(node)->get_ptr<JsonArray*>()->push_back(std::move(stored.root));
        return true;
    } catch (...) {
        return false;
    }
}

JValue Object() noexcept {
    JValue result;
    result.node = NewDocument(Json::value_t::object);
    return result;
}

JValue Array() noexcept {
    JValue result;
    result.node = NewDocument(Json::value_t::array);
    return result;
}

JSchemaFragment::JSchemaFragment(std::string_view schemaText) noexcept : all(schemaText == "{}") {}

bool JSchemaFragment::acceptsAll() const noexcept {
    return all;
}

bool JDomParser::parse(std::string_view text, const JSchemaFragment& schema) noexcept {
    dom = JValue();
    // The library takes a zero byte for the end of the text, and no JSON text holds one.
    if (!schema.acceptsAll() || text.find('\0') != std::string_view::npos) return false;
    try {
        Builder builder;
        if (!Json::sax_parse(text.begin(), text.end(), &builder)) return false;
        dom.node = NewDocument(std::move(builder.document.root));
        return dom.node != nullptr;
    } catch (...) {
        return false;
    }
}

JValue JDomParser::getDom() const noexcept {
    return dom;
}

bool JGenerator::toString(const JValue& value, const JSchemaFragment& schema, std::string& text) noexcept {
    if (!schema.acceptsAll()) return false;
    try {
        text =
            value.node == nullptr ? "null" : ToJson(value.node)->dump(-1, ' ', false, Json::error_handler_t::replace);
        ReplaceNoncharacters(text);
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace valdo
