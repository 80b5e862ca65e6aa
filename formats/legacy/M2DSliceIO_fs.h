#pragma once
#include "../../framework/Export.h"
#include <cstdint>
#include <string>
#include <vector>

#include "../../framework/I2DSliceIO.h"

// F&S files: each layer a unit of its own, a head of 128 bytes with the segment table, the
// segments, and an end mark; the file is those units one after the other. No append mode.
class SLICEIO_API M2DSliceIO_fs : public I2DSliceIO
{
public:
    enum EPartType : std::int32_t
    {
        PartTypeDefault = 0,
        PartTypePolylines = 1, // every contour goes out as a segment of type 2
    };

    M2DSliceIO_fs();
    ~M2DSliceIO_fs() override;

    void SetPartType(EPartType type) { _partType = type; }
    EPartType GetPartType() const { return _partType; }

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

private:
    std::vector<char> _out; // records on their way to the file
    EPartType _partType = PartTypeDefault;
    std::vector<int> _coords;
    std::vector<M2DSliceVector> _vectors;  // converted vectors waiting to go to the input
    std::vector<unsigned char> _raw;       // float vectors waiting, as the file has them
    std::vector<unsigned char> _storage;   // a segment larger than a read chunk
    std::size_t _chunk = 1 << 16;          // the read chunk that the file's buffer takes
};
