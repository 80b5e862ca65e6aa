#pragma once
#include "Export.h"
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "I2DSliceIO.h"

class M2DSliceStack;
class M2DSliceTempFile;

// A slice file as a source of slices without loading it: one scan pass notes where each
// layer starts and what it measures; then each slice is read on demand by seeking there.
class SLICEIO_API M2DSliceContainerIterator : public ISource2DSlices
{
public:
    struct LayerEntry
    {
        std::int64_t Position = 0;
        M2DSliceContainerScanInfo Info;
    };

    M2DSliceContainerIterator(const std::wstring& path, unsigned short code, bool readVectors,
                              std::uint64_t bufferSize, bool scan);
    M2DSliceContainerIterator(const std::wstring& path, std::shared_ptr<I2DSliceIO> io, bool readVectors,
                              std::uint64_t bufferSize, bool scan);
    M2DSliceContainerIterator(const M2DSliceContainerIterator& other);
    M2DSliceContainerIterator& operator=(const M2DSliceContainerIterator&) = delete;
    ~M2DSliceContainerIterator() override;

    void SetFileBufferSize(std::uint64_t size);
    std::shared_ptr<I2DSliceIO> GetSliceIO() { return _io; }
    std::shared_ptr<const I2DSliceIO> GetSliceIO() const { return _io; }
    bool IsValid() const { return _valid; }
    double GetTotalContourLength() const { return _totals.ContourLength; }
    double GetTotalSurfaceArea() const { return _totals.SurfaceArea; }
    const M2DSliceContainerScanInfo& GetTotals() const { return _totals; }
    const std::vector<LayerEntry>& GetLayerTable() const { return _layers; }

    // Scans the file into the layer table; the result is also what IsValid() reports.
    bool _ScanFile();

protected:
    std::int32_t _OnGetSliceThickness() const override { return -1; }
    const MSliceFileParameters* _OnGetSliceParameters() const override { return &_sliceParameters; }
    const M2DSliceIOParameters* _OnGetSliceIOParameters() const override { return &_ioParameters; }
    M2DSliceXYArea _OnGetXYArea(std::uint64_t i) const override;
    M2DSliceXYArea _OnGetXYArea() const override { return _totals.Area; }
    std::uint64_t _OnGetNumSlices() const override { return _layers.size(); }
    M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const override;
    void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const override;
    using ISource2DSlices::_OnGetSlice;

    virtual bool _ScanLayer(M2DSliceContainerScanInfo& info) const;
    virtual bool _ReadLayer(M2DSlice& slice) const;
    virtual ITarget2DSlices* _GetScanTarget() const { return nullptr; }
    // The format's file, or null without a format.
    MFile* _GetFile() const;

    std::wstring _path;
    bool _readVectors;
    std::shared_ptr<I2DSliceIO> _io;
    MSliceFileParameters _sliceParameters;
    M2DSliceIOParameters _ioParameters;
    std::vector<LayerEntry> _layers;
    M2DSliceContainerScanInfo _totals;
    bool _valid = false;
    mutable std::uint64_t _lastIndex = 0;
    mutable std::int64_t _readAheadMark = INT64_MAX;
    std::uint64_t _bufferSize;
};

namespace ZanSDK {
namespace AM {
namespace SliceIO {
SLICEIO_API bool InitSliceStackFromSliceFile(unsigned short code, const std::wstring& path, M2DSliceStack& stack,
                                 bool removeAtEnd);
SLICEIO_API bool InitSliceStackFromSliceFile(std::shared_ptr<I2DSliceIO> io, const std::wstring& path, M2DSliceStack& stack,
                                 bool removeAtEnd);
} // namespace SliceIO
} // namespace AM
} // namespace ZanSDK

// The iterator as the initial source of a stack, with the file as a temporary copy.
class SLICEIO_API M2DSliceStackInitialSource : public M2DSliceContainerIterator
{
public:
    M2DSliceStackInitialSource(const std::wstring& path, std::shared_ptr<I2DSliceIO> io, M2DSliceStack* stack);
    ~M2DSliceStackInitialSource() override;
    void SetTempFile(M2DSliceTempFile* file); // takes ownership

protected:
    void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const override;
    bool _ScanLayer(M2DSliceContainerScanInfo& info) const override;
    bool _ReadLayer(M2DSlice& slice) const override;
    ITarget2DSlices* _GetScanTarget() const override;

private:
    friend bool ZanSDK::AM::SliceIO::InitSliceStackFromSliceFile(std::shared_ptr<I2DSliceIO>, const std::wstring&,
                                                                 M2DSliceStack&, bool);
    M2DSliceStack* _stack;
    M2DSliceTempFile* _tempFile = nullptr;
};
