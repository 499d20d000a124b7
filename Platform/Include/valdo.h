// JSON values: a document model with parsing and serialisation. Key order is kept; nothing here throws.
//
// A JValue is a handle to a value. Copying a handle shares the value. A handle got from a document with operator[]
// keeps the whole document alive and may be read as long as the document is not changed; put and append never
// make one document share with another.
//
// Text that came from the network may be any bytes: what is not UTF-8, and what is one of Unicode's noncharacters, is
// written as U+FFFD, so every serialised document is valid JSON and fit for the bus. This is the one place where
// foreign text becomes so.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace valdo {

namespace detail {
struct Node;  // the library's own value
}

// Status of a conversion: 0 is success.
enum ConversionStatus : uint32_t {
    CONV_OK = 0,
    CONV_NOT_THE_TYPE = 0x1,
    CONV_OUT_OF_RANGE = 0x2,  // not within 32 bits
    CONV_FRACTION = 0x4,      // not a whole number
    CONV_NO_MEMORY = 0x8,
};

class JValue {
public:
    JValue() noexcept;  // null
    JValue(bool value) noexcept;
    JValue(int32_t value) noexcept;
    JValue(int64_t value) noexcept;
    JValue(uint32_t value) noexcept;
    JValue(std::string_view text) noexcept;
    JValue(const char* text) noexcept;
    JValue(const std::string& text) noexcept : JValue(std::string_view(text)) {}

    [[nodiscard]] bool isNull() const noexcept;
    [[nodiscard]] bool isString() const noexcept;
    [[nodiscard]] bool isBoolean() const noexcept;
    [[nodiscard]] bool isNumber() const noexcept;
    [[nodiscard]] bool isObject() const noexcept;
    [[nodiscard]] bool isArray() const noexcept;

    // Conversions: CONV_OK with the value stored, otherwise the status with `value` as it was.
    [[nodiscard]] uint32_t asString(std::string& value) const noexcept;
    [[nodiscard]] uint32_t asBool(bool& value) const noexcept;
    [[nodiscard]] uint32_t asNumber(int32_t& value) const noexcept;
    [[nodiscard]] uint32_t asNumber(int64_t& value) const noexcept;  // whole ones only

    // Object: the member, or a null value. Array: the element, or a null value.
    [[nodiscard]] bool hasKey(std::string_view key) const noexcept;
    [[nodiscard]] JValue operator[](std::string_view key) const noexcept;
    [[nodiscard]] size_t arraySize() const noexcept;
    [[nodiscard]] JValue operator[](size_t index) const noexcept;
    // How many members an object has, and the name of one of them, NUL-terminated; 0 and "" of anything else.
    [[nodiscard]] size_t objectSize() const noexcept;
    [[nodiscard]] std::string_view memberName(size_t index) const noexcept;

    // Object: stores the value under `key`, at the end, or in the place of an earlier value of that key. Array: appends
    // it. What other handles still share is copied, the last handle's value is moved. False, with nothing changed, when
    // this is not an object (array) or memory is out.
    bool put(std::string_view key, JValue value) noexcept;
    bool append(JValue value) noexcept;

protected:
    std::shared_ptr<detail::Node> node;
    friend class JDomParser;
    friend class JGenerator;
    friend JValue Object() noexcept;
    friend JValue Array() noexcept;
};

[[nodiscard]] JValue Object() noexcept;  // a new empty object
[[nodiscard]] JValue Array() noexcept;   // a new empty array

// A schema. "{}", which accepts every document, is the one in use; any other text makes parsing and generating fail.
class JSchemaFragment {
public:
    explicit JSchemaFragment(std::string_view schemaText) noexcept;
    [[nodiscard]] bool acceptsAll() const noexcept;

private:
    bool all;
};

// Parses a text that is one whole document, nested at most kMaxDepth deep. A member name that stands twice keeps its
// last value.
class JDomParser {
public:
    static constexpr size_t kMaxDepth = 64;

    // False when the text is not JSON, too deeply nested, or memory is out; the parser then holds null.
    [[nodiscard]] bool parse(std::string_view text, const JSchemaFragment& schema) noexcept;
    [[nodiscard]] JValue getDom() const noexcept;

private:
    JValue dom;
};

class JGenerator {
public:
    // The value as compact JSON text. False, with `text` as it was, when memory is out.
    [[nodiscard]] static bool toString(const JValue& value, const JSchemaFragment& schema, std::string& text) noexcept;
};

}  // namespace valdo
