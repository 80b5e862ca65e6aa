#pragma once
// SLICEIO_API marks what the shared library exports. Everything else is compiled with hidden
// visibility, so a class or function that callers of the library use carries the mark:
//
//     #include "../../framework/Export.h"
//     class SLICEIO_API M2DSliceIO_xyz : public I2DSliceIO { ... };
//
// Nested classes and the members of a marked class are exported with it. Builds that link
// the code statically (tests, fuzz targets) see the same mark, which is then harmless.
#if defined(_WIN32)
#if defined(SLICEIO_BUILDING_LIBRARY)
#define SLICEIO_API __declspec(dllexport)
#else
#define SLICEIO_API __declspec(dllimport)
#endif
#else
#define SLICEIO_API __attribute__((visibility("default")))
#endif
