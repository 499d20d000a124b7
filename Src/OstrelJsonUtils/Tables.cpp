// Value/name tables.
//
// A table is an array of rows ended by a row whose name is null, searched from its first row, so the first match wins
// and a later row of the same value or name is not reached by it. Lookups are silent: whether an unknown name matters
// is the caller's business.

#include "Ostrel/OstrelJsonUtils.h"

Ostrel_Status OstrelJsonUtilsLookupTableStringByVal32(const OstrelJsonUtilsUint32StringTableEntry* table,
                                                      uint32_t value, const char** name) {
    for (const auto* row = table; row->name != nullptr; ++row) {
        if (row->value != value) continue;
        *name = row->name;
        return kNoErr;
    }
    return kNoSuchItemErr;
}

Ostrel_Status OstrelJsonUtilsLookupTableIndexByString(const OstrelJsonUtilsUint32StringTableEntry* table,
                                                      std::string_view name, int32_t* index) {
    for (int32_t i = 0; table[i].name != nullptr; ++i) {
        if (name != table[i].name) continue;
        *index = i;
        return kNoErr;
    }
    return kNoSuchItemErr;
}

Ostrel_Status OstrelJsonUtilsLookupTableVal32ByString(const OstrelJsonUtilsUint32StringTableEntry* table,
                                                      std::string_view name, uint32_t* value) {
    int32_t index = 0;
    const Ostrel_Status status = OstrelJsonUtilsLookupTableIndexByString(table, name, &index);
    if (status == kNoErr) *value = table[index].value;
    return status;
}
