#pragma once
#include "../framework/Export.h"
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "M2DSliceSource.h"
#include "PersistentProperties.h"

class MFile;

// A concrete stack of slices: a target to load into and a source to write from.
// It may also be initialised from another source, whose slices it then hands out on
// demand without copying them (the source is owned by the stack from then on).
class SLICEIO_API M2DSliceStack : public ITarget2DSlices, public ISource2DSlices
{
public:
    M2DSliceStack() = default;
    ~M2DSliceStack() override;

    // Replaces the slices by those of the source, fetched lazily; slices added later come
    // after them. The source's slice and IO parameters are copied; the properties stay, since
    // a source that scans a file may already have filled them.
    void InitFromSourceSlices(std::shared_ptr<ISource2DSlices> source);
    // Drops all slices and the initial source; properties and parameters stay.
    void Clear();

    // ITarget2DSlices. Appends the slice after all others; take moves its geometry out.
    M2DSlice* AddSlice(M2DSlice& slice, bool take) override;
    PersistentProperties* GetProperties() override { return &_properties; }
    const PersistentProperties* GetProperties() const { return &_properties; }

    // Thickness reported as a source; 0 means the slice parameters' layer thickness, or
    // when that is 0 too, the distance of the first two heights.
    void SetSliceThickness(std::int32_t thickness) { _thickness = thickness; }
    M2DSliceIOParameters& GetIOParametersUpdate() { return _ioParameters; }
    MSliceFileParameters& GetSliceParametersUpdate() { return _sliceParameters; }
    const std::shared_ptr<ISource2DSlices>& GetInitialSource() const { return _initial; }

protected:
    std::int32_t _OnGetSliceThickness() const override;
    const MSliceFileParameters* _OnGetSliceParameters() const override;
    const M2DSliceIOParameters* _OnGetSliceIOParameters() const override;
    M2DSliceXYArea _OnGetXYArea(std::uint64_t i) const override;
    std::uint64_t _OnGetNumSlices() const override;
    M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const override;
    std::shared_ptr<const M2DSlice> _OnGetSlice(std::uint64_t i) const override;
    void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const override;
    const PersistentProperties* _OnGetProperties() const override { return &_properties; }

private:
    std::shared_ptr<ISource2DSlices> _initial;
    std::vector<std::shared_ptr<const M2DSlice>> _slices; // added after the initial ones
    PersistentProperties _properties;
    M2DSliceIOParameters _ioParameters;
    MSliceFileParameters _sliceParameters;
    std::int32_t _thickness = 0;
};

// A slice file used as the backing store of a lazily filled stack. It reopens the file for
// reading when needed and can remove it when it goes.
class SLICEIO_API M2DSliceTempFile
{
public:
    M2DSliceTempFile(MFile* file, const std::wstring& path);
    ~M2DSliceTempFile();
    M2DSliceTempFile(const M2DSliceTempFile&) = delete;
    M2DSliceTempFile& operator=(const M2DSliceTempFile&) = delete;

    // Makes sure the file is open for reading; a non-zero offset is sought to.
    bool InitForReading(std::int64_t offset);
    void SetRemoveAtEnd(bool remove) { _removeAtEnd = remove; }
    const std::wstring& GetPath() const { return _path; }

private:
    MFile* _file;
    std::wstring _path;
    bool _removeAtEnd = false;
};
