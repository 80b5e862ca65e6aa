#pragma once
// A source seen through for the writers of the legacy formats: its parts joined into one
// slice per layer (SSL and F&S write only the first slice of a layer), and I/O parameters of
// its own (SLI takes its hatch distances from them). Everything else is the sources'.
#include <memory>
#include <vector>

#include "../../contracts/M2DSliceSource.h"

namespace legacy {

class JoinedSource : public ISource2DSlices
{
public:
    JoinedSource(const std::vector<const ISource2DSlices*>& sources, const M2DSliceIOParameters& parameters)
        : _parameters(parameters)
    {
        _joined.GetOptions().JoinByHeight = true;
        _joined.SetVector(sources);
    }

protected:
    std::int32_t _OnGetSliceThickness() const override { return _joined.GetSliceThickness(); }
    const MSliceFileParameters* _OnGetSliceParameters() const override { return _joined.GetSliceParameters(); }
    const M2DSliceIOParameters* _OnGetSliceIOParameters() const override { return &_parameters; }
    M2DSliceXYArea _OnGetXYArea(std::uint64_t i) const override { return _joined.GetXYArea(i); }
    M2DSliceXYArea _OnGetXYArea() const override { return _joined.GetXYArea(); }
    std::uint64_t _OnGetNumSlices() const override { return _joined.GetNumSlices(); }
    M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const override
    {
        return M2DSliceZArea(_joined.GetSliceZPosition(i));
    }
    std::shared_ptr<const M2DSlice> _OnGetSlice(std::uint64_t i) const override { return _joined.GetSlice(i); }
    void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const override { _joined.GetSlice(slice, i); }
    const PersistentProperties* _OnGetProperties() const override { return _joined.GetProperties(); }

private:
    M2DSliceSourceVector _joined;
    M2DSliceIOParameters _parameters;
};

} // namespace legacy
