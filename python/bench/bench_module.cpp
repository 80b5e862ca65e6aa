// The C++ side of the Python read benchmark: writes the benchmarks' generated build as binary
// CLI and times the library's own reads of it, so that the Python figures are set against
// C++ figures of the same file in the same process.
#include <pybind11/pybind11.h>

#include <chrono>
#include <string>

#include "BuildGenerator.h"
#include "contracts/M2DSliceStack.h"
#include "formats/cli/M2DSliceIO_cli.h"
#include "framework/M2DSliceContainerIO.h"

namespace py = pybind11;

namespace {

double Seconds(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

PYBIND11_MODULE(_sliceio_bench, m)
{
    // (path, bytes, layers, vectors) of a new file of the generated build; the file goes
    // when the process ends.
    m.def("write_bench_file", [](std::uint64_t layers) {
        BuildShape shape;
        shape.NumLayers = layers;
        const BenchFile file = WriteBenchFile(shape, "python_read.cli");
        if (!file.Written)
            throw std::runtime_error("the benchmark file could not be written");
        return py::make_tuple(file.NarrowPath, file.Bytes, file.Layers, file.Vectors);
    });
    // Seconds and vectors of reading every layer into one slice (the library's layer read).
    m.def("read_layers", [](const std::string& path) {
        py::gil_scoped_release release;
        const std::wstring wide(path.begin(), path.end());
        const auto start = std::chrono::steady_clock::now();
        M2DSliceIO_cli io;
        M2DSlice slice;
        std::uint64_t vectors = 0;
        if (!io.OpenFile(wide, I2DSliceIO::Read) || !io.ReadHeader(nullptr))
            throw std::runtime_error("the file does not open");
        while (io.ReadLayer(slice, nullptr, true))
            vectors += slice.GetVectors()->GetTotalNumVectors();
        io.ReadFooter(nullptr);
        io.CloseFile();
        return std::make_pair(Seconds(start), vectors);
    });
    // Seconds and vectors of loading the whole file into a slice stack (a whole-file read).
    m.def("read_stack", [](const std::string& path) {
        py::gil_scoped_release release;
        const std::wstring wide(path.begin(), path.end());
        const auto start = std::chrono::steady_clock::now();
        M2DSliceStack stack;
        M2DSliceContainerIO driver(0);
        if (!driver.ReadContainer(stack, wide, true))
            throw std::runtime_error("the file does not read");
        const double seconds = Seconds(start);
        std::uint64_t vectors = 0;
        for (std::uint64_t i = 0; i < stack.GetNumSlices(); ++i)
            vectors += stack.GetSlice(i)->GetVectors()->GetTotalNumVectors();
        return std::make_pair(seconds, vectors);
    });
}
