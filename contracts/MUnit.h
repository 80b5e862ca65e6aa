#pragma once
// Internal units: every coordinate and height is a signed 32-bit integer counting
// 1/10000 millimetre.

struct MUnit
{
    // Internal units in one millimetre.
    static int GetIE() { return 10000; }
};

namespace ZanSDK {
namespace Common {
struct MInternalUnits
{
    // The same scale as MUnit::GetIE(), for code that converts by multiplying.
    static double Get() { return 10000.0; }
};
} // namespace Common
} // namespace ZanSDK
