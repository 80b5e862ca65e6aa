#pragma once
#include "../../framework/Export.h"
#include <cstdint>
#include <string>
#include <vector>

#include "../../framework/I2DSliceIO.h"
#include "../../framework/I2DSliceIOFileSizeEstimate.h"

// SLC contour files, version 2.0: a text header, a sampling table and per layer a list of
// float polylines. The header goes out with blank extents; closing opens the file again and
// writes the extents and the sampling entry over them. Append mode is supported.
class SLICEIO_API M2DSliceIO_slc : public I2DSliceIO, public I2DSliceIOFileSizeEstimate
{
public:
    enum ESLCType : std::int32_t
    {
        Part = 0,
        Support = 1,
        Web = 2,
    };

    M2DSliceIO_slc();
    ~M2DSliceIO_slc() override;

    bool IsAppendModeSupported() const override { return true; }
    void SetSLCType(ESLCType type) { _type = type; }
    ESLCType GetSLCType() const { return _type; }

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
    void _EstimateFileSizes(const ISource2DSlices& source, EstimatedRange& header,
                            std::vector<EstimatedRange>& layers) override;

    bool _FetchLayer(ILayerInput& input);
    // True when the first length bytes (at most 2048) are all below 128.
    bool _CheckHeaderIsASCII(std::uint64_t length);
    void _EstimateFileSizesIndividualSlices(const ISource2DSlices& source, EstimatedRange& total,
                                            std::vector<EstimatedRange>& layers);

private:
    std::vector<char> _out; // records on their way to the file
    // The six extents behind "-EXTENTS ", each 16 characters wide, in the pattern
    // "a, b c, d e, f ".
    bool _WriteExtents(const double values[6]);

    ESLCType _type = Web;
    char _text[38] = {};
    std::vector<int> _coords; // a boundary's coordinates, internal units
    std::vector<unsigned char> _raw;      // vectors waiting to go to the input, as the file has them
    std::vector<unsigned char> _storage;  // a boundary larger than a read chunk
    std::size_t _chunk = 1 << 16;         // the read chunk that the file's buffer takes
};
