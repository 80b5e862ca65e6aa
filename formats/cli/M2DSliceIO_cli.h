#pragma once
#include "../../framework/Export.h"
#include <cstdint>
#include <string>
#include <vector>

#include "../../framework/I2DSliceIO.h"
#include "../../framework/I2DSliceIOFileSizeEstimate.h"

// Common Layer Interface: writes binary files in the long or short coordinate form, with
// append mode; reads binary and ASCII files.
class SLICEIO_API M2DSliceIO_cli : public I2DSliceIO, public I2DSliceIOFileSizeEstimate
{
public:
    enum CoordinatesType : std::int32_t
    {
        Short = 0,
        Long = 1,
    };

    // Commands that begin the records of the binary layer data. A polyline's dir is 0 for a
    // closed inner contour, 1 for a closed outer one and 2 for an open line.
    enum RecordCommand : std::uint16_t
    {
        LayerLong = 127,     // z: float
        LayerShort = 128,    // z: unsigned 16
        PolylineShort = 129, // id, dir, n, then n times x, y: unsigned 16 each
        PolylineLong = 130,  // id, dir, n: 32-bit; then n times x, y: float
        HatchesShort = 131,  // id, n, then n times x1, y1, x2, y2: unsigned 16 each
        HatchesLong = 132,   // id, n: 32-bit; then n times x1, y1, x2, y2: float
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
    // An ASCII file is read from its layer texts in memory: its position is the index of the
    // next layer text, so that a lazy reader can note layers and come back to them.
    std::int64_t _TellFilePos() override;
    bool _SeekFilePos(std::int64_t position) override;
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

    // First label number of the header; no setter here, derived classes may change it.
    int _modelStartIndex = 0;
    // Header with the three fixed labels; SetHatched cannot turn it on, derived classes can.
    bool _hatched = false;

private:
    bool _FetchLayer(ILayerInput& input, bool readVectors);
    bool _FetchBinaryLayer(ILayerInput& input, bool readVectors);
    bool _FetchAsciiLayer(ILayerInput& input);
    bool _ReadPolyline(ILayerInput& input, bool isLong, std::int64_t fileSize);
    bool _ReadHatches(ILayerInput& input, bool isLong, std::int32_t id, bool readVectors, std::int64_t fileSize);
    bool _ReadField(bool isLong, std::uint32_t& value);
    bool _FitsInFile(std::uint64_t bytes, std::int64_t fileSize) const;
    std::uint64_t _BytesLeft(std::int64_t fileSize) const;
    bool _ReadRawValues(std::size_t count, bool isLong, std::int64_t fileSize, const unsigned char*& raw,
                        std::size_t& got);
    bool _ReadCoordinates(std::size_t& count, bool isLong, std::size_t stride, std::int64_t fileSize);
    // Formats a short line through a 20-byte buffer, so that a longer one is cut, and writes it.
    bool _WriteShortLine(const char* format, ...) __attribute__((format(printf, 2, 3)));

    char _text[32] = {};
    int _contourStartX = M2DSLICE_UNSET;
    int _contourStartY = M2DSLICE_UNSET;
    int _lastEndX = M2DSLICE_UNSET;
    int _lastEndY = M2DSLICE_UNSET;
    CoordinatesType _coordinatesType = Long;
    bool _isAscii = false;
    std::vector<std::string> _layerTexts;
    std::uint64_t _layerTextIndex = 0;
    std::vector<char> _buffer; // records on their way to the file, raw values read from it
    std::vector<int> _coords;  // coordinates of the record being read, internal units
};
