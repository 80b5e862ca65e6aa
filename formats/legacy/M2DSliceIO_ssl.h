#pragma once
#include "../../framework/Export.h"
#include <cstdint>
#include <string>
#include <vector>

#include "../../framework/I2DSliceIO.h"

namespace legacy {
class InWindow;
}

// SSL text files: a few header lines, then per layer a "Z" line and lines of points, each run
// of points closed by "C" (a contour) or "O" (an open line), and "END" at the end. Always
// written in inches. No append mode.
class SLICEIO_API M2DSliceIO_ssl : public I2DSliceIO
{
public:
    M2DSliceIO_ssl();
    ~M2DSliceIO_ssl() override;

    // "%f" of a float, six decimals correctly rounded as the C library prints them; at most
    // 64 characters are written to out, and their count is returned.
    static std::size_t FormatFixed6(float value, char* out);

protected:
    bool _OpenFile(const std::wstring& path, MOpenMode mode) override;
    bool _CloseFile() override;
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override;
    bool _WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                     const M2DSliceConstDataItems& items) override;
    bool _WriteFooter(const std::vector<const ISource2DSlices*>& sources) override;
    bool _ReadHeader(ITarget2DSlices* target) override;
    bool _ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool readVectors) override;
    bool _ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool readVectors) override;
    bool _ReadFooter(ITarget2DSlices* target) override;

    bool _FetchLayer(ILayerInput& input, bool flag);
    // Reads the next token that is not empty, delimited by any byte of delimiters, into out
    // (at most size - 1 bytes kept, the rest of a longer token skipped); false at the end of
    // the file.
    bool _ReadStringWithSkipDelimitersOnBegin(char* out, const char* delimiters, std::uint64_t size);

private:
    std::vector<char> _out; // records on their way to the file
    // X by hand (digits, then a fraction after '.' or ','), Y as a header value; both in
    // internal units.
    bool _ReadPoint(legacy::InWindow& in, int& x, int& y);

    std::vector<M2DSliceVector> _vectors; // vectors waiting to go to the input
    std::vector<int> _coords;             // the coordinates of a run of points
    std::string _token;                   // a token that crosses the read window's end
    std::size_t _chunk = 1 << 16;         // the read chunk that the file's buffer takes
};
