#pragma once
#include "../framework/Export.h"
#include <cstdint>
#include <string>

namespace ZanSDK {
namespace FileIO {
namespace FileSystem {

// A directory of its own under the system's temporary folder, removed with all its
// content when the object goes.
class SLICEIO_API TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::wstring& GetPath() const { return _path; }
    // A path inside the directory that no earlier call returned; the file is not created.
    std::wstring GetTemporaryFilePath();

private:
    std::wstring _path;
    std::uint64_t _counter = 0;
};

} // namespace FileSystem
} // namespace FileIO
} // namespace ZanSDK
