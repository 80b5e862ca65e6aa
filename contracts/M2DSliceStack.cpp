#include "M2DSliceStack.h"

#include <filesystem>
#include <system_error>

#include "MFile.h"
#include "StringConversion.h"

// ---------------------------------------------------------------- stack

M2DSliceStack::~M2DSliceStack()
{
    // The initial source may still refer to this stack (as its scan target): it goes first,
    // while the properties and the slices are intact.
    _initial.reset();
}

void M2DSliceStack::InitFromSourceSlices(std::shared_ptr<ISource2DSlices> source)
{
    _slices.clear();
    _initial = std::move(source);
    if (!_initial)
        return;
    if (const MSliceFileParameters* p = _initial->GetSliceParameters())
        _sliceParameters = *p;
    if (const M2DSliceIOParameters* p = _initial->GetSliceIOParameters())
        _ioParameters = *p;
}

void M2DSliceStack::Clear()
{
    _initial.reset();
    _slices.clear();
}

M2DSlice* M2DSliceStack::AddSlice(M2DSlice& slice, bool take)
{
    auto stored = std::make_shared<M2DSlice>();
    stored->CopyFrom(slice, take);
    M2DSlice* raw = stored.get();
    _slices.push_back(std::move(stored));
    return raw;
}

std::int32_t M2DSliceStack::_OnGetSliceThickness() const
{
    if (_thickness != 0)
        return _thickness;
    if (_sliceParameters.LayerThickness != 0)
        return _sliceParameters.LayerThickness;
    return ISource2DSlices::_OnGetSliceThickness();
}

const MSliceFileParameters* M2DSliceStack::_OnGetSliceParameters() const { return &_sliceParameters; }

const M2DSliceIOParameters* M2DSliceStack::_OnGetSliceIOParameters() const { return &_ioParameters; }

std::uint64_t M2DSliceStack::_OnGetNumSlices() const
{
    return (_initial ? _initial->GetNumSlices() : 0) + _slices.size();
}

// Indices below the initial source's count go to it; the rest to the added slices.
M2DSliceXYArea M2DSliceStack::_OnGetXYArea(std::uint64_t i) const
{
    const std::uint64_t n0 = _initial ? _initial->GetNumSlices() : 0;
    if (i < n0)
        return _initial->GetXYArea(i);
    i -= n0;
    return i < _slices.size() ? _slices[i]->GetXYArea(true) : M2DSliceXYArea();
}

M2DSliceZArea M2DSliceStack::_OnGetSliceZArea(std::uint64_t i) const
{
    const std::uint64_t n0 = _initial ? _initial->GetNumSlices() : 0;
    if (i < n0)
        return M2DSliceZArea(_initial->GetSliceZPosition(i));
    i -= n0;
    return M2DSliceZArea(i < _slices.size() ? _slices[i]->GetZ() : M2DSLICE_UNSET);
}

std::shared_ptr<const M2DSlice> M2DSliceStack::_OnGetSlice(std::uint64_t i) const
{
    const std::uint64_t n0 = _initial ? _initial->GetNumSlices() : 0;
    if (i < n0)
        return _initial->GetSlice(i);
    i -= n0;
    if (i < _slices.size())
        return _slices[i];
    return std::make_shared<M2DSlice>();
}

void M2DSliceStack::_OnGetSlice(M2DSlice& slice, std::uint64_t i) const
{
    const std::uint64_t n0 = _initial ? _initial->GetNumSlices() : 0;
    if (i < n0)
    {
        _initial->GetSlice(slice, i);
        return;
    }
    i -= n0;
    if (i < _slices.size())
        slice = *_slices[i];
    else
    {
        slice.Clear();
        slice.SetZ(M2DSLICE_UNSET);
    }
}

// ---------------------------------------------------------------- temporary file

M2DSliceTempFile::M2DSliceTempFile(MFile* file, const std::wstring& path) : _file(file), _path(path) {}

M2DSliceTempFile::~M2DSliceTempFile()
{
    if (!_removeAtEnd || _path.empty())
        return;
    // The file cannot go while our own handle keeps it open.
    if (_file && _file->IS_OPEN() && _file->GET_PATH() == _path)
        _file->CLOSE();
    std::error_code ignored;
    std::filesystem::remove(std::filesystem::path(StringConversion::NativeToUtf8(_path)), ignored);
}

bool M2DSliceTempFile::InitForReading(std::int64_t offset)
{
    if (!_file)
        return false;
    if (!_file->IS_OPEN() && !_file->OPEN_READ(_path.c_str()))
        return false;
    return offset == 0 || _file->SEEK(offset, 0);
}
