#pragma once
// A deterministic, realistic build for the benchmarks, the tests and the fuzzers: layers of tube-like parts, each an outer
// contour with a hole, hatched by parallel lines whose direction turns from layer to layer and
// which are split into stripes, one vector block per stripe.
//
// The geometry repeats every DistinctLayers layers; those few layers are built once, on first
// use, and each slice handed out is a copy with its own height. So a build of thousands of
// layers costs the memory of a handful, and a copy is all the time a layer takes.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "contracts/M2DSliceSource.h"
#include "contracts/PersistentProperties.h"

struct BuildShape
{
    std::uint64_t NumLayers = 1000;
    std::size_t VectorsPerLayer = 50000; // reached within a few per cent
    int Parts = 6;
    int PointsPerOuter = 72;
    int PointsPerHole = 36;
    int BlocksPerPart = 4;
    std::int32_t LayerThickness = 300; // internal units: 30 micrometres
    int DistinctLayers = 8;
    // What machine formats also carry: per part an open polyline (a support-like zigzag,
    // labelled e2DSliceVectorType_Support) and a block of points (e2DSliceVectorType_Point).
    int OpenPolylinePoints = 0; // points of each open polyline; 0: none
    int PointsPerPart = 0;      // points of each point block; 0: none
    int OnlyPart = -1;          // >= 0: the slices hold only this part

    // Small and complete: every kind of geometry every format meets, for tests.
    static BuildShape Rich(std::uint64_t layers = 6, int parts = 3)
    {
        BuildShape shape;
        shape.NumLayers = layers;
        shape.VectorsPerLayer = 60 * static_cast<std::size_t>(parts);
        shape.Parts = parts;
        shape.PointsPerOuter = 24;
        shape.PointsPerHole = 12;
        shape.BlocksPerPart = 2;
        shape.LayerThickness = 500;
        shape.DistinctLayers = 3;
        shape.OpenPolylinePoints = 5;
        shape.PointsPerPart = 4;
        return shape;
    }
};

class BuildGenerator : public ISource2DSlices
{
public:
    explicit BuildGenerator(const BuildShape& shape = BuildShape());

    const BuildShape& GetShape() const { return _shape; }
    // One source per part, as a multi-part build reaches a writer: the slices of part p hold
    // only what is labelled with part p, and each source's properties carry "PartID" (p + 1)
    // and "PartName" ("part<p+1>").
    std::vector<std::shared_ptr<ISource2DSlices>> SplitByPart() const;
    PersistentProperties& Properties() { return _properties; }
    std::uint64_t GetTotalNumVectors() const;
    std::uint64_t GetTotalNumContourPoints() const;

protected:
    std::int32_t _OnGetSliceThickness() const override { return _shape.LayerThickness; }
    std::uint64_t _OnGetNumSlices() const override { return _shape.NumLayers; }
    M2DSliceZArea _OnGetSliceZArea(std::uint64_t i) const override;
    M2DSliceXYArea _OnGetXYArea(std::uint64_t i) const override;
    M2DSliceXYArea _OnGetXYArea() const override;
    std::shared_ptr<const M2DSlice> _OnGetSlice(std::uint64_t i) const override;
    const PersistentProperties* _OnGetProperties() const override { return &_properties; }
    void _OnGetSlice(M2DSlice& slice, std::uint64_t i) const override;

private:
    const M2DSlice& _Template(std::uint64_t i) const;
    void _BuildTemplate(M2DSlice& slice, int index) const;

    BuildShape _shape;
    PersistentProperties _properties;
    mutable std::vector<std::unique_ptr<M2DSlice>> _templates;
};

// A binary CLI file (long form, 1/1000 mm steps) written once from a generated build.
struct BenchFile
{
    std::wstring Path;
    std::string NarrowPath;
    std::uint64_t Bytes = 0;
    std::uint64_t Layers = 0;
    std::uint64_t Vectors = 0;
    bool Written = false;
};
BenchFile WriteBenchFile(const BuildShape& shape, const std::string& name);

// Layer count of the benchmark builds: SLICEIO_BENCH_LAYERS when set (for quick or profiled
// runs), else the given default.
std::uint64_t BenchLayers(std::uint64_t fallback);

// A file under /tmp for this process, removed when the process ends.
std::wstring BenchTempPath(const std::string& name);
