// The record the module drivers' generic accessors return: what each slot carries depends on the
// identifier asked for (see getDATA_struct / getCFG_struct of each driver).
#ifndef TOV_MESURE_CMPARAMVALUE_H
#define TOV_MESURE_CMPARAMVALUE_H

#include <cstdint>
#include <cstring>

struct cmParamValue_t {
    int32_t iValue = 0;  // first integer
    int32_t iValue2 = 0; // second integer
    // 32-bit value slot: a float for measured values and float settings; raw bytes where a field
    // is handed over unchanged (the module version).
    union Slot {
        float f;
        int32_t i;
        unsigned char bytes[4];
    } value{};
    char text[32] = {};

    float valueAsFloat() const
    {
        float f;
        memcpy(&f, value.bytes, sizeof f);
        return f;
    }
};

#endif
