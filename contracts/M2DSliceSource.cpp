#include "M2DSliceSource.h"

#include <algorithm>
#include <tuple>

// ---------------------------------------------------------------- items

void M2DSliceConstDataItems::AddSlice(const std::shared_ptr<const M2DSlice>& slice, bool bordersFirst)
{
    if (!slice)
        return;
    Slices.push_back(slice);
    const M2DSliceContourLayer& border = *slice->GetSliceBorder();
    const M2DSliceVectorLayer& vectors = *slice->GetVectors();
    const M2DSlicePointLayer& points = *slice->GetPoints();
    Items.reserve(Items.size() + border.GetNumContours() + vectors.GetNumVectorBlocks() +
                  points.GetNumPointBlocks());
    auto addContours = [&] {
        for (const M2DSliceContour& c : border)
            Items.emplace_back(&c);
    };
    auto addVectors = [&] {
        for (const M2DSliceVectorBlock* b = vectors.GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
            Items.emplace_back(b);
    };
    if (bordersFirst)
    {
        addContours();
        addVectors();
    }
    else
    {
        addVectors();
        addContours();
    }
    for (const M2DSlicePointBlock* b = points.GetFirstPointBlock(); b; b = b->GetNextPointBlock())
        Items.emplace_back(b);
}

// ---------------------------------------------------------------- source defaults

namespace {

bool BordersFirst(const ISource2DSlices& source)
{
    const M2DSliceIOParameters* p = source.GetSliceIOParameters();
    return !p || p->BordersFirst;
}

std::shared_ptr<const M2DSlice> EmptySlice(std::int32_t z)
{
    auto slice = std::make_shared<M2DSlice>();
    slice->SetZ(z);
    return slice;
}

} // namespace

std::uint64_t ISource2DSlices::GetSize() const
{
    std::uint64_t bytes = 0;
    const std::uint64_t n = GetNumSlices();
    for (std::uint64_t i = 0; i < n; ++i)
        if (auto slice = GetSlice(i))
            bytes += slice->GetMemorySize();
    return bytes;
}

std::int32_t ISource2DSlices::_OnGetSliceThickness() const
{
    if (GetNumSlices() < 2)
        return 0;
    // In 64 bits: an unset height (the smallest value) must not overflow the subtraction.
    return static_cast<std::int32_t>(static_cast<std::int64_t>(GetSliceZPosition(1)) - GetSliceZPosition(0));
}

const MSliceFileParameters* ISource2DSlices::_OnGetSliceParameters() const
{
    static const MSliceFileParameters defaults;
    return &defaults;
}

const M2DSliceIOParameters* ISource2DSlices::_OnGetSliceIOParameters() const
{
    static const M2DSliceIOParameters defaults;
    return &defaults;
}

M2DSliceXYArea ISource2DSlices::_OnGetXYArea(std::uint64_t i) const
{
    auto slice = GetSlice(i);
    return slice ? slice->GetXYArea(true) : M2DSliceXYArea();
}

M2DSliceXYArea ISource2DSlices::_OnGetXYArea() const
{
    M2DSliceXYArea area;
    const std::uint64_t n = GetNumSlices();
    for (std::uint64_t i = 0; i < n; ++i)
        area.Extend(GetXYArea(i));
    return area;
}

M2DSliceZArea ISource2DSlices::_OnGetSliceZArea(std::uint64_t i) const
{
    auto slice = GetSlice(i);
    return M2DSliceZArea(slice ? slice->GetZ() : M2DSLICE_UNSET);
}

std::shared_ptr<const M2DSlice> ISource2DSlices::_OnGetSlice(std::uint64_t i) const
{
    auto slice = std::make_shared<M2DSlice>();
    _OnGetSlice(*slice, i);
    return slice;
}

void ISource2DSlices::_OnGetSlice(M2DSlice& slice, std::uint64_t i) const
{
    auto source = _OnGetSlice(i);
    if (source)
        slice = *source;
    else
    {
        slice.Clear();
        slice.SetZ(M2DSLICE_UNSET);
    }
}

void ISource2DSlices::_OnGetSlices(std::vector<std::shared_ptr<const M2DSlice>>& slices, std::uint64_t i) const
{
    slices.push_back(GetSlice(i));
}

void ISource2DSlices::_OnGetSliceItems(M2DSliceConstDataItems& items, std::uint64_t i) const
{
    items.Clear();
    std::vector<std::shared_ptr<const M2DSlice>> slices;
    GetSlices(slices, i);
    const bool bordersFirst = BordersFirst(*this);
    for (const auto& slice : slices)
        items.AddSlice(slice, bordersFirst);
}

// ---------------------------------------------------------------- source vector

void M2DSliceSourceVector::SetVector(const std::vector<const ISource2DSlices*>& sources)
{
    _sources.clear();
    _layers.clear();
    for (const ISource2DSlices* s : sources)
        if (s)
            _sources.push_back(s);
    const std::size_t numSources = _sources.size();

    if (!_options.JoinByHeight)
    {
        std::vector<std::uint64_t> counts(numSources);
        std::uint64_t numLayers = 0;
        for (std::size_t s = 0; s < numSources; ++s)
        {
            counts[s] = _sources[s]->GetNumSlices();
            numLayers = std::max(numLayers, counts[s]);
        }
        _layers.resize(numLayers);
        for (std::uint64_t i = 0; i < numLayers; ++i)
        {
            Layer& layer = _layers[i];
            layer.Z = M2DSLICE_UNSET;
            layer.Index.assign(numSources, kNone);
            for (std::size_t s = 0; s < numSources; ++s)
                if (i < counts[s])
                {
                    if (layer.Z == M2DSLICE_UNSET)
                        layer.Z = _sources[s]->GetSliceZPosition(i);
                    layer.Index[s] = i;
                }
        }
        return;
    }

    // Join by height. A source that holds one height several times gives its k-th slice of
    // that height to the k-th layer of that height, so no slice is dropped.
    struct Entry
    {
        std::int32_t Z;
        std::uint64_t Occurrence;
        std::size_t Source;
        std::uint64_t Index;
    };
    std::vector<Entry> entries;
    for (std::size_t s = 0; s < numSources; ++s)
    {
        const std::uint64_t n = _sources[s]->GetNumSlices();
        const std::size_t first = entries.size();
        for (std::uint64_t i = 0; i < n; ++i)
            entries.push_back({_sources[s]->GetSliceZPosition(i), 0, s, i});
        auto begin = entries.begin() + static_cast<std::ptrdiff_t>(first);
        std::stable_sort(begin, entries.end(), [](const Entry& a, const Entry& b) { return a.Z < b.Z; });
        for (auto it = begin; it != entries.end(); ++it)
            if (it != begin && std::prev(it)->Z == it->Z)
                it->Occurrence = std::prev(it)->Occurrence + 1;
    }
    std::sort(entries.begin(), entries.end(), [](const Entry& a, const Entry& b) {
        return std::tie(a.Z, a.Occurrence, a.Source) < std::tie(b.Z, b.Occurrence, b.Source);
    });
    for (std::size_t k = 0; k < entries.size(); ++k)
    {
        const Entry& e = entries[k];
        if (k == 0 || e.Z != entries[k - 1].Z || e.Occurrence != entries[k - 1].Occurrence)
            _layers.push_back({e.Z, std::vector<std::uint64_t>(numSources, kNone)});
        _layers.back().Index[e.Source] = e.Index;
    }
}

std::shared_ptr<const M2DSlice> M2DSliceSourceVector::_SliceOf(std::size_t source, std::uint64_t layer) const
{
    if (layer >= _layers.size())
        return EmptySlice(M2DSLICE_UNSET);
    const std::uint64_t index = _layers[layer].Index[source];
    if (index != kNone)
        if (auto slice = _sources[source]->GetSlice(index))
            return slice;
    return EmptySlice(_layers[layer].Z);
}

std::int32_t M2DSliceSourceVector::_OnGetSliceThickness() const
{
    return _sources.empty() ? 0 : _sources.front()->GetSliceThickness();
}

const MSliceFileParameters* M2DSliceSourceVector::_OnGetSliceParameters() const
{
    const MSliceFileParameters* p = _sources.empty() ? nullptr : _sources.front()->GetSliceParameters();
    return p ? p : ISource2DSlices::_OnGetSliceParameters();
}

const M2DSliceIOParameters* M2DSliceSourceVector::_OnGetSliceIOParameters() const
{
    const M2DSliceIOParameters* p = _sources.empty() ? nullptr : _sources.front()->GetSliceIOParameters();
    return p ? p : ISource2DSlices::_OnGetSliceIOParameters();
}

const PersistentProperties* M2DSliceSourceVector::_OnGetProperties() const
{
    return _sources.empty() ? nullptr : _sources.front()->GetProperties();
}

M2DSliceXYArea M2DSliceSourceVector::_OnGetXYArea(std::uint64_t i) const
{
    M2DSliceXYArea area;
    if (i >= _layers.size())
        return area;
    for (std::size_t s = 0; s < _sources.size(); ++s)
        if (_layers[i].Index[s] != kNone)
            area.Extend(_sources[s]->GetXYArea(_layers[i].Index[s]));
    return area;
}

M2DSliceXYArea M2DSliceSourceVector::_OnGetXYArea() const
{
    M2DSliceXYArea area;
    for (const ISource2DSlices* s : _sources)
        area.Extend(s->GetXYArea());
    return area;
}

M2DSliceZArea M2DSliceSourceVector::_OnGetSliceZArea(std::uint64_t i) const
{
    return M2DSliceZArea(i < _layers.size() ? _layers[i].Z : M2DSLICE_UNSET);
}

std::shared_ptr<const M2DSlice> M2DSliceSourceVector::_OnGetSlice(std::uint64_t i) const
{
    // A single source hands out its own slice; several are merged into a new one.
    if (_sources.size() == 1)
        return _SliceOf(0, i);
    auto slice = std::make_shared<M2DSlice>();
    _OnGetSlice(*slice, i);
    return slice;
}

void M2DSliceSourceVector::_OnGetSlice(M2DSlice& slice, std::uint64_t i) const
{
    slice.Clear();
    if (i >= _layers.size())
    {
        slice.SetZ(M2DSLICE_UNSET);
        return;
    }
    const Layer& layer = _layers[i];
    slice.SetZ(layer.Z);
    if (_sources.size() == 1)
    {
        if (layer.Index[0] != kNone)
            _sources[0]->GetSlice(slice, layer.Index[0]);
        return;
    }
    for (std::size_t s = 0; s < _sources.size(); ++s)
        if (layer.Index[s] != kNone)
            if (auto part = _sources[s]->GetSlice(layer.Index[s]))
                slice.AppendFrom(*part);
}

void M2DSliceSourceVector::_OnGetSlices(std::vector<std::shared_ptr<const M2DSlice>>& slices,
                                        std::uint64_t i) const
{
    for (std::size_t s = 0; s < _sources.size(); ++s)
        slices.push_back(_SliceOf(s, i));
}

void M2DSliceSourceVector::_OnGetSliceItems(M2DSliceConstDataItems& items, std::uint64_t i) const
{
    items.Clear();
    for (std::size_t s = 0; s < _sources.size(); ++s)
        items.AddSlice(_SliceOf(s, i), BordersFirst(*_sources[s]));
}
