#pragma once
#include "../framework/Export.h"
#include <cstdint>
#include <memory>
#include <vector>

#include "M2DSlice.h"

class PersistentProperties;

// Hatch spacing and output order of a source, as a writer reads them.
struct M2DSliceIOParameters
{
    bool BordersFirst = true; // contours before vectors when true
    std::int32_t HatchDistanceX = 0;
    std::int32_t HatchDistanceY = 0;
};

// File-wide parameters of a source.
class SLICEIO_API MSliceFileParameters
{
public:
    MSliceFileParameters() = default;
    MSliceFileParameters(const MSliceFileParameters&) = default;
    MSliceFileParameters& operator=(const MSliceFileParameters&) = default;
    virtual ~MSliceFileParameters() = default;

    std::int32_t LayerThickness = 0; // internal units
    unsigned short Resolution = 1;   // the file's inverse resolution
    std::int32_t HatchDistanceX = 0;
    std::int32_t HatchDistanceY = 0;
};

// One contour, vector block or point block of a layer, in build order.
class SLICEIO_API M2DSliceConstDataItem
{
public:
    M2DSliceConstDataItem() = default;
    explicit M2DSliceConstDataItem(const M2DSliceContour* c) : _contour(c) {}
    explicit M2DSliceConstDataItem(const M2DSliceVectorBlock* b) : _vectors(b) {}
    explicit M2DSliceConstDataItem(const M2DSlicePointBlock* b) : _points(b) {}
    const M2DSliceContour* GetContour() const { return _contour; }
    const M2DSliceVectorBlock* GetVectorBlock() const { return _vectors; }
    const M2DSlicePointBlock* GetPointBlock() const { return _points; }

private:
    const M2DSliceContour* _contour = nullptr;
    const M2DSliceVectorBlock* _vectors = nullptr;
    const M2DSlicePointBlock* _points = nullptr;
};

// What a source hands out for one layer: the items, and the slices they belong to, one
// slice for each joined source (also when the layer holds nothing).
class SLICEIO_API M2DSliceConstDataItems
{
public:
    M2DSliceConstDataItems() = default;
    ~M2DSliceConstDataItems() = default;
    void Clear()
    {
        Items.clear();
        Slices.clear();
    }
    // Appends the slice and its items: contours, then vector blocks, then point blocks
    // (vector blocks before contours when bordersFirst is false). A null slice is ignored.
    void AddSlice(const std::shared_ptr<const M2DSlice>& slice, bool bordersFirst = true);

    std::vector<M2DSliceConstDataItem> Items;
    std::vector<std::shared_ptr<const M2DSlice>> Slices;
};

// The read side: anything that can hand out layers. The public operations call the
// protected virtual ones, which subclasses override.
class SLICEIO_API ISource2DSlices
{
public:
    virtual ~ISource2DSlices() = default;

    std::uint64_t GetNumSlices() const { return _OnGetNumSlices(); }
    // Bytes of geometry held by all slices. Walks every slice, so it costs a full read on
    // a source that loads lazily.
    std::uint64_t GetSize() const;
    int GetSliceZPosition(std::uint64_t i) const { return _OnGetSliceZArea(i).Z; }
    std::int32_t GetSliceThickness() const { return _OnGetSliceThickness(); }
    M2DSliceXYArea GetXYArea() const { return _OnGetXYArea(); }
    M2DSliceXYArea GetXYArea(std::uint64_t i) const { return _OnGetXYArea(i); }
    const PersistentProperties* GetProperties() const { return _OnGetProperties(); }
    const MSliceFileParameters* GetSliceParameters() const { return _OnGetSliceParameters(); }
    const M2DSliceIOParameters* GetSliceIOParameters() const { return _OnGetSliceIOParameters(); }
    std::shared_ptr<const M2DSlice> GetSlice(std::uint64_t i) const { return _OnGetSlice(i); }
    void GetSlice(M2DSlice& slice, std::uint64_t i) const { _OnGetSlice(slice, i); }
    void GetSlices(std::vector<std::shared_ptr<const M2DSlice>>& slices, std::uint64_t i) const
    {
        _OnGetSlices(slices, i);
    }
    void GetSliceItems(M2DSliceConstDataItems& items, std::uint64_t i) const { _OnGetSliceItems(items, i); }
    void StartGettingSlices() const { _OnStartGettingSlices(); }
    void StopGettingSlices() const { _OnStopGettingSlices(); }

protected:
    virtual std::int32_t _OnGetSliceThickness() const;                  // 1: distance of the first two heights
    virtual const void* _OnGetExtension() const { return nullptr; }     // 2: not used by this library
    virtual const MSliceFileParameters* _OnGetSliceParameters() const;  // 3
    virtual const M2DSliceIOParameters* _OnGetSliceIOParameters() const; // 4
    virtual M2DSliceXYArea _OnGetXYArea(std::uint64_t i) const;         // 5
    virtual M2DSliceXYArea _OnGetXYArea() const;                        // 6: union of all layers
    virtual bool _OnCanGetSlices() const { return true; }               // 7
    virtual bool _OnKeepsSlices() const { return true; }                // 8
    virtual void _OnStartGettingSlices() const {}                       // 9
    virtual std::uint64_t _OnGetNumSlices() const = 0;                  // 10
    virtual M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const;      // 11
    // The two forms of getting a slice default to each other: a subclass overrides at least
    // one of them (a source that keeps its slices the shared form, one that reads them on
    // demand the filling form).
    virtual std::shared_ptr<const M2DSlice> _OnGetSlice(std::uint64_t i) const;         // 12
    virtual void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const;                   // 13
    // Appends the slices of layer i (one here; one per joined source in a source vector).
    virtual void _OnGetSlices(std::vector<std::shared_ptr<const M2DSlice>>& slices, std::uint64_t i) const; // 14
    virtual void _OnGetSliceItems(M2DSliceConstDataItems& items, std::uint64_t i) const; // 15
    virtual void _OnStopGettingSlices() const {}                        // 16

    // Not one of the numbered slots: the properties of the source, null by default.
    virtual const PersistentProperties* _OnGetProperties() const { return nullptr; }
};

// The write side of a load.
class SLICEIO_API ITarget2DSlices
{
public:
    virtual ~ITarget2DSlices() = default;
    virtual bool StartAddingSlices() { return true; }
    // Adds a layer. With take true the target may take the slice's geometry over and
    // leave it empty. Returns the stored slice, or null when it was refused.
    virtual M2DSlice* AddSlice(M2DSlice& slice, bool take) = 0;
    virtual bool StopAddingSlices() { return true; }
    virtual PersistentProperties* GetProperties() { return nullptr; }
};

// Joins several sources into one, layer by layer. SetVector builds the layer table from the
// heights alone, loading no slice; null sources are skipped. GetSlices and GetSliceItems give
// one slice per source; GetSlice gives a single source's own slice, or for several sources a
// new slice holding the geometry of all of them. Parameters and properties are those of the
// first source.
class SLICEIO_API M2DSliceSourceVector : public ISource2DSlices
{
public:
    struct Options
    {
        // First byte: reserved, no effect.
        bool Reserved = false;
        // Layers are the distinct heights of all sources in rising order, each source
        // contributing its slice at that height (or an empty one with that height); a source
        // holding a height k times fills the first k layers of that height. When false,
        // layer i is the i-th slice of every source, and shorter sources contribute empty
        // slices with the height of the first source that has layer i.
        bool JoinByHeight = false;
    };

    M2DSliceSourceVector() = default;
    void SetVector(const std::vector<const ISource2DSlices*>& sources);
    Options& GetOptions() { return _options; }
    const Options& GetOptions() const { return _options; }
    const std::vector<const ISource2DSlices*>& GetSources() const { return _sources; }

protected:
    std::int32_t _OnGetSliceThickness() const override;
    const MSliceFileParameters* _OnGetSliceParameters() const override;
    const M2DSliceIOParameters* _OnGetSliceIOParameters() const override;
    M2DSliceXYArea _OnGetXYArea(std::uint64_t i) const override;
    M2DSliceXYArea _OnGetXYArea() const override;
    std::uint64_t _OnGetNumSlices() const override { return _layers.size(); }
    M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const override;
    std::shared_ptr<const M2DSlice> _OnGetSlice(std::uint64_t i) const override;
    void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const override;
    void _OnGetSlices(std::vector<std::shared_ptr<const M2DSlice>>& slices, std::uint64_t i) const override;
    void _OnGetSliceItems(M2DSliceConstDataItems& items, std::uint64_t i) const override;
    const PersistentProperties* _OnGetProperties() const override;

private:
    static constexpr std::uint64_t kNone = UINT64_MAX;
    struct Layer
    {
        std::int32_t Z;
        std::vector<std::uint64_t> Index; // per source: its slice index, or kNone
    };
    std::shared_ptr<const M2DSlice> _SliceOf(std::size_t source, std::uint64_t layer) const;

    Options _options;
    std::vector<const ISource2DSlices*> _sources;
    std::vector<Layer> _layers;
};
