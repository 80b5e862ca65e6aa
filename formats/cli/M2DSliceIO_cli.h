#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "../../framework/I2DSliceIO.h"
#include "../../framework/I2DSliceIOFileSizeEstimate.h"

// Common Layer Interface: writes binary files in the long or short coordinate form, with
// append mode; reads binary and ASCII files.
class M2DSliceIO_cli : public I2DSliceIO, public I2DSliceIOFileSizeEstimate
{
public:
    enum CoordinatesType : std::int32_t
    {
        Short = 0,
        Long = 1,
    };

    M2DSliceIO_cli();
    ~M2DSliceIO_cli() override;

    bool IsAppendModeSupported() const override { return true; }

    void SetCoordinatesType(CoordinatesType type) { _coordinatesType = type; }
    CoordinatesType GetCoordinatesType() const { return _coordinatesType; }
    // Always clears the flag, whatever the argument: the three fixed labels cannot be
    // turned on from outside.
    void SetHatched(bool /*hatched*/) { _hatched = false; }
    bool GetHatched() const { return _hatched; }
    bool IsAscii() const { return _isAscii; }

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

    int _modelStartIndex = 0;

private:
    bool _FetchLayer(ILayerInput& input, bool readVectors);
    bool _FetchBinaryLayer(ILayerInput& input, bool readVectors);
    bool _FetchAsciiLayer(ILayerInput& input);

    char _text[32] = {};
    int _contourStartX = M2DSLICE_UNSET;
    int _contourStartY = M2DSLICE_UNSET;
    int _lastEndX = M2DSLICE_UNSET;
    int _lastEndY = M2DSLICE_UNSET;
    bool _hatched = false;
    CoordinatesType _coordinatesType = Long;
    bool _isAscii = false;
    std::vector<std::string> _layerTexts;
    std::uint64_t _layerTextIndex = 0;
};
