#pragma once
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "../../framework/Export.h"
#include "../../framework/I2DSliceIO.h"

// JM pattern files of electron-beam machines: a 16384-byte header and records of exactly
// 16384 bytes, each a stream of little-endian 32-bit words. Vector blocks become patterns:
// closed chains of kinds 1 to 4 polygon lines, closed chains of kinds 9 to 11 solid polygons
// with their holes (blocks flagged 5), everything else free or axis-parallel lines.
// Coordinates and heights are micrometres, the internal value divided by 10 toward zero.
//
// Written only: reading goes as far as free lines before the first block, whose start throws
// std::logic_error("The method or operation is not implemented.").
class SLICEIO_API M2DSliceIO_jm : public I2DSliceIO
{
public:
    struct ManufacturingData
    {
        std::string Name;
        std::uint32_t Values[10] = {};
    };

    // Pattern counters written at the end of the header: 0 free lines, 1 lines parallel to
    // X, 2 parallel to Y, 3 polygon lines, 4 and 5 unused, 6 solid polygons, 7 solid polygons
    // with holes, 8 holes, 9 inner polygon lines.
    struct NumberOfJmPatterns
    {
        std::int64_t Counters[10] = {};
    };

    enum eSinteringMode : std::int32_t
    {
        eSinteringMode_0 = 0,
        eSinteringMode_1 = 1,
        eSinteringMode_2 = 2,
    };

    // Words of the pattern stream.
    enum Code : std::int32_t
    {
        StartOfBlock = -16,
        ParameterReference = -251,
        EndOfBlock = -12,
        EndOfRecord = -14,
        EndOfData = -11,
        FreeLine = -242,
        LineParallelToX = -244,
        LineParallelToY = -243,
        PolygonLine = -248,
        InnerPolygonLine = -241,
        SolidPolygon = -247,
        SolidPolygonWithHoles = -246,
        Hole = -245,
    };

    static constexpr std::int64_t kRecordSize = 16384;

    M2DSliceIO_jm() = default;

    void SetThickness(std::int32_t micrometres) { _thickness = static_cast<std::uint32_t>(micrometres); }
    void SetPartNames(const std::vector<std::wstring>& names) { _partNames = names; }
    void SetManufacturingData(const std::vector<ManufacturingData>& data) { _manufacturingData = data; }
    const NumberOfJmPatterns& GetNumberOfPatterns() const { return _patterns; }

    // Internal units of 1/10000 mm to micrometres, toward zero, and back.
    static std::int32_t StlUnitsToMicrometers(std::int32_t value) { return value / 10; }
    static std::int32_t MicrometersToStlUnits(std::uint32_t value) { return static_cast<std::int32_t>(value * 10u); }

    // A machine's data word and sintering mode to a vector kind: mode 0 maps 0, 3, 4 to 6, 8,
    // 7; mode 2 maps them to 1, 3, 2; everything else is 0.
    static e2DSliceVectorType _ConvertJMDataToVectorType(unsigned data, eSinteringMode mode);

protected:
    bool _OpenFile(const std::wstring& path, MOpenMode mode) override;
    bool _CloseFile() override { return true; }
    bool _WriteHeader(const std::vector<const ISource2DSlices*>& sources) override;
    bool _WriteLayer(const std::vector<const ISource2DSlices*>& sources, std::int32_t z,
                     const M2DSliceConstDataItems& items) override;
    bool _WriteFooter(const std::vector<const ISource2DSlices*>& sources) override;
    bool _ReadHeader(ITarget2DSlices* /*target*/) override { return true; }
    bool _ReadLayer(M2DSlice& slice, ITarget2DSlices* target, bool readVectors) override;
    bool _ScanLayer(M2DSliceContainerScanInfo& info, ITarget2DSlices* target, bool readVectors) override;
    bool _ReadFooter(ITarget2DSlices* /*target*/) override { return true; }

private:
    // Output buffer: the bytes from file offset _outStart on, not yet written.
    static constexpr std::size_t kFlushSize = 1 << 20;
    std::int64_t _Tell() const { return _outStart + static_cast<std::int64_t>(_outUsed); }
    // Room for n more bytes at the end of the buffer; _Put* then counts them in.
    unsigned char* _Room(std::size_t n)
    {
        if (n > _out.size() - _outUsed)
            _Grow(n);
        return _out.data() + _outUsed;
    }
    void _Grow(std::size_t n);
    void _Put(const void* bytes, std::size_t n);
    template <class T>
    void _PutLE(T value);
    void _PutWords(std::initializer_list<std::uint32_t> words);
    template <class T>
    void _PatchLE(std::int64_t offset, T value);
    void _Flush();

    // Words.
    void _WriteDataA(const std::string& text);
    void _WriteText(const std::string& text, std::size_t size); // cut or padded with zeros
    void _WriteDataB2(unsigned short value);
    void _WriteDataB2S(short value);
    void _WriteDataB4(std::uint32_t value);
    void _WriteDataB4S(std::int32_t value);
    void _WriteDataB8(std::int64_t value);
    void _WriteDataB8S(std::uint64_t value);
    void _WriteDataBTP(const bool* bits, std::uint64_t count);
    void _PadTo(std::int64_t offset);
    std::uint32_t _ReadB4(bool& ok);
    std::string _ReadStr(int length);

    // Structure.
    void _StartRecord();
    void _EndRecord();
    // A new record unless the words and the record's end code fit in this one.
    void _RestartRecordIfNeed(std::int64_t words)
    {
        if (_Tell() > _recordStart + (4095 - words) * 4)
            _RestartRecord();
    }
    void _RestartRecord();
    void _BeginBlock(std::int32_t z, const M2DSliceVectorBlock& block);
    void _EndBlock();
    void _CloseAMData();

    // Patterns.
    bool _WriteLines(const M2DSliceVectorBlock& block, std::int32_t z);
    bool _WritePolygonLine(const M2DSliceVectorBlock& block, std::int32_t z);
    bool _WritePolygonSolid(const M2DSliceVectorLayer& layer, std::size_t index, std::int32_t z);
    void _WritePolygon(const M2DSliceVectorBlock& block);
    void _WriteFreeDirectionLine(const M2DSliceVector& vector);
    void _WriteLineParallelToXAxis(const M2DSliceVector& vector);
    void _WriteLineParallelToYAxis(const M2DSliceVector& vector);

    std::vector<std::wstring> _partNames;
    std::vector<ManufacturingData> _manufacturingData;
    std::vector<unsigned char> _out;
    std::size_t _outUsed = 0;
    std::int64_t _outStart = 0;
    std::uint32_t _recordBlocks = 0;
    std::uint32_t _totalBlocks = 0;
    std::uint32_t _recordCount = 0;
    bool _inBlock = false;
    std::int64_t _recordStart = 0;
    std::int64_t _blockLengthPosition = 0;
    std::int64_t _countersPosition = 0;   // header offset 328
    std::int64_t _statisticsPosition = 0; // header offset 400
    NumberOfJmPatterns _patterns;
    std::uint32_t _thickness = 0;
    std::uint32_t _layerCount = 0;
    bool _layerRead = false;
};
