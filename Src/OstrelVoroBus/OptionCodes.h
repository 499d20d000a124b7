// Which options a caller may name, and the options that it gave.
#pragma once

#include <cstdint>
#include <span>

#include "Ostrel/InterfaceConfig.h"
#include "Ostrel/OstrelJsonUtilsStrict.h"

constexpr size_t kMaxOptionValues = 64;  // in one list

// What a code is for decides which ones are the protocol's own.
enum class Ostrel_CodeUse { kAsk, kSend, kServe };

// A code that a caller may name for that use; from a number, it is one from 1 to 254.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_CheckCode(const OstrelJsonField& field, Ostrel_CodeUse use, uint8_t code);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_ReadCode(const OstrelJsonField& field, Ostrel_CodeUse use, uint8_t* code);

// Bytes that the options of a list take in a message, in parts where they are long.
[[nodiscard]] size_t Ostrel_VSUtil_SizeOf(const Ostrel_OptionList& list);

// Adds an option. kBadParamErr, with the problem told, for a code that is there already and for one too many;
// kOutOfMemoryErr.
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_AddOption(const OstrelJsonField& field, Ostrel_OptionValue&& value,
                                                    Ostrel_OptionList* list);
[[nodiscard]] Ostrel_Status Ostrel_VSUtil_AddOption(const OstrelJsonField& field, uint8_t code,
                                                    std::span<const uint8_t> data, Ostrel_OptionList* list);
