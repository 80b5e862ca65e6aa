#pragma once
#include <memory>

#include "I2DSliceIO.h"

// File-type codes: the persisted vocabulary of callers.
//   0, 8, 9, 36  binary CLI, long coordinates      35  binary CLI, short coordinates
//   3 SLI        4 SLC        5 SSL        6 F&S
//   44, 45, 46 ZFF   47 SLM   48 SLM build file (compressed)   49 CLF   50 G-code
//   51 MTT       54 WZA       55 JM        56 ASCII CLI
// Every other code from 0 to 56, and every code outside that range, gives null; so does
// a code whose format is not available in this build.
namespace M2DSliceIOFactory {

// A new format object owned by the caller, or null.
SLICEIO_API I2DSliceIO* CreateSliceIO(short code);
// The same, wrapped; for an unknown code a shared_ptr that owns null.
SLICEIO_API std::shared_ptr<I2DSliceIO> GetSliceIO(short code);

} // namespace M2DSliceIOFactory
