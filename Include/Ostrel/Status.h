// Status codes: what every fallible function returns.
#pragma once

#include <cstdint>

using Ostrel_Status = int32_t;

constexpr Ostrel_Status kNoErr = 0;
constexpr Ostrel_Status kGenericErr = -6700;         // unspecified failure
constexpr Ostrel_Status kBadParamErr = -6705;        // bad argument, request field or action word; filter refused
constexpr Ostrel_Status kNoSuchItemErr = -6727;      // interface or table entry not found
constexpr Ostrel_Status kOutOfMemoryErr = -6728;     // allocation failed, or a link-layer socket could not be opened
constexpr Ostrel_Status kNoFreeResourceErr = -6729;  // no lease slot available
constexpr Ostrel_Status kAlreadyExistsErr = -6730;   // the interface is already managed
constexpr Ostrel_Status kBadFormatErr = -6742;       // malformed message: wrong options cookie
constexpr Ostrel_Status kBadSizeErr = -6743;         // wrong size: an option's length, a message too small
constexpr Ostrel_Status kSendFailedErr = -6747;      // a frame was sent short
constexpr Ostrel_Status kTooShortErr = -6750;        // an option runs past the end, or no end option was found
constexpr Ostrel_Status kTooLongErr = -6751;         // a value does not fit its destination
constexpr Ostrel_Status kEndingErr = -6752;          // the end option was reached without the option sought
