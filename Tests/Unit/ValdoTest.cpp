// JSON values: what hostile text may do, what conversions give, and who shares what.
#include <gtest/gtest.h>

#include "BusText.h"
#include "valdo.h"

namespace {

using valdo::JValue;

const valdo::JSchemaFragment kAny("{}");

std::string Text(const JValue& value) {
    std::string result;
    EXPECT_TRUE(valdo::JGenerator::toString(value, kAny, result));
    return result;
}

// The document as text again, or "refused".
std::string Parsed(std::string_view text) {
    valdo::JDomParser parser;
    if (parser.parse(text, kAny)) return Text(parser.getDom());
    return parser.getDom().isNull() ? "refused" : "refused, but kept";
}

JValue Document(std::string_view text) {
    valdo::JDomParser parser;
    EXPECT_TRUE(parser.parse(text, kAny)) << text;
    return parser.getDom();
}

std::string Nested(size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

TEST(Valdo, OneWholeDocumentIsRead) {
    const std::string atLimit = Nested(valdo::JDomParser::kMaxDepth);
    const std::pair<std::string, std::string> cases[] = {
        {" { \"b\" : [ 1 , -2.5 , true , null ] , \"a\" : \"\\u00fc\\n\" } ",
         "{\"b\":[1,-2.5,true,null],\"a\":\"ü\\n\"}"},
        {"\"a\\u0000b\"", "\"a\\u0000b\""},
        {R"({"b":1,"a":2,"b":{"a":3,"a":4},"c":5,"a":[6],"b":7})", R"({"b":7,"a":[6],"c":5})"},
        {atLimit, atLimit},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(Parsed(text), expected);
    const std::string refused[] = {"",
                                   "{} {}",
                                   "[1,]",
                                   "{\"a\"}",
                                   "{a:1}",
                                   "NaN",
                                   "1e999",
                                   "\"\xff\"",
                                   "[" + atLimit + "]",
                                   "\"\\ud800\"",
                                   std::string("{}\0{", 4),
                                   std::string(64 * 1024, '[')};
    for (const std::string& text : refused) EXPECT_EQ(Parsed(text), "refused") << text.substr(0, 80);
    EXPECT_FALSE(valdo::JDomParser().parse("{}", valdo::JSchemaFragment(R"({"type":"object"})")));
}

// UTF-8 by the book, surrogates too.
std::string Encoded(uint32_t character) {
    const auto tail = [character](unsigned shift) { return static_cast<char>(0x80 | (character >> shift & 0x3F)); };
    if (character < 0x80) return {static_cast<char>(character)};
    if (character < 0x800) return {static_cast<char>(0xC0 | character >> 6), tail(0)};
    if (character < 0x10000) return {static_cast<char>(0xE0 | character >> 12), tail(6), tail(0)};
    return {static_cast<char>(0xF0 | character >> 18), tail(12), tail(6), tail(0)};
}

TEST(Valdo, WhatItWritesIsFitForTheBus) {
    const std::pair<std::string_view, std::string_view> cases[] = {
        {"a\xEF\xBF\xBF", "\"a\uFFFD\""},
        {"\xEF\xBF\xBE\xEF\xB7\x90z", "\"\uFFFD\uFFFDz\""},
        {"\xEF\xB7\x8F\xEF\xB7\xB0", "\"\uFDCF\uFDF0\""},  // on either side of the range
        {"x\xF0\x9F\xBF\xBEy\xF4\x8F\xBF\xBF\xF0\x9F\x98\x80", "\"x\uFFFDy\uFFFD\U0001F600\""},
        {"\xEF\xBF", "\"\uFFFD\""},
        {"\xEF\xBF\xBF\xFF", "\"\uFFFD\uFFFD\""},
    };
    for (const auto& [bytes, text] : cases) EXPECT_EQ(Text(JValue(bytes)), text);
    EXPECT_EQ(Parsed("{\"\\uffff\":\"\\udbff\\udffe\"}"), "{\"\uFFFD\":\"\uFFFD\"}");

    for (uint32_t character = 1; character <= 0x10FFFF; ++character) {
        const std::string sequence = Encoded(character);
        const bool isSurrogate = character >= 0xD800 && character < 0xE000;
        const bool isNoncharacter = (character >= 0xFDD0 && character < 0xFDF0) || (character & 0xFFFF) >= 0xFFFE;
        ASSERT_EQ(IsFitForBus(sequence), !isSurrogate && !isNoncharacter) << std::hex << character;
        std::string mended = sequence;
        if (!isSurrogate) ReplaceNoncharacters(mended);
        ASSERT_EQ(mended, isNoncharacter ? "\uFFFD" : sequence) << std::hex << character;
    }
}

TEST(Valdo, NumbersFit32BitsOrFail) {
    const struct {
        const char* text;
        uint32_t status;
        int32_t value;
    } cases[] = {{"-0.0", valdo::CONV_OK, 0},
                 {"3600.0", valdo::CONV_OK, 3600},
                 {"1e3", valdo::CONV_OK, 1000},
                 {"2147483647", valdo::CONV_OK, INT32_MAX},
                 {"-2147483648", valdo::CONV_OK, INT32_MIN},
                 {"2147483648", valdo::CONV_OUT_OF_RANGE, 7},
                 {"-2147483649", valdo::CONV_OUT_OF_RANGE, 7},
                 {"18446744073709551615", valdo::CONV_OUT_OF_RANGE, 7},
                 {"-1e300", valdo::CONV_OUT_OF_RANGE, 7},
                 {"0.5", valdo::CONV_FRACTION, 7},
                 {"\"1\"", valdo::CONV_NOT_THE_TYPE, 7},
                 {"true", valdo::CONV_NOT_THE_TYPE, 7}};
    for (const auto& c : cases) {
        int32_t value = 7;
        EXPECT_EQ(Document(c.text).asNumber(value), c.status) << c.text;
        EXPECT_EQ(value, c.value) << c.text;
    }
}

TEST(Valdo, AbsentAndForeignTypesAreHarmless) {
    const JValue document = Document(R"({"text":"x","list":[1,"two"],"flag":false})");
    std::string text = "before";
    bool flag = true;
    for (const JValue& absent : {document["absent"]["deeper"][3], document["list"][2], document["list"]["text"]})
        EXPECT_TRUE(absent.isNull());
    EXPECT_FALSE(document["text"].hasKey("x"));
    EXPECT_EQ(document["list"][0].asString(text), valdo::CONV_NOT_THE_TYPE);
    EXPECT_EQ(document["text"].asBool(flag), valdo::CONV_NOT_THE_TYPE);
    EXPECT_TRUE(flag && text == "before");
    EXPECT_FALSE(document["text"].put("key", 1));
    EXPECT_FALSE(JValue().append(1));
}

TEST(Valdo, HandlesShareAndDocumentsDoNot) {
    JValue object = valdo::Object();
    const JValue handle = object;
    JValue list = valdo::Array();
    EXPECT_TRUE(list.append(JValue(1)));
    EXPECT_TRUE(object.put("list", list));
    EXPECT_TRUE(list.append(JValue(2)));  // no part of the object any more
    EXPECT_TRUE(object.put("self", object));
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(object.put(std::to_string(i), object["list"]));
    EXPECT_TRUE(object.put("list", object["list"][0]));
    EXPECT_EQ(Text(handle), R"({"list":1,"self":{"list":[1]},"0":[1],"1":[1],"2":[1]})");
    EXPECT_EQ(Text(list), "[1,2]");
    EXPECT_EQ(Text(Document(R"({"a":{"b":"kept"}})")["a"]["b"]), "\"kept\"");
}

}  // namespace
